// Reads a container from memory instead of a file: custom_byte_source FILE

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include "counting_consumer.h"
#include "editor/file_media_src.h"
#include "run_source.h"

class MemorySource : public lum::IOSource {
 public:
  explicit MemorySource(std::vector<char> bytes) : bytes_(std::move(bytes)) {}

  bool IsSeekable() override { return true; }
  int Read(uint8_t* buffer, int size) override {
    const int64_t left = static_cast<int64_t>(bytes_.size()) - position_;
    const int64_t count = std::min<int64_t>(size, left);
    if (count <= 0) return AVERROR_EOF;
    std::copy_n(bytes_.begin() + position_, count, buffer);
    position_ += count;
    return static_cast<int>(count);
  }
  int64_t Seek(int64_t offset, int whence) override {
    const auto size = static_cast<int64_t>(bytes_.size());
    if (whence == AVSEEK_SIZE) return size;
    if (whence == SEEK_CUR) offset += position_;
    if (whence == SEEK_END) offset += size;
    if (offset < 0 || offset > size) return AVERROR(EINVAL);
    return position_ = offset;
  }

 private:
  std::vector<char> bytes_;
  int64_t position_ = 0;
};

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::ifstream file(argv[1], std::ios::binary);
  std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};

  // [use]
  const auto source = std::make_shared<lum::FileMediaSrc>("memory");  // a name for the log
  source->SetIOSource(std::make_shared<MemorySource>(std::move(bytes)));
  // [use]
  const auto consumer = std::make_shared<CountingConsumer>();
  source->SetDataConsumer(consumer);
  const int result = RunSource(source);
  std::printf("%d data packets\n", consumer->count);
  return result;
}
