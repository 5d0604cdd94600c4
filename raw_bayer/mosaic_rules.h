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

/// The sample that `FixBadPixels` leaves at (x, y). `at(x, y)` reads the unmodified image, whose
/// size is `width` x `height`.
template <typename Read>
LUM_RAW_HOST_DEVICE inline std::uint16_t Repaired(const Read& at, int x, int y, int width,
                                                  int height, float bad_pixel_rate) {
  const std::uint16_t sample = at(x, y);
  if (x < 2 || x >= width - 2 || y < 2 || y >= height - 2) {
    return sample;
  }
  const std::uint16_t brightest =
      Brighter(Brighter(at(x, y - 1), at(x - 1, y)), Brighter(at(x + 1, y), at(x, y + 1)));
  if (!Outshines(sample, brightest, bad_pixel_rate)) {
    return sample;
  }
  const bool red_or_blue = ((x ^ y) & 1) == 0;
  return red_or_blue
             ? MeanOf4(at(x, y - 2), at(x - 2, y), at(x + 2, y), at(x, y + 2))
             : MeanOf4(at(x - 1, y - 1), at(x + 1, y - 1), at(x - 1, y + 1), at(x + 1, y + 1));
}

/// The same for `FixBadPixels2`.
template <typename Read>
LUM_RAW_HOST_DEVICE inline std::uint16_t Repaired2(const Read& at, int x, int y, int width,
                                                   int height, float bad_pixel_rate) {
  const int left = x > 0 ? x - 1 : 0;
  const int right = x < width - 1 ? x + 1 : width - 1;
  const int above = y > 0 ? y - 1 : 0;
  const int below = y < height - 1 ? y + 1 : height - 1;
  const std::uint16_t around[] = {at(left, above), at(x, above),    at(right, above),
                                  at(left, y),     at(right, y),    at(left, below),
                                  at(x, below),    at(right, below)};
  std::uint16_t brightest = 0;
  unsigned sum = 0;
  for (const std::uint16_t neighbour : around) {
    brightest = Brighter(brightest, neighbour);
    sum += neighbour;
  }
  const std::uint16_t sample = at(x, y);
  return Outshines(sample, brightest, bad_pixel_rate) ? static_cast<std::uint16_t>(sum / 8)
                                                      : sample;
}

/// Writes what one cell of `SplitRaw` writes.
LUM_RAW_HOST_DEVICE inline void SplitCell(const ConstPlane& raw, const MutablePlane& g,
                                          const MutablePlane& r, const MutablePlane& b, int border,
                                          int x, int y) {
  const int rx = 2 * x + border;
  const int ry = 2 * y + border;
  const std::uint16_t green_right = SampleAt(raw, rx + 1, ry);
  const std::uint16_t green_below = SampleAt(raw, rx, ry + 1);
  SampleAt(r, x, y) = SampleAt(raw, rx, ry);
  SampleAt(b, x, y) = SampleAt(raw, rx + 1, ry + 1);
  SampleAt(g, 2 * x, 2 * y) =
      MeanOf4(SampleAt(raw, rx, ry - 1), green_right, green_below, SampleAt(raw, rx - 1, ry));
  SampleAt(g, 2 * x + 1, 2 * y) = green_right;
  SampleAt(g, 2 * x, 2 * y + 1) = green_below;
  SampleAt(g, 2 * x + 1, 2 * y + 1) = MeanOf4(green_right, SampleAt(raw, rx + 2, ry + 1),
                                              SampleAt(raw, rx + 1, ry + 2), green_below);
}

/// Writes what one cell of `MergeRaw` writes. `g` and `raw` are one image of their batch.
LUM_RAW_HOST_DEVICE inline void MergeCell(const ConstPlane& g, const ConstPlane& r,
                                          const ConstPlane& b, const MutablePlane& raw, int x,
                                          int y) {
  const int rx = 2 * x;
  const int ry = 2 * y;
  SampleAt(raw, rx, ry) = SampleAt(r, x, y);
  SampleAt(raw, rx + 1, ry) = SampleAt(g, rx + 1, ry);
  SampleAt(raw, rx, ry + 1) = SampleAt(g, rx, ry + 1);
  SampleAt(raw, rx + 1, ry + 1) = SampleAt(b, x, y);
}

}  // namespace lum::raw

#endif  // RAW_BAYER_MOSAIC_RULES_H_
