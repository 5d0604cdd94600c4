#ifndef MOTION_INTERPOLATION_HUGE_PAGES_H_
#define MOTION_INTERPOLATION_HUGE_PAGES_H_

/// Internal: memory of large frames.

#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>

#ifdef __linux__
#include <sys/mman.h>
#endif

namespace cv::optflow::lum {

/// Asks for large pages under a matrix of several MiB. With small ones an 8K frame spends a quarter
/// of its time on the first touch of pages. Only advice: without support nothing happens.
inline void adviseHugePages(const Mat& mat) {
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t kPage = 4096;
  constexpr std::size_t kWorthIt = std::size_t{4} << 20;
  const std::size_t size = mat.total() * mat.elemSize();
  if (!mat.isContinuous() || size < kWorthIt) return;
  const std::size_t skipped = (kPage - reinterpret_cast<std::uintptr_t>(mat.data) % kPage) % kPage;
  madvise(mat.data + skipped, (size - skipped) / kPage * kPage, MADV_HUGEPAGE);
#else
  static_cast<void>(mat);
#endif
}

}  // namespace cv::optflow::lum

#endif  // MOTION_INTERPOLATION_HUGE_PAGES_H_
