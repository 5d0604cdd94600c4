#include "av_toolbox/packet_util.h"

#include <algorithm>

#include "base/log_sites.h"

namespace lum {

std::shared_ptr<QVXPacket> NewPacket() {
  auto* packet = static_cast<AVPacket*>(av_mallocz(sizeof(AVPacket)));
  LUM_CHECK_AT(packet != nullptr, site::kPacketAlloc) << "malloc AVPacket return nullptr";
  av_packet_unref(packet);
  return {packet, [](AVPacket* p) { av_packet_free(&p); }};
}

std::shared_ptr<QVXPacket> NewAACPacket(const uint8_t* data, int size, int64_t pts,
                                        int stream_index) {
  std::shared_ptr<QVXPacket> pkt = NewPacket();
  LUM_CHECK_AT(pkt != nullptr, site::kAacPacketAlloc);
  if (data != nullptr && size >= 1) {
    // FFmpeg's readers may look past the end; the buffer's size does not count what is there.
    auto* frame =
        static_cast<uint8_t*>(av_mallocz(static_cast<size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE));
    AVBufferRef* buf = frame == nullptr
                           ? nullptr
                           : av_buffer_create(frame, static_cast<decltype(AVBufferRef::size)>(size),
                                              av_buffer_default_free, nullptr, /*flags=*/0);
    LUM_CHECK_AT(buf != nullptr, site::kAacBufferAlloc);
    pkt->buf = buf;
    pkt->data = buf->data;
    pkt->size = size;
    std::copy_n(data, size, buf->data);
  }
  pkt->pts = pts;
  pkt->dts = pts;
  pkt->flags = AV_PKT_FLAG_KEY;
  pkt->stream_index = stream_index;
  return pkt;
}

}  // namespace lum
