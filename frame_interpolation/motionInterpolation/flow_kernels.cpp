#include "flow_kernels.h"

#include <atomic>
#include <opencv2/core.hpp>

namespace cv::optflow::lum::kernels {
namespace {

std::atomic<const Kernels*> g_forced{nullptr};

}  // namespace

bool isSupported(const Kernels& kernels) {
#ifdef LUM_HAVE_AVX2_KERNELS
  if (&kernels == &kAvx2Kernels) {
    return checkHardwareSupport(CV_CPU_AVX2) && checkHardwareSupport(CV_CPU_FMA3);
  }
#endif
#ifdef LUM_HAVE_AVX512_KERNELS
  if (&kernels == &kAvx512Kernels) {
    return isSupported(kAvx2Kernels) && checkHardwareSupport(CV_CPU_AVX512_SKX);
  }
#endif
  return &kernels == &kBaselineKernels || &kernels == &kPortableKernels;
}

const Kernels& activeKernels() {
  if (const Kernels* forced = g_forced.load(std::memory_order_relaxed)) return *forced;
#ifdef LUM_HAVE_AVX512_KERNELS
  if (isSupported(kAvx512Kernels)) return kAvx512Kernels;
#endif
#ifdef LUM_HAVE_AVX2_KERNELS
  if (isSupported(kAvx2Kernels)) return kAvx2Kernels;
#endif
  return kBaselineKernels;
}

void forceKernels(const Kernels* kernels) { g_forced.store(kernels, std::memory_order_relaxed); }

}  // namespace cv::optflow::lum::kernels
