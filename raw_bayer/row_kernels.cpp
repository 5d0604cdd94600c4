#include "raw_bayer/row_kernels.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "raw_bayer/mosaic_rules.h"
#include "simd/kernel_sets.h"

namespace lum::raw::kernels {
namespace {

static_assert(FLT_EVAL_METHOD == 0, "the quotient must be rounded to single precision");

simd::KernelSets<Kernels>& Sets() {
  static simd::KernelSets<Kernels> sets({
#ifdef LUM_SIMD_X86
      {&kAvx512Kernels, simd::HasAvx512},
      {&kAvx2Kernels, simd::HasAvx2},
#endif
      {&kBaselineKernels, [] { return kBaselineKernels.lanes > 0; }},
      {&kPlainKernels, nullptr},
  });
  return sets;
}

template <std::uint16_t (*kRepaired)(const RepairRow&, const Screen&, int x)>
int Fix(const RepairRow& row, const Screen& screen, int x, int end) {
  for (; x < end; ++x) {
    const std::uint16_t repaired = kRepaired(row, screen, x);
    if (repaired == row.rows[2][x]) {
      continue;
    }
    if (row.out == nullptr) {
      return x;
    }
    row.out[x] = repaired;
  }
  return end;
}

auto Around(const RepairRow& row, int x) {
  return [&row, x](int dx, int dy) { return row.rows[2 + dy][x + dx]; };
}
std::uint16_t RepairedCross(const RepairRow& row, const Screen& screen, int x) {
  return Repaired(Around(row, x), /*red_or_blue=*/((x ^ row.y) & 1) == 0, screen.rate);
}
std::uint16_t RepairedSquare(const RepairRow& row, const Screen& screen, int x) {
  return Repaired2(Around(row, x), screen.rate);
}

void Split(const SplitSpan& span) {
  for (int x = 0; x < span.cells; ++x) {
    const int rx = 2 * x;
    const SplitSamples cell = SplitCell([&](int dx, int dy) { return span.raw[1 + dy][rx + dx]; });
    span.r[x] = cell.red;
    span.b[x] = cell.blue;
    span.g[0][rx] = cell.green_at_red;
    span.g[0][rx + 1] = cell.green_right;
    span.g[1][rx] = cell.green_below;
    span.g[1][rx + 1] = cell.green_at_blue;
  }
}

void Merge(const MergeSpan& span) {
  for (int x = 0; x < span.cells; ++x) {
    const int rx = 2 * x;
    span.raw[0][rx] = span.r[x];
    span.raw[0][rx + 1] = span.g[0][rx + 1];
    span.raw[1][rx] = span.g[1][rx];
    span.raw[1][rx + 1] = span.b[x];
  }
}

}  // namespace

const Kernels kPlainKernels = {
    "plain", 1, Fix<RepairedCross>, Fix<RepairedSquare>, Split, Merge, nullptr, nullptr};

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
