#ifndef RAW_BAYER_MOSAIC_RULES_H_
#define RAW_BAYER_MOSAIC_RULES_H_

#include <cstddef>
#include <cstdint>

// The rules that all C++ code shares: how a sample is addressed and when it is bad. CUDA compiles
// the same functions for the device.
#if defined(__CUDACC__)
#define LUM_RAW_HOST_DEVICE __host__ __device__
#else
#define LUM_RAW_HOST_DEVICE
#endif

namespace lum::raw {

/// Samples in rows; `step` is the distance of two rows in samples. Does not own them.
template <typename Sample>
struct Plane {
  Sample* data;
  std::size_t step;
  int width;
  int height;
};
using ConstPlane = Plane<const std::uint16_t>;
using MutablePlane = Plane<std::uint16_t>;

/// Where the sample (x, y) is. A column at or beyond the width wraps to column 0, a row at or
/// beyond the last one is the last one. Negative coordinates are the caller's to avoid.
LUM_RAW_HOST_DEVICE inline std::size_t SampleOffset(int x, int y, int width, int height,
                                                    std::size_t step) {
  const int column = x < width ? x : 0;
  const int row = y < height - 1 ? y : height - 1;
  return static_cast<std::size_t>(row) * step + static_cast<std::size_t>(column);
}

template <typename Sample>
LUM_RAW_HOST_DEVICE inline Sample& SampleAt(const Plane<Sample>& plane, int x, int y) {
  return plane.data[SampleOffset(x, y, plane.width, plane.height, plane.step)];
}

/// Whether a sample is bad: strictly above its brightest neighbour after the division. Comparing
/// with the maximum is comparing with each.
LUM_RAW_HOST_DEVICE inline bool Outshines(std::uint16_t sample, std::uint16_t brightest,
                                          float bad_pixel_rate) {
#if defined(__CUDA_ARCH__)
  return __fdiv_rn(static_cast<float>(sample), bad_pixel_rate) > static_cast<float>(brightest);
#else
  return static_cast<float>(sample) / bad_pixel_rate > static_cast<float>(brightest);
#endif
}

LUM_RAW_HOST_DEVICE inline std::uint16_t MeanOf4(unsigned a, unsigned b, unsigned c, unsigned d) {
  return static_cast<std::uint16_t>((a + b + c + d) / 4);
}

LUM_RAW_HOST_DEVICE inline std::uint16_t Brighter(std::uint16_t a, std::uint16_t b) {
  return a > b ? a : b;
}

/// The sample that `FixBadPixels` leaves at a position. `at(dx, dy)` reads the unmodified image
/// that far from it.
template <typename Read>
LUM_RAW_HOST_DEVICE inline std::uint16_t Repaired(const Read& at, bool red_or_blue,
                                                  float bad_pixel_rate) {
  const std::uint16_t sample = at(0, 0);
  const std::uint16_t brightest =
      Brighter(Brighter(at(0, -1), at(-1, 0)), Brighter(at(1, 0), at(0, 1)));
  if (!Outshines(sample, brightest, bad_pixel_rate)) {
    return sample;
  }
  return red_or_blue ? MeanOf4(at(0, -2), at(-2, 0), at(2, 0), at(0, 2))
                     : MeanOf4(at(-1, -1), at(1, -1), at(-1, 1), at(1, 1));
}

/// The same for `FixBadPixels2`; beyond an edge `at` reads the nearest sample.
template <typename Read>
LUM_RAW_HOST_DEVICE inline std::uint16_t Repaired2(const Read& at, float bad_pixel_rate) {
  const std::uint16_t around[] = {at(-1, -1), at(0, -1), at(1, -1), at(-1, 0),
                                  at(1, 0),   at(-1, 1), at(0, 1),  at(1, 1)};
  std::uint16_t brightest = 0;
  unsigned sum = 0;
  for (const std::uint16_t neighbour : around) {
    brightest = Brighter(brightest, neighbour);
    sum += neighbour;
  }
  const std::uint16_t sample = at(0, 0);
  return Outshines(sample, brightest, bad_pixel_rate) ? static_cast<std::uint16_t>(sum / 8)
                                                      : sample;
}

/// What one cell of `SplitRaw` writes.
struct SplitSamples {
  std::uint16_t red, blue, green_at_red, green_right, green_below, green_at_blue;
};

/// Takes a cell apart; `at(dx, dy)` reads the mosaic that far from its red sample.
template <typename Read>
LUM_RAW_HOST_DEVICE inline SplitSamples SplitCell(const Read& at) {
  const std::uint16_t right = at(1, 0);
  const std::uint16_t below = at(0, 1);
  return {at(0, 0), at(1, 1), MeanOf4(at(0, -1), right, below, at(-1, 0)),
          right,    below,    MeanOf4(right, at(2, 1), at(1, 2), below)};
}

}  // namespace lum::raw

#endif  // RAW_BAYER_MOSAIC_RULES_H_
