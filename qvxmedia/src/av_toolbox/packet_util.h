// The packet that travels through the pipeline, and its factories.
#ifndef QVXMEDIA_AV_TOOLBOX_PACKET_UTIL_H_
#define QVXMEDIA_AV_TOOLBOX_PACKET_UTIL_H_

#include <cstdint>
#include <memory>

#include "av_toolbox/ffmpeg_compat.h"

namespace lum {

/// A packet is FFmpeg's, always held by `std::shared_ptr`. Time stamps are in the time base of the
/// stream it came from; `AV_NOPTS_VALUE` where unknown.
using QVXPacket = AVPacket;

/// A new, empty packet; its last owner frees it with `av_packet_free`. Any thread.
/// Running out of memory is a fatal check.
std::shared_ptr<QVXPacket> NewPacket();

/// A key packet that carries a copy of a raw AAC frame (no ADTS header is added).
/// @param data may be null: the packet then has no payload.
/// @param size bytes at `data`.
/// @param pts presentation and decoding time stamp, in the time base of its stream.
std::shared_ptr<QVXPacket> NewAACPacket(const uint8_t* data, int size, int64_t pts,
                                        int stream_index);

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_PACKET_UTIL_H_
