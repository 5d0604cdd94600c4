// Files and byte sources for the box reader.
#ifndef CAMM_SRC_FILE_READER_H_
#define CAMM_SRC_FILE_READER_H_

#include <memory>
#include <string>

#include "av_toolbox/demuxer.h"
#include "camm/recording.h"
#include "mp4_boxes.h"

namespace camm {

/// A file descriptor that is closed at the end of its scope.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;
  /// What `close` returns; some file systems report only here that a disk is full.
  [[nodiscard]] int Close();
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

/// A regular file. Read errors look like the file's end.
class FileReader : public mp4::Reader {
 public:
  /// `errno` says why where `ok` is false afterwards.
  explicit FileReader(const std::string& path);
  [[nodiscard]] bool ok() const { return fd_.ok(); }
  [[nodiscard]] int descriptor() const { return fd_.get(); }
  std::int64_t Size() override;
  bool ReadAt(std::uint64_t offset, std::uint8_t* to, std::size_t size) override;

 private:
  Descriptor fd_;
};

class SourceReader : public mp4::Reader {
 public:
  explicit SourceReader(lum::IOSource& source) : source_(source) {}
  std::int64_t Size() override;
  bool ReadAt(std::uint64_t offset, std::uint8_t* to, std::size_t size) override;

 private:
  lum::IOSource& source_;
};

/// What an input's boxes are read from: its byte source, which must outlive the reader, or the file
/// or web address that its path names.
/// @return null, with the reason in `error`, where it cannot be opened.
std::unique_ptr<mp4::Reader> OpenReader(const Input& input, std::string& error);

}  // namespace camm

#endif  // CAMM_SRC_FILE_READER_H_
