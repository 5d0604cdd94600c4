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
#include "av_toolbox/io_source.h"

namespace lum {

/// A file or a byte source as an I/O context of FFmpeg's.
///
/// Not thread-safe: one thread at a time.
/// Ownership: owns the file and the I/O context, shares the byte source. FFmpeg must not close the
/// context: a format context that reads from it carries AVFMT_FLAG_CUSTOM_IO.
/// Errors: FFmpeg's negative codes. An exception of the byte source becomes an ERROR record and
/// AVERROR_EXTERNAL, since it must not unwind through FFmpeg's C frames.
class ByteInput {
 public:
  /// @return the file `path`; null, with the reason in `error`, when it cannot be opened.
  static std::unique_ptr<ByteInput> OpenFile(const std::string& path, int& error);
  explicit ByteInput(std::shared_ptr<IOSource> source);
  ~ByteInput();
  ByteInput(const ByteInput&) = delete;
  ByteInput& operator=(const ByteInput&) = delete;

  [[nodiscard]] AVIOContext* context() const { return context_; }
  [[nodiscard]] InputGuard& guard() { return guard_; }
  /// The last read that failed with anything but the end of the input; 0 when none did.
  [[nodiscard]] int read_error() const { return read_error_; }

  /// Reads from any place of a file, without moving what `context` reads next.
  /// @return whether all `size` bytes are there.
  bool ReadAt(int64_t position, uint8_t* buffer, size_t size) const;
  /// Has the system fetch a part of a file that `ReadAt` will want soon.
  void Prefetch(int64_t position, size_t size) const;

 private:
  ByteInput(int descriptor, bool seekable);
  void MakeContext(bool seekable);
  int Read(uint8_t* buffer, int size);
  int64_t Seek(int64_t offset, int whence);
  int ReadBeneath(uint8_t* buffer, int size);
  int64_t SeekBeneath(int64_t offset, int whence);

  const int descriptor_;  // -1 for a byte source
  const std::shared_ptr<IOSource> source_;
  AVIOContext* context_ = nullptr;
  InputGuard guard_;
  std::vector<uint8_t> ahead_;  // read, not handed on
  int read_error_ = 0;
  int late_error_ = 0;  // to be reported once what was read before it is handed on
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_BYTE_INPUT_H_
