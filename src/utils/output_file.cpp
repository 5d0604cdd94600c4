#include "utils/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr size_t kBufferSize = size_t{64} * 1024;
constexpr mode_t kMode = 0666;  // the process's umask narrows it

}  // namespace

bool OutputFile::Open(const std::string& path) {
  path_ = path;
  error_ = 0;
  file_.reset();
  // Not blocking while it is opened: a FIFO without a reader would hang the whole run.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, kMode);
  if (fd >= 0) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    file_.reset(fdopen(fd, "wb"));
    if (file_ == nullptr) {
      error_ = errno;
      close(fd);
      return false;
    }
    std::setvbuf(file_.get(), nullptr, _IOFBF, kBufferSize);
    return true;
  }
  error_ = errno;
  return false;
}

void OutputFile::Write(const void* data, size_t size) {
  if (file_ == nullptr || error_ != 0) return;
  if (std::fwrite(data, 1, size, file_.get()) != size) error_ = errno;
}

bool OutputFile::Close() {
  if (file_ == nullptr) return error_ == 0;
  if (std::fclose(file_.release()) != 0 && error_ == 0) error_ = errno;
  return error_ == 0;
}
