#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>

namespace camm {
namespace {

constexpr std::size_t kBufferSize = 1 << 20;

[[noreturn]] void Fail(int error) { throw OutputError(std::generic_category().message(error)); }

void WriteAll(int descriptor, const std::uint8_t* data, std::size_t size, std::uint64_t offset) {
  while (size > 0) {
    const ssize_t count = pwrite(descriptor, data, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail(errno);
    data += count;
    offset += static_cast<std::uint64_t>(count);
    size -= static_cast<std::size_t>(count);
  }
}

/// A name in the same folder that no other process or thread uses.
std::string TemporaryName(const std::string& path) {
  static std::atomic<unsigned> number{0};
  const std::size_t name = path.rfind('/') + 1;  // 0 where there is none
  // The end of a long name is left out: the whole might be too long for the file system.
  return path.substr(0, name) + '.' + path.substr(name, 200) + '.' + std::to_string(getpid()) +
         '-' + std::to_string(number++) + ".part";
}

}  // namespace

OutputFile::OutputFile(const std::string& path, bool overwrite)
    : path_(path),
      temporary_(TemporaryName(path)),
      overwrite_(overwrite),
      file_(open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {
  if (!file_.ok()) Fail(errno);
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return;
  // The one that was made must go again: a destructor does not run for a constructor that throws.
  if (!overwrite || !S_ISREG(status.st_mode)) {
    unlink(temporary_.c_str());
    throw OutputError(S_ISREG(status.st_mode) ? "the file exists" : "it is not a regular file");
  }
}

OutputFile::~OutputFile() {
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void OutputFile::Append(const std::uint8_t* data, std::size_t size) {
  if (buffer_.size() + size > kBufferSize) Flush();
  buffer_.insert(buffer_.end(), data, data + size);
}

void OutputFile::Flush() {
  WriteAll(file_.get(), buffer_.data(), buffer_.size(), written_);
  written_ += buffer_.size();
  buffer_.clear();
}

void OutputFile::AppendFrom(int descriptor, std::uint64_t offset, std::uint64_t size) {
  Flush();
  bool in_kernel = true;
  while (size > 0) {
    // A hole stays one; what cannot tell its holes is all data.
    const off_t data = lseek(descriptor, static_cast<off_t>(offset), SEEK_DATA);
    if (const auto begin = static_cast<std::uint64_t>(data); data >= 0 && begin > offset) {
      const std::uint64_t hole = std::min(begin - offset, size);
      offset += hole;
      written_ += hole;
      size -= hole;
      continue;
    }
    auto from = static_cast<off64_t>(offset);
    auto to = static_cast<off64_t>(written_);
    const off_t end = lseek(descriptor, from, SEEK_HOLE);
    std::uint64_t most = std::min(size, std::uint64_t{1} << 30);
    if (end > from) most = std::min(most, static_cast<std::uint64_t>(end - from));
    ssize_t count = in_kernel ? copy_file_range(descriptor, &from, file_.get(), &to,
                                                static_cast<std::size_t>(most), 0)
                              : 0;
    if (count <= 0 && (!in_kernel || count == 0 || (errno != EINTR && errno != ENOSPC))) {
      // Not every pair of file systems can.
      in_kernel = false;
      buffer_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(size, kBufferSize)));
      count = pread(descriptor, buffer_.data(), buffer_.size(), from);
      if (count == 0) throw OutputError("the input became shorter while it was copied");
      if (count > 0)
        WriteAll(file_.get(), buffer_.data(), static_cast<std::size_t>(count), written_);
      buffer_.clear();
    }
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail(errno);
    offset += static_cast<std::uint64_t>(count);
    written_ += static_cast<std::uint64_t>(count);
    size -= static_cast<std::uint64_t>(count);
  }
}

void OutputFile::Patch(std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
  Flush();
  WriteAll(file_.get(), data, size, offset);
}

void OutputFile::Commit() {
  Flush();
  if (file_.Close() != 0) Fail(errno);
  // A link fails where the name has been taken in the meantime, a rename replaces.
  const bool linked = !overwrite_ && link(temporary_.c_str(), path_.c_str()) == 0;
  if (!overwrite_ && !linked && errno == EEXIST) throw OutputError("the file exists");
  if (linked) {
    unlink(temporary_.c_str());
  } else if (rename(temporary_.c_str(), path_.c_str()) != 0) {  // some file systems have no links
    Fail(errno);
  }
  temporary_.clear();
}

}  // namespace camm
