// What the fuzz targets share.
#ifndef MOTRACE_FUZZ_FUZZ_SUPPORT_H_
#define MOTRACE_FUZZ_FUZZ_SUPPORT_H_

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace motrace::fuzz {

/// Ends the process as a finding when `held` is false.
inline void Require(bool held, const char* what) {
  if (held) return;
  std::fprintf(stderr, "property does not hold: %s\n", what);
  std::abort();
}

/// A directory for outputs, in memory where the system has such a place; removed at exit.
class ScratchDir {
 public:
  ScratchDir() {
    const char* const roots[] = {"/dev/shm", "/tmp"};
    for (const char* root : roots) {
      std::string pattern = std::string(root) + "/motrace-fuzz-XXXXXX";
      if (mkdtemp(pattern.data()) == nullptr) continue;
      path_ = pattern;
      return;
    }
    Require(false, "a scratch directory can be made");
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// The log goes on being written, since some of its statements do work, but need not be seen.
inline void SilenceStandardOutput() {
  Require(std::freopen("/dev/null", "w", stdout) != nullptr, "standard output can be silenced");
}

}  // namespace motrace::fuzz

#endif  // MOTRACE_FUZZ_FUZZ_SUPPORT_H_
