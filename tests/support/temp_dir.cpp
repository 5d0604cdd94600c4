#include "support/temp_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace motrace::testing {

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "motrace-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  if (keep_) {
    std::fprintf(stderr, "kept: %s\n", path_.c_str());
    return;
  }
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

Bytes ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("can't read " + path.string());
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFile(const fs::path& path, const Bytes& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(content.data()),
             static_cast<std::streamsize>(content.size()));
  file.close();
  if (!file) throw std::runtime_error("can't write " + path.string());
}

std::map<std::string, Bytes> ReadDirectory(const fs::path& directory) {
  std::map<std::string, Bytes> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    if (entry.is_regular_file()) files[entry.path().filename().string()] = ReadFile(entry.path());
  }
  return files;
}

}  // namespace motrace::testing
