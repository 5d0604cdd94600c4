// A file that appears under its name whole or not at all.
#ifndef CAMM_SRC_OUTPUT_FILE_H_
#define CAMM_SRC_OUTPUT_FILE_H_

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_reader.h"

namespace camm {

struct OutputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Written beside its final place; `Commit` gives it its name, the destructor removes what was not
/// committed. All operations throw `OutputError`, whose text says why, without the path.
class OutputFile {
 public:
  /// @param overwrite whether a regular file at `path` may be replaced.
  OutputFile(const std::string& path, bool overwrite);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Bytes appended so far.
  [[nodiscard]] std::uint64_t size() const { return written_ + buffer_.size(); }
  void Append(const std::uint8_t* data, std::size_t size);
  /// Appends bytes of another file, in the kernel where it can.
  void AppendFrom(int descriptor, std::uint64_t offset, std::uint64_t size);
  /// Writes over bytes that were appended before.
  void Patch(std::uint64_t offset, const std::uint8_t* data, std::size_t size);
  void Commit();

 private:
  void Flush();

  std::string path_;
  std::string temporary_;
  bool overwrite_;
  Descriptor file_;
  std::uint64_t written_ = 0;
  std::vector<std::uint8_t> buffer_;
};

}  // namespace camm

#endif  // CAMM_SRC_OUTPUT_FILE_H_
