#ifndef MOTRACE_TESTS_SUPPORT_SUBPROCESS_H_
#define MOTRACE_TESTS_SUPPORT_SUBPROCESS_H_

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace motrace::testing {

struct ProcessResult {
  int exit_code;    ///< as a shell sees it: 128 and the signal where one ended the process
  std::string out;  ///< standard output, whole
  std::string err;  ///< standard error, whole
};

/// Runs a program to its end; arguments[0] is its path.
inline ProcessResult RunProcess(const std::vector<std::string>& arguments) {
  const TempDir streams;
  std::string line;
  for (const std::string& argument : arguments) {
    line += '\'';
    for (const char c : argument) line += c == '\'' ? "'\\''" : std::string(1, c);
    line += "' ";
  }
  line += "</dev/null >" + (streams / "out").string() + " 2>" + (streams / "err").string();
  const int status = std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe): glibc's is safe
  const auto text = [&streams](const char* name) {
    const Bytes bytes = ReadFile(streams / name);
    return std::string(bytes.begin(), bytes.end());
  };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), text("out"),
          text("err")};
}

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_SUBPROCESS_H_
