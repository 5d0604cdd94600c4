// How this library opens files with FFmpeg.
#ifndef CAMM_SRC_FFMPEG_INPUT_H_
#define CAMM_SRC_FFMPEG_INPUT_H_

#include <cstdint>
#include <string>

#include "av_toolbox/address.h"
#include "av_toolbox/demuxer.h"
#include "camm/recording.h"
#include "time_conversion.h"

namespace camm {

/// A path that FFmpeg can't take for an address, unless it is one of a web server.
inline std::string PlainPath(const std::string& path) {
  return path.empty() || path.front() == '/' || lum::IsWebAddress(path) ? path : "./" + path;
}

/// Nanoseconds of a time stamp; `kNoTime` for none.
inline std::int64_t ToNanoseconds(std::int64_t value, AVRational time_base) {
  if (value == AV_NOPTS_VALUE || time_base.num <= 0 || time_base.den <= 0) return kNoTime;
  // Both factors are below 2^31: no overflow.
  return MulDiv(value, time_base.num * kNanosecondsPerSecond, time_base.den);
}

}  // namespace camm

#endif  // CAMM_SRC_FFMPEG_INPUT_H_
