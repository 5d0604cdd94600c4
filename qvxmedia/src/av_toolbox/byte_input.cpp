#include "av_toolbox/byte_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "base/log_message.h"

namespace lum {
namespace {

constexpr int kBufferSize = 32768;

int SourceFailed(const char* reason) {
  LUM_LOG(kError) << "byte source failed: " << reason;
  return AVERROR_EXTERNAL;
}

// What a byte source answers, or AVERROR_EXTERNAL when it throws.
template <typename Call>
auto AnswerOf(Call&& call) -> decltype(call()) {
  try {
    return call();
  } catch (const std::exception& e) {
    return SourceFailed(e.what());
  } catch (...) {
    return SourceFailed("it threw something that is no exception");
  }
}

// Repeats a system call that a signal has cut short.
template <typename Call>
auto Uninterrupted(Call&& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace

std::unique_ptr<ByteInput> ByteInput::OpenFile(const std::string& path, int& error) {
  const int descriptor =
      Uninterrupted([&path] { return open(path.c_str(), O_RDONLY | O_CLOEXEC); });
  if (descriptor < 0) {
    error = AVERROR(errno);
    return nullptr;
  }
  struct stat status {};
  const bool pipe = fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode);
  return std::unique_ptr<ByteInput>(new ByteInput(descriptor, !pipe));
}

ByteInput::ByteInput(int descriptor, bool seekable) : descriptor_(descriptor) {
  MakeContext(seekable);
}

ByteInput::ByteInput(std::shared_ptr<IOSource> source)
    : descriptor_(-1), source_(std::move(source)) {
  MakeContext(AnswerOf([this] { return static_cast<int>(source_->IsSeekable()); }) > 0);
}

ByteInput::~ByteInput() {
  av_freep(static_cast<void*>(&context_->buffer));
  avio_context_free(&context_);
  if (descriptor_ >= 0) close(descriptor_);
}

void ByteInput::MakeContext(bool seekable) {
  const auto read = [](void* input, uint8_t* buffer, int size) {
    return static_cast<ByteInput*>(input)->Read(buffer, size);
  };
  const auto seek = [](void* input, int64_t offset, int whence) {
    return static_cast<ByteInput*>(input)->Seek(offset, whence);
  };
  auto* buffer = static_cast<uint8_t*>(av_malloc(kBufferSize));
  LUM_CHECK(buffer != nullptr) << "no memory for an I/O buffer";
  context_ = avio_alloc_context(buffer, kBufferSize, /*write_flag=*/0, this, read, nullptr,
                                seekable ? +seek : nullptr);
  LUM_CHECK(context_ != nullptr) << "no memory for an I/O context";
}

int ByteInput::Read(uint8_t* buffer, int size) {
  if (!guard_.Refusal().empty()) return AVERROR_INVALIDDATA;
  int count = static_cast<int>(std::min(static_cast<size_t>(size), ahead_.size()));
  std::copy_n(ahead_.data(), count, buffer);
  ahead_.erase(ahead_.begin(), ahead_.begin() + count);
  while (count < std::min(size, InputGuard::kLongestMark)) {
    const int result = late_error_ != 0 ? std::exchange(late_error_, 0)
                                        : ReadBeneath(buffer + count, size - count);
    if (result > 0) {
      count += result;
      continue;
    }
    if (count == 0) return result;
    if (result != AVERROR_EOF) late_error_ = result;
    break;
  }
  const size_t admitted =
      guard_.Admit({reinterpret_cast<char*>(buffer), static_cast<size_t>(count)});
  ahead_.insert(ahead_.begin(), buffer + admitted, buffer + count);
  return admitted > 0 ? static_cast<int>(admitted) : AVERROR_INVALIDDATA;
}

int64_t ByteInput::Seek(int64_t offset, int whence) {
  const int64_t result = SeekBeneath(offset, whence);
  if ((whence & ~AVSEEK_FORCE) != AVSEEK_SIZE && result >= 0) {
    ahead_.clear();
    late_error_ = 0;
    guard_.Moved(result);
  }
  return result;
}

int ByteInput::ReadBeneath(uint8_t* buffer, int size) {
  int result = 0;
  if (source_) {
    result = AnswerOf([&] { return source_->Read(buffer, size); });
  } else {
    const ssize_t count =
        Uninterrupted([&] { return read(descriptor_, buffer, static_cast<size_t>(size)); });
    result = count < 0 ? AVERROR(errno) : static_cast<int>(count);
  }
  if (result == 0) return AVERROR_EOF;
  if (result < 0 && result != AVERROR_EOF) read_error_ = result;
  return result;
}

int64_t ByteInput::SeekBeneath(int64_t offset, int whence) {
  if (source_) return AnswerOf([&] { return source_->Seek(offset, whence); });
  whence &= ~AVSEEK_FORCE;
  if (whence == AVSEEK_SIZE) {
    struct stat status {};
    return fstat(descriptor_, &status) == 0 ? int64_t{status.st_size} : AVERROR(errno);
  }
  const off_t position = lseek(descriptor_, offset, whence);
  return position < 0 ? AVERROR(errno) : int64_t{position};
}

bool ByteInput::ReadAt(int64_t position, uint8_t* buffer, size_t size) const {
  while (size > 0) {
    const ssize_t count = Uninterrupted([&] { return pread(descriptor_, buffer, size, position); });
    if (count <= 0) return false;
    buffer += count;
    position += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

void ByteInput::Prefetch(int64_t position, size_t size) const {
  posix_fadvise(descriptor_, position, static_cast<off_t>(size), POSIX_FADV_WILLNEED);
}

}  // namespace lum
