// Time stamps of any time base to nanoseconds and back, exactly.
#ifndef CAMM_SRC_TIME_CONVERSION_H_
#define CAMM_SRC_TIME_CONVERSION_H_

#include <cstdint>
#include <limits>

namespace camm {

inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

/// `value * numerator / denominator`, rounded to nearest, halves away from zero. What does not fit
/// becomes the largest number, or the smallest but one (the smallest of all stands for no time).
/// @param numerator, denominator above 0.
inline std::int64_t MulDiv(std::int64_t value, std::int64_t numerator, std::int64_t denominator) {
  std::int64_t product = 0;
  if (!__builtin_mul_overflow(value, numerator, &product) && product % denominator == 0) {
    return product / denominator;  // the usual case, and many times faster than 128 bits
  }
  __extension__ using Wide = __int128;
  const Wide wide = static_cast<Wide>(value) * numerator;
  const Wide half = denominator / 2;
  const Wide rounded = (wide >= 0 ? wide + half : wide - half) / denominator;
  constexpr Wide kMax = std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(rounded > kMax ? kMax : rounded < -kMax ? -kMax : rounded);
}

/// `a + b`, kept within the same limits.
inline std::int64_t SaturatingAdd(std::int64_t a, std::int64_t b) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  std::int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) return a < 0 ? -kMax : kMax;
  return sum < -kMax ? -kMax : sum;
}

/// `a - b`, kept within the same limits.
inline std::int64_t SaturatingSub(std::int64_t a, std::int64_t b) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  std::int64_t difference = 0;
  if (__builtin_sub_overflow(a, b, &difference)) return a < b ? -kMax : kMax;
  return difference < -kMax ? -kMax : difference;
}

}  // namespace camm

#endif  // CAMM_SRC_TIME_CONVERSION_H_
