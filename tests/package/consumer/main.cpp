// Counts the packets of a file's data stream: count_packets FILE
#include <cstdio>

#include "av_toolbox/demuxer.h"

int main(int argc, char** argv) {
  lum::Demuxer demuxer(argc > 1 ? argv[1] : "");
  if (demuxer.Open(nullptr, nullptr) != 0 || demuxer.DataStream() == nullptr) return 1;
  int count = 0;
  for (std::shared_ptr<lum::QVXPacket> packet; demuxer.NextPacket(packet) == 0;) {
    count += packet->stream_index == demuxer.DataStream()->index ? 1 : 0;
  }
  std::printf("%d packets\n", count);
}
