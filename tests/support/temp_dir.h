#ifndef MOTRACE_TESTS_SUPPORT_TEMP_DIR_H_
#define MOTRACE_TESTS_SUPPORT_TEMP_DIR_H_

#include <filesystem>
#include <map>
#include <string>

#include "support/samples.h"

namespace motrace::testing {

/// A new directory below the system's temporary directory, removed with all it holds at the end of
/// the scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::filesystem::path operator/(const std::string& name) const {
    return path_ / name;
  }
  /// Leaves the directory in place, for a look at what a failed test wrote.
  void Keep() { keep_ = true; }

 private:
  std::filesystem::path path_;
  bool keep_ = false;
};

/// Whole file. Throws std::runtime_error when it can't be read.
Bytes ReadFile(const std::filesystem::path& path);
void WriteFile(const std::filesystem::path& path, const Bytes& content);

/// Every regular file directly in the directory, by name.
std::map<std::string, Bytes> ReadDirectory(const std::filesystem::path& directory);

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_TEMP_DIR_H_
