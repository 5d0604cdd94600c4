#include "flow_kernels.h"

#include "simd/kernel_sets.h"

namespace cv::optflow::lum::kernels {
namespace {

::lum::simd::KernelSets<Kernels>& sets() {
  static ::lum::simd::KernelSets<Kernels> all({
#ifdef LUM_SIMD_X86
      {&kAvx512Kernels, ::lum::simd::HasAvx512},
      {&kAvx2Kernels, ::lum::simd::HasAvx2},
#endif
      {&kBaselineKernels, nullptr},
      {&kPlainKernels, nullptr},
  });
  return all;
}

}  // namespace

const Kernels* const* supportedKernels() { return sets().Supported(); }
const Kernels& activeKernels() { return sets().Active(); }
void forceKernels(const Kernels* kernels) { sets().Force(kernels); }

}  // namespace cv::optflow::lum::kernels
