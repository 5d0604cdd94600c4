#include "av_toolbox/byte_input.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "av_toolbox/ffmpeg_util.h"
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

}  // namespace

ByteInput::ByteInput(std::shared_ptr<IOSource> source)
    : source_(std::move(source)), anywhere_(dynamic_cast<RandomAccessSource*>(source_.get())) {
  const bool seekable = AnswerOf([this] { return static_cast<int>(source_->IsSeekable()); }) > 0;
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

ByteInput::~ByteInput() {
  av_freep(static_cast<void*>(&context_->buffer));
  avio_context_free(&context_);
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
  const int64_t result = AnswerOf([&] { return source_->Seek(offset, whence); });
  if ((whence & ~AVSEEK_FORCE) != AVSEEK_SIZE && result >= 0) {
    ahead_.clear();
    late_error_ = 0;
    guard_.Moved(result);
  }
  return result;
}

int ByteInput::ReadBeneath(uint8_t* buffer, int size) {
  const int result = AnswerOf([&] { return source_->Read(buffer, size); });
  if (result == 0) return AVERROR_EOF;
  if (result < 0 && result != AVERROR_EOF) read_error_ = result;
  return result;
}

bool ByteInput::ReadAt(int64_t position, uint8_t* buffer, size_t size) const {
  return anywhere_ != nullptr && anywhere_->ReadAt(position, buffer, size);
}

void ByteInput::Prefetch(int64_t position, size_t size) const {
  if (anywhere_ != nullptr) anywhere_->Prefetch(position, size);
}

std::string ByteInput::Problem() const {
  if (anywhere_ != nullptr && !anywhere_->Problem().empty()) return anywhere_->Problem();
  return read_error_ != 0 ? FFmpegErrorString(read_error_) : std::string();
}

}  // namespace lum
