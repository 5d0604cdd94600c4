#include "file_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include "av_toolbox/address.h"
#include "av_toolbox/remote_file.h"

namespace camm {
namespace {

class RemoteReader : public mp4::Reader {
 public:
  explicit RemoteReader(const std::string& address) : file_(address) {}
  /// @return what went wrong; empty where nothing did.
  std::string Open() { return file_.Open() == 0 ? std::string() : file_.Problem(); }
  std::int64_t Size() override { return file_.Size(); }
  bool ReadAt(std::uint64_t offset, std::uint8_t* to, std::size_t size) override {
    return file_.ReadAt(static_cast<std::int64_t>(offset), to, size);
  }

 private:
  lum::RemoteFile file_;
};

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

int Descriptor::Close() { return close(std::exchange(fd_, -1)); }

FileReader::FileReader(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

std::int64_t FileReader::Size() {
  struct stat status {};
  return fstat(fd_.get(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

bool FileReader::ReadAt(std::uint64_t offset, std::uint8_t* to, std::size_t size) {
  while (size > 0) {
    const ssize_t count = pread(fd_.get(), to, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    to += count;
    offset += static_cast<std::uint64_t>(count);
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

std::int64_t SourceReader::Size() {
  return source_.IsSeekable() ? source_.Seek(0, AVSEEK_SIZE) : -1;
}

bool SourceReader::ReadAt(std::uint64_t offset, std::uint8_t* to, std::size_t size) {
  if (source_.Seek(static_cast<std::int64_t>(offset), SEEK_SET) < 0) return false;
  while (size > 0) {
    constexpr std::size_t kMost = std::numeric_limits<int>::max();
    const int count = source_.Read(to, static_cast<int>(std::min(size, kMost)));
    if (count <= 0) return false;
    to += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

std::unique_ptr<mp4::Reader> OpenReader(const Input& input, std::string& error) {
  if (input.io) return std::make_unique<SourceReader>(*input.io);
  if (lum::IsWebAddress(input.path)) {
    auto reader = std::make_unique<RemoteReader>(input.path);
    error = reader->Open();
    return error.empty() ? std::move(reader) : nullptr;
  }
  auto file = std::make_unique<FileReader>(input.path);
  if (file->ok()) return file;
  error = std::generic_category().message(errno);
  return nullptr;
}

}  // namespace camm
