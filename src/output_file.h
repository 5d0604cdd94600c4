// A file that is written once, front to back, and knows whether it came out whole.
#ifndef MOTRACE_OUTPUT_FILE_H_
#define MOTRACE_OUTPUT_FILE_H_

#include <sys/types.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

namespace lum::vela {

/// A file as the system knows it, whatever names lead to it.
struct FileId {
  dev_t device;
  ino_t inode;

  /// Of the file at `path`; nothing where there is none.
  static std::optional<FileId> Of(const std::string& path);
};

/// Buffered binary output.
///
/// Not thread-safe: one thread at a time.
/// Errors: the first failure is kept as its `errno`; writes after it do nothing.
class OutputFile {
 public:
  /// What `error` says of a file that must not be written.
  static constexpr int kIsKept = -1;

  OutputFile() = default;
  ~OutputFile() { Close(); }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Creates or truncates the file. A pipe without a reader is an error instead of a wait.
  /// @param keep a file that is left as it is: when `path` leads to it, that is an error.
  /// @return false on failure.
  bool Open(const std::string& path, const std::optional<FileId>& keep = std::nullopt);
  [[nodiscard]] bool is_open() const { return fd_ >= 0; }

  void Write(const void* data, size_t size) {
    if (size > kBufferSize - used_) return WritePastBuffer(data, size);
    if (size == 0) return;  // of nothing there may be no address
    std::memcpy(buffer_.get() + used_, data, size);
    used_ += size;
  }

  /// Writes what is buffered and closes the file.
  /// @return false when not every byte was written.
  bool Close();

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The first failure's `errno`, or `kIsKept`; 0 without one.
  [[nodiscard]] int error() const { return error_; }

 private:
  static constexpr size_t kBufferSize = size_t{64} * 1024;

  void WritePastBuffer(const void* data, size_t size);
  void WriteOut(const char* data, size_t size);

  std::string path_;
  int fd_ = -1;
  int error_ = 0;
  size_t used_ = 0;
  // From the start: there may be no memory left by the time that something is to be written.
  std::unique_ptr<char[]> buffer_{new char[kBufferSize]};
};

}  // namespace lum::vela

#endif  // MOTRACE_OUTPUT_FILE_H_
