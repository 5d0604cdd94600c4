// Reads the first half second of a file no faster than it plays: pacing FILE

#include <chrono>

#include "counting_consumer.h"
#include "editor/file_media_src.h"
#include "run_source.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto source = std::make_shared<lum::FileMediaSrc>(argv[1]);
  // [use]
  source->SetPaced(true);
  source->SetRanges({{0, 500}});
  // [use]
  const auto consumer = std::make_shared<CountingConsumer>();
  source->SetVideoConsumer(consumer);
  const auto start = std::chrono::steady_clock::now();
  const int result = RunSource(source);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%d frames up to %lld ms in %.1f s\n", consumer->count,
              static_cast<long long>(consumer->last_ms), elapsed.count());
  return result;
}
