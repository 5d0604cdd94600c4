#include "raw_bayer/row_kernels.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cmath>
#include <opencv2/core/utility.hpp>

namespace lum::raw::kernels {
namespace {

std::atomic<const Kernels*> g_forced{nullptr};

std::array<const Kernels*, 5> FindSupported() {
  std::array<const Kernels*, 5> found{};
  std::size_t count = 0;
#ifdef LUM_RAW_X86_KERNELS
  if (cv::checkHardwareSupport(CV_CPU_AVX512_SKX)) {
    found[count++] = &kAvx512Kernels;
  }
  if (cv::checkHardwareSupport(CV_CPU_AVX2)) {
    found[count++] = &kAvx2Kernels;
  }
#endif
  if (kBaselineKernels.lanes < kPlainKernels.lanes) {
    found[count++] = &kBaselineKernels;
  }
  found[count] = &kPlainKernels;
  return found;
}

}  // namespace

const Kernels kPlainKernels = {"plain", INT_MAX, nullptr, nullptr,
                               nullptr, nullptr, nullptr, nullptr};

Screen::Screen(float bad_pixel_rate) : rate(bad_pixel_rate), useful(bad_pixel_rate >= 1.0F) {
  if (!useful) {
    return;
  }
  const double exact = 65536.0 / static_cast<double>(rate);
  // The quotient of the doubles may be rounded itself; one unit of the scales is far more.
  high = static_cast<std::uint16_t>(std::min(std::floor(exact) + 1.0, 65535.0));
  whole = rate == 1.0F ? 0xffff : 0;
  low = rate == 1.0F ? 0 : static_cast<std::uint16_t>(std::max(std::ceil(exact) - 1.0, 0.0));
}

const Kernels* const* Supported() {
  static const std::array<const Kernels*, 5> kFound = FindSupported();
  return kFound.data();
}

const Kernels& Active() {
  const Kernels* const forced = g_forced.load(std::memory_order_relaxed);
  return forced != nullptr ? *forced : *Supported()[0];
}

void Force(const Kernels* kernels) { g_forced.store(kernels, std::memory_order_relaxed); }

}  // namespace lum::raw::kernels
