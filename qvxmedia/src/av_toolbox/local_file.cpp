#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "av_toolbox/ffmpeg_compat.h"
#include "av_toolbox/random_access.h"

namespace lum {
namespace {

// Repeats a system call that a signal has cut short.
template <typename Call>
auto Uninterrupted(Call&& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

class LocalFile : public RandomAccessSource {
 public:
  explicit LocalFile(int descriptor) : descriptor_(descriptor) {}
  ~LocalFile() override { close(descriptor_); }
  LocalFile(const LocalFile&) = delete;
  LocalFile& operator=(const LocalFile&) = delete;

  bool IsSeekable() override {
    struct stat status {};
    return fstat(descriptor_, &status) != 0 || !S_ISFIFO(status.st_mode);
  }

  int Read(uint8_t* buffer, int size) override {
    const ssize_t count =
        Uninterrupted([&] { return read(descriptor_, buffer, static_cast<size_t>(size)); });
    return count < 0 ? AVERROR(errno) : static_cast<int>(count);
  }

  int64_t Seek(int64_t offset, int whence) override {
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) {
      struct stat status {};
      return fstat(descriptor_, &status) == 0 ? int64_t{status.st_size} : AVERROR(errno);
    }
    const off_t position = lseek(descriptor_, offset, whence);
    return position < 0 ? AVERROR(errno) : int64_t{position};
  }

  bool ReadAt(int64_t position, uint8_t* buffer, size_t size) override {
    while (size > 0) {
      const ssize_t count =
          Uninterrupted([&] { return pread(descriptor_, buffer, size, position); });
      if (count <= 0) return false;
      buffer += count;
      position += count;
      size -= static_cast<size_t>(count);
    }
    return true;
  }

  void Prefetch(int64_t position, size_t size) override {
    posix_fadvise(descriptor_, position, static_cast<off_t>(size), POSIX_FADV_WILLNEED);
  }

 private:
  const int descriptor_;
};

}  // namespace

std::unique_ptr<RandomAccessSource> OpenFile(const std::string& path, int& error) {
  const int descriptor =
      Uninterrupted([&path] { return open(path.c_str(), O_RDONLY | O_CLOEXEC); });
  if (descriptor < 0) {
    error = AVERROR(errno);
    return nullptr;
  }
  return std::make_unique<LocalFile>(descriptor);
}

}  // namespace lum
