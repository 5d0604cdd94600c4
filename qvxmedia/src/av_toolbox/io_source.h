// A byte source that a program reads a container from.
#ifndef QVXMEDIA_AV_TOOLBOX_IO_SOURCE_H_
#define QVXMEDIA_AV_TOOLBOX_IO_SOURCE_H_

#include <cstdint>

namespace lum {

/// A byte source to read a container from, in place of a file.
///
/// Threads: called on the thread that calls the Demuxer, one call at a time.
/// Errors: an exception counts as a failed read or seek.
class IOSource {
 public:
  IOSource() = default;
  virtual ~IOSource() = default;
  IOSource(const IOSource&) = delete;
  IOSource& operator=(const IOSource&) = delete;

  /// Whether `Seek` may be called. Asked once, when the input is opened.
  virtual bool IsSeekable() = 0;
  /// Total size in bytes, negative when unknown. Not used by the Demuxer.
  virtual int64_t Size() { return -1; }
  /// As the read callback of FFmpeg's `avio_alloc_context`: fills at most `size` bytes.
  /// @return bytes read, `AVERROR_EOF` at the end, or another negative FFmpeg error.
  virtual int Read(uint8_t* buffer, int size) = 0;
  /// Current position in bytes, negative when unknown. Not used by the Demuxer.
  virtual int64_t Position() { return -1; }
  /// As the seek callback of FFmpeg's `avio_alloc_context`, `AVSEEK_SIZE` included.
  virtual int64_t Seek(int64_t offset, int whence) = 0;
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_IO_SOURCE_H_
