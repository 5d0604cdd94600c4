#ifndef MOTRACE_TESTS_SUPPORT_MEMORY_SOURCE_H_
#define MOTRACE_TESTS_SUPPORT_MEMORY_SOURCE_H_

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <utility>

#include "av_toolbox/demuxer.h"
#include "support/samples.h"

namespace motrace::testing {

/// A container in memory, as a byte source for the demuxer.
class MemorySource : public lum::IOSource {
 public:
  explicit MemorySource(Bytes content, bool seekable = true)
      : content_(std::move(content)), seekable_(seekable) {}

  bool IsSeekable() override { return seekable_; }
  int64_t Size() override { return static_cast<int64_t>(content_.size()); }
  int64_t Position() override { return position_; }

  int Read(uint8_t* buffer, int size) override {
    if (position_ >= fails_from) return AVERROR(EIO);
    const int64_t count = std::min<int64_t>({size, Size() - position_, fails_from - position_});
    if (count <= 0) return AVERROR_EOF;
    std::copy_n(content_.begin() + position_, count, buffer);
    position_ += count;
    return static_cast<int>(count);
  }

  int64_t Seek(int64_t offset, int whence) override {
    ++seeks;
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) return Size();
    if (whence == SEEK_CUR) offset += position_;
    if (whence == SEEK_END) offset += Size();
    if (offset < 0) return AVERROR(EINVAL);
    position_ = std::min(offset, Size());
    return position_;
  }

  int seeks = 0;
  /// Reads that begin there or after it fail.
  int64_t fails_from = std::numeric_limits<int64_t>::max();

 private:
  Bytes content_;
  bool seekable_;
  int64_t position_ = 0;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_MEMORY_SOURCE_H_
