// Lists the key frames of a video: custom_consumer FILE

#include "editor/file_media_src.h"
#include "run_source.h"

// [consumer]
class KeyFrameLister : public lum::PacketConsumer {
 public:
  bool Open(lum::MediaInfo* info) override {
    std::printf("%d x %d\n", info->params->width, info->params->height);
    return true;
  }
  bool Filter(lum::MediaInfo* info, const std::shared_ptr<lum::QVXPacket>& packet) override {
    if ((packet->flags & AV_PKT_FLAG_KEY) != 0) {
      const double seconds = static_cast<double>(packet->pts) * av_q2d(info->stream->time_base);
      std::printf("key frame at %.3f s\n", seconds);
    }
    return true;  // false, after setting info->error, fails the run
  }
};

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto source = std::make_shared<lum::FileMediaSrc>(argv[1]);
  source->SetVideoConsumer(std::make_shared<KeyFrameLister>());
  return RunSource(source);
}
// [consumer]
