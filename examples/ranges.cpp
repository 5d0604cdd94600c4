// Reads two parts of a file as if they were one: ranges FILE

#include "counting_consumer.h"
#include "editor/file_media_src.h"
#include "run_source.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto source = std::make_shared<lum::FileMediaSrc>(argv[1]);
  // [use]
  source->SetRanges({{500, 1500}, {3000, 3500}});  // milliseconds
  // [use]
  const auto consumer = std::make_shared<CountingConsumer>();
  source->SetVideoConsumer(consumer);
  const int result = RunSource(source);
  std::printf("%d frames, %d jump, last at %lld ms\n", consumer->count, consumer->jumps,
              static_cast<long long>(consumer->last_ms));
  return result;
}
