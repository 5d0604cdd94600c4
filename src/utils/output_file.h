// A file that is written once, front to back, and knows whether it came out whole.
#ifndef MOTRACE_UTILS_OUTPUT_FILE_H_
#define MOTRACE_UTILS_OUTPUT_FILE_H_

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

/// Buffered binary output.
///
/// Not thread-safe: one thread at a time.
/// Errors: the first failure is kept as its `errno`; writes after it do nothing.
class OutputFile {
 public:
  /// Creates or truncates the file. A pipe that nobody reads is an error instead of a wait.
  /// @return false on failure.
  bool Open(const std::string& path);
  [[nodiscard]] bool is_open() const { return file_ != nullptr; }

  void Write(const void* data, size_t size);

  /// Marks the file as not whole: what should have been written could not be made.
  /// @param error an `errno`; does not replace an earlier failure's.
  void Fail(int error) {
    if (error_ == 0) error_ = error;
  }

  /// Writes what is buffered and closes the file.
  /// @return false when not every byte was written.
  bool Close();

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The first failure's `errno`; 0 without one.
  [[nodiscard]] int error() const { return error_; }

 private:
  struct Closer {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
  };

  std::string path_;
  std::unique_ptr<std::FILE, Closer> file_;
  int error_ = 0;
};

#endif  // MOTRACE_UTILS_OUTPUT_FILE_H_
