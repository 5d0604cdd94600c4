// Arithmetic on time stamps that come from files and may be anything.
#ifndef QVXMEDIA_AV_TOOLBOX_TIME_UTIL_H_
#define QVXMEDIA_AV_TOOLBOX_TIME_UTIL_H_

#include <cstdint>

#include "av_toolbox/ffmpeg_compat.h"

namespace lum {

inline constexpr AVRational kMilliseconds{1, 1000};
inline constexpr AVRational kMicroseconds{1, 1'000'000};

// Sums and products wrap as 64-bit two's complement instead of overflowing.
constexpr int64_t WrappingAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
constexpr int64_t WrappingSub(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}
constexpr int64_t WrappingMul(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

/// `av_rescale_q` (to nearest); 0 for a time base that is not positive, which it must not be given.
inline int64_t Rescale(int64_t value, AVRational from, AVRational to) {
  if (from.num <= 0 || from.den <= 0 || to.num <= 0 || to.den <= 0) return 0;
  return av_rescale_q(value, from, to);
}

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_TIME_UTIL_H_
