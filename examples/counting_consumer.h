// A consumer for the examples whose subject is the source.
#ifndef QVXMEDIA_EXAMPLES_COUNTING_CONSUMER_H_
#define QVXMEDIA_EXAMPLES_COUNTING_CONSUMER_H_

#include <cstdint>

#include "editor/media_src.h"

/// Counts packets and keeps the time of the last one. Read it after the run.
class CountingConsumer : public lum::PacketConsumer {
 public:
  bool Open(lum::MediaInfo* /*info*/) override { return true; }
  bool Filter(lum::MediaInfo* info, const std::shared_ptr<lum::QVXPacket>& packet) override {
    ++count;
    last_ms = av_rescale_q(packet->dts, info->stream->time_base, {1, 1000});
    return true;
  }
  bool Notify(lum::MediaInfo* /*info*/, const lum::MediaMessage& message) override {
    if (message.code == lum::kMediaMessageNewRange) ++jumps;
    return true;
  }

  int count = 0;
  int jumps = 0;
  int64_t last_ms = 0;
};

#endif  // QVXMEDIA_EXAMPLES_COUNTING_CONSUMER_H_
