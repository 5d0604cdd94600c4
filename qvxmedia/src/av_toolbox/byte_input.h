// The bytes of one input, between where they lie and FFmpeg.
#ifndef QVXMEDIA_AV_TOOLBOX_BYTE_INPUT_H_
#define QVXMEDIA_AV_TOOLBOX_BYTE_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/ffmpeg_compat.h"
#include "av_toolbox/input_guard.h"
#include "av_toolbox/random_access.h"

namespace lum {

/// A byte source, which may be a file or what a web server has, as an I/O context of FFmpeg's.
///
/// Not thread-safe: one thread at a time.
/// Ownership: owns the I/O context, shares the byte source. FFmpeg must not close the
/// context: a format context that reads from it carries AVFMT_FLAG_CUSTOM_IO.
/// Errors: FFmpeg's negative codes. An exception of the byte source becomes an ERROR record and
/// AVERROR_EXTERNAL, since it must not unwind through FFmpeg's C frames.
class ByteInput {
 public:
  explicit ByteInput(std::shared_ptr<IOSource> source);
  ~ByteInput();
  ByteInput(const ByteInput&) = delete;
  ByteInput& operator=(const ByteInput&) = delete;

  [[nodiscard]] AVIOContext* context() const { return context_; }
  [[nodiscard]] InputGuard& guard() { return guard_; }
  /// What the last read that failed with anything but the end of the input failed with, in words;
  /// empty when none did.
  [[nodiscard]] std::string Problem() const;

  /// As `RandomAccessSource`; no byte of another source is there.
  bool ReadAt(int64_t position, uint8_t* buffer, size_t size) const;
  void Prefetch(int64_t position, size_t size) const;

 private:
  int Read(uint8_t* buffer, int size);
  int64_t Seek(int64_t offset, int whence);
  int ReadBeneath(uint8_t* buffer, int size);

  const std::shared_ptr<IOSource> source_;
  RandomAccessSource* const anywhere_;  // the same, where it is one
  AVIOContext* context_ = nullptr;
  InputGuard guard_;
  std::vector<uint8_t> ahead_;  // read, not handed on
  int read_error_ = 0;
  int late_error_ = 0;  // to be reported once what was read before it is handed on
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_BYTE_INPUT_H_
