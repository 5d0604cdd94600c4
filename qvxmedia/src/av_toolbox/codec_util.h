// Codec parameters and free-standing streams under shared ownership.
#ifndef QVXMEDIA_AV_TOOLBOX_CODEC_UTIL_H_
#define QVXMEDIA_AV_TOOLBOX_CODEC_UTIL_H_

#include <cstdint>
#include <memory>

#include "av_toolbox/ffmpeg_compat.h"

namespace lum {

/// New, empty codec parameters. Running out of memory is a fatal check. Any thread.
std::shared_ptr<AVCodecParameters> NewAVCodecParameters();

/// A stream that belongs to no open file: only `codecpar` and what its maker sets are meaningful.
/// Running out of memory is a fatal check. Any thread.
std::shared_ptr<AVStream> NewAVStream();

/// A stream that describes a synthetic AAC track (1024 samples a frame).
/// @param sample_format an `AVSampleFormat`.
/// @param channel_layout a mask of `AV_CH_*`.
/// @param sample_rate samples per second.
/// @param extradata may be null when `extradata_size` is 0; copied, with FFmpeg's padding after it.
/// @param extradata_size bytes.
/// @param time_base unit of the stream's time stamps, in seconds.
std::shared_ptr<AVStream> NewAACStream(int sample_format, uint64_t channel_layout, int channels,
                                       int sample_rate, const uint8_t* extradata,
                                       int extradata_size, AVRational time_base);

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_CODEC_UTIL_H_
