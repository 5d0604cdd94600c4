#ifndef MOTRACE_TESTS_SUPPORT_TEMP_DIR_H_
#define MOTRACE_TESTS_SUPPORT_TEMP_DIR_H_

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>

#include "support/samples.h"

namespace motrace::testing {

/// A new directory below the system's temporary directory, removed with all it holds at the end of
/// the scope.
class TempDir {
 public:
  TempDir() {
    std::string pattern = std::filesystem::temp_directory_path() / "motrace-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp " + pattern);
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!keep_) std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::filesystem::path operator/(const std::string& name) const {
    return path_ / name;
  }
  /// Leaves the directory in place, for a look at what a failed test wrote.
  void Keep() {
    keep_ = true;
    std::cerr << "kept: " << path_ << '\n';
  }

 private:
  std::filesystem::path path_;
  bool keep_ = false;
};

/// Whole file. Throws std::runtime_error when it can't be read.
inline Bytes ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("can't read " + path.string());
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteFile(const std::filesystem::path& path, const Bytes& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(content.data()),
             static_cast<std::streamsize>(content.size()));
  if (!file.flush()) throw std::runtime_error("can't write " + path.string());
}

/// Every regular file directly in the directory, by name.
inline std::map<std::string, Bytes> ReadDirectory(const std::filesystem::path& directory) {
  std::map<std::string, Bytes> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.is_regular_file()) files[entry.path().filename().string()] = ReadFile(entry.path());
  }
  return files;
}

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_TEMP_DIR_H_
