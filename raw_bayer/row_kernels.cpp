#include "raw_bayer/row_kernels.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "simd/kernel_sets.h"

namespace lum::raw::kernels {
namespace {

simd::KernelSets<Kernels>& Sets() {
  static simd::KernelSets<Kernels> sets({
#ifdef LUM_SIMD_X86
      {&kAvx512Kernels, simd::HasAvx512},
      {&kAvx2Kernels, simd::HasAvx2},
#endif
      {&kBaselineKernels, [] { return kBaselineKernels.lanes < kPlainKernels.lanes; }},
      {&kPlainKernels, nullptr},
  });
  return sets;
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

const Kernels* const* Supported() { return Sets().Supported(); }
const Kernels& Active() { return Sets().Active(); }
void Force(const Kernels* kernels) { Sets().Force(kernels); }

}  // namespace lum::raw::kernels
