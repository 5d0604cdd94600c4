// bare_loop FILE: the least that reading a file's data stream through libavformat costs. Nothing is
// decoded or written; every other stream is discarded. Prints packets, and the bytes of the stream.

#include <cstdint>
#include <cstdio>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: bare_loop FILE\n");
    return 2;
  }
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, argv[1], nullptr, nullptr) != 0) return 1;
  avformat_find_stream_info(context, nullptr);
  const int data = av_find_best_stream(context, AVMEDIA_TYPE_DATA, -1, -1, nullptr, 0);
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    if (static_cast<int>(i) != data) context->streams[i]->discard = AVDISCARD_ALL;
  }
  AVPacket* packet = av_packet_alloc();
  int64_t packets = 0;
  int64_t bytes = 0;
  while (av_read_frame(context, packet) == 0) {
    if (packet->stream_index == data) {
      ++packets;
      bytes += packet->size;
    }
    av_packet_unref(packet);
  }
  std::printf("%lld %lld\n", static_cast<long long>(packets), static_cast<long long>(bytes));
  av_packet_free(&packet);
  avformat_close_input(&context);
  return 0;
}
