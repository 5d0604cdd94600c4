// Gives a video without sound a silent AAC track: silent_audio FILE

#include "counting_consumer.h"
#include "editor/file_media_src.h"
#include "run_source.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto source = std::make_shared<lum::FileMediaSrc>(argv[1]);
  const auto audio = std::make_shared<CountingConsumer>();
  // [use]
  source->SetAddSilentAudio(true);  // does nothing where the file has audio
  source->SetAudioConsumer(audio);
  // [use]
  const auto video = std::make_shared<CountingConsumer>();
  source->SetVideoConsumer(video);
  const int result = RunSource(source);
  std::printf("video to %lld ms, %d silent frames to %lld ms\n",
              static_cast<long long>(video->last_ms), audio->count,
              static_cast<long long>(audio->last_ms));
  return result;
}
