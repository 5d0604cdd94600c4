// Reads a file with the demuxer and writes down what came.
#ifndef MOTRACE_TESTS_AV_TOOLBOX_PACKET_LOG_H_
#define MOTRACE_TESTS_AV_TOOLBOX_PACKET_LOG_H_

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "av_toolbox/demuxer.h"

namespace motrace::testing {

/// Every field of a packet.
inline std::string Written(const AVPacket& packet) {
  std::ostringstream text;
  text << packet.stream_index << ' ' << packet.pts << ' ' << packet.dts << ' ' << packet.duration
       << ' ' << packet.flags << ' ' << packet.pos << ' ' << packet.size << ' '
       << packet.time_base.num << '/' << packet.time_base.den << ' '
       << (packet.buf != nullptr ? packet.buf->size : 0) << ' ' << packet.opaque << ' '
       << packet.opaque_ref << ':';
  const auto size = static_cast<size_t>(packet.size);
  const size_t padded = size + AV_INPUT_BUFFER_PADDING_SIZE;
  // With the zeros that FFmpeg's readers rely on, where the buffer is the packet's own.
  const bool own = packet.buf != nullptr && packet.buf->size == padded;
  text.write(reinterpret_cast<const char*>(packet.data),
             static_cast<std::streamsize>(own ? padded : size));
  for (int i = 0; i < packet.side_data_elems; ++i) {
    const AVPacketSideData& side = packet.side_data[i];
    text << '|' << side.type << ':';
    text.write(reinterpret_cast<const char*>(side.data), static_cast<std::streamsize>(side.size));
  }
  return text.str();
}

/// What a demuxer gives up to the first result that is not 0.
struct PacketLog {
  std::vector<std::string> packets;
  int end = 0;
  bool by_plan = false;  ///< ended so
};

struct PacketLogOptions {
  bool plan = true;
  int before_discarding = 1;  ///< packets that are read before all but the data stream is discarded
  bool keep = false;          ///< hold every packet, as a consumer may
  size_t limit = 1'000'000;   ///< packets
};

inline PacketLog ReadAll(lum::Demuxer& demuxer, const PacketLogOptions& options) {
  PacketLog log;
  demuxer.SetReadingPlan(options.plan);
  std::shared_ptr<lum::QVXPacket> packet;
  std::vector<std::shared_ptr<lum::QVXPacket>> kept;
  const AVStream* const data = demuxer.DataStream();
  for (int i = 0; log.packets.size() < options.limit; ++i) {
    for (unsigned s = 0; i == options.before_discarding && s < demuxer.StreamCount(); ++s) {
      if (demuxer.GetStream(s) != data) demuxer.DiscardStream(s);
    }
    log.end = demuxer.NextPacket(packet);
    if (log.end != 0) break;
    log.packets.push_back(Written(*packet));
    if (options.keep) kept.push_back(packet);
  }
  log.by_plan = demuxer.ReadsByPlan();
  for (size_t i = 0; i < kept.size(); ++i) log.packets[i] = Written(*kept[i]);
  return log;
}

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_AV_TOOLBOX_PACKET_LOG_H_
