// Reads a file with the demuxer and keeps what came.
#ifndef MOTRACE_TESTS_AV_TOOLBOX_PACKET_LOG_H_
#define MOTRACE_TESTS_AV_TOOLBOX_PACKET_LOG_H_

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "av_toolbox/demuxer.h"
#include "support/samples.h"

namespace motrace::testing {

struct PacketCopy {
  explicit PacketCopy(const AVPacket& packet)
      : stream(packet.stream_index),
        pts(packet.pts),
        dts(packet.dts),
        data(packet.data, packet.data + packet.size) {
    std::ostringstream text;
    text << packet.duration << ' ' << packet.flags << ' ' << packet.pos << ' '
         << packet.time_base.num << '/' << packet.time_base.den << ' '
         << (packet.buf != nullptr ? packet.buf->size : 0) << ' ' << packet.opaque << ' '
         << packet.opaque_ref << ':';
    // The zeros that FFmpeg's readers rely on, where the buffer is the packet's own.
    if (packet.buf != nullptr && packet.buf->size == data.size() + AV_INPUT_BUFFER_PADDING_SIZE) {
      text.write(reinterpret_cast<const char*>(packet.data + packet.size),
                 AV_INPUT_BUFFER_PADDING_SIZE);
    }
    for (int i = 0; i < packet.side_data_elems; ++i) {
      const AVPacketSideData& side = packet.side_data[i];
      text << '|' << side.type << ':';
      text.write(reinterpret_cast<const char*>(side.data), static_cast<std::streamsize>(side.size));
    }
    others = text.str();
  }
  friend bool operator==(const PacketCopy& a, const PacketCopy& b) {
    return a.stream == b.stream && a.pts == b.pts && a.dts == b.dts && a.data == b.data &&
           a.others == b.others;
  }

  int stream;
  int64_t pts;
  int64_t dts;
  Bytes data;
  std::string others;  ///< every other field
};

/// What a demuxer gives up to the first result that is not 0.
struct PacketLog {
  std::vector<PacketCopy> packets;
  int end = 0;
  bool by_plan = false;  ///< ended so
};

struct PacketLogOptions {
  bool plan = true;
  /// Packets that are read before all but the data stream is discarded; below 0: none ever is.
  int before_discarding = -1;
  bool keep = false;         ///< hold every packet, as a consumer may
  size_t limit = 1'000'000;  ///< packets
};

inline PacketLog ReadAll(lum::Demuxer& demuxer, const PacketLogOptions& options = {}) {
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
    log.packets.emplace_back(*packet);
    if (options.keep) kept.push_back(packet);
  }
  log.by_plan = demuxer.ReadsByPlan();
  for (size_t i = 0; i < kept.size(); ++i) log.packets[i] = PacketCopy(*kept[i]);
  return log;
}

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_AV_TOOLBOX_PACKET_LOG_H_
