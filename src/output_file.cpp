#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace lum::vela {
namespace {

constexpr mode_t kMode = 0666;  // the process's umask narrows it

bool Same(const struct stat& file, const std::optional<FileId>& other) {
  return other.has_value() && file.st_dev == other->device && file.st_ino == other->inode;
}

}  // namespace

std::optional<FileId> FileId::Of(const std::string& path) {
  struct stat file {};
  if (stat(path.c_str(), &file) != 0) return std::nullopt;
  return FileId{file.st_dev, file.st_ino};
}

bool OutputFile::Open(const std::string& path, const std::optional<FileId>& keep) {
  Close();
  path_ = path;
  error_ = 0;
  // Not blocking while it is opened: a FIFO without a reader would hang the whole run. Truncated
  // only once it is known which file it is.
  fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, kMode);
  struct stat file {};
  const bool known = fd_ >= 0 && fstat(fd_, &file) == 0;
  if (known && Same(file, keep)) {
    error_ = kIsKept;
  } else if (!known || (S_ISREG(file.st_mode) && ftruncate(fd_, 0) != 0)) {
    error_ = errno;
  }
  if (error_ == 0) {
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
  } else if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
  return is_open();
}

// What comes in pieces is collected; what is larger than the buffer needs none.
void OutputFile::WritePastBuffer(const void* data, size_t size) {
  WriteOut(buffer_.get(), used_);
  used_ = 0;
  if (size > kBufferSize) return WriteOut(static_cast<const char*>(data), size);
  std::memcpy(buffer_.get(), data, size);
  used_ = size;
}

void OutputFile::WriteOut(const char* data, size_t size) {
  while (size > 0 && error_ == 0) {
    const ssize_t written = write(fd_, data, size);
    if (written < 0) {
      if (errno != EINTR) error_ = errno;
      continue;
    }
    data += written;
    size -= static_cast<size_t>(written);
  }
}

bool OutputFile::Close() {
  if (is_open()) {
    WriteOut(buffer_.get(), used_);
    if (close(fd_) != 0 && error_ == 0) error_ = errno;
    fd_ = -1;
  }
  used_ = 0;
  return error_ == 0;
}

}  // namespace lum::vela
