#include "support/subprocess.h"

#include <sys/wait.h>

#include <cstdlib>

#include "support/temp_dir.h"

namespace motrace::testing {
namespace {

/// One word of a shell's line.
std::string Quoted(const std::string& word) {
  std::string quoted = " '";
  for (const char c : word) quoted += c == '\'' ? "'\\''" : std::string(1, c);
  return quoted + "'";
}

std::string Text(const std::filesystem::path& file) {
  const Bytes bytes = ReadFile(file);
  return {bytes.begin(), bytes.end()};
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& arguments, const ProcessOptions& options) {
  const TempDir streams;
  std::string line = "cd" + Quoted(options.working_directory) + " && exec </dev/null >" +
                     Quoted(streams / "out") + " 2>" + Quoted(streams / "err") + " prlimit";
  const auto limit_to = [&line](const char* what, std::uint64_t limit) {
    if (limit > 0) line += what + std::to_string(limit);
  };
  limit_to(" --fsize=", options.file_size_limit);
  limit_to(" --as=", options.address_space_limit);
  limit_to(" --nofile=", options.descriptor_limit);
  line += " timeout --kill-after=5 " + std::to_string(options.time_limit.count());
  for (const std::string& argument : arguments) line += Quoted(argument);

  const int status = std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe): glibc's is safe
  ProcessResult result;
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.timed_out = result.exit_code == 124;
  result.out = Text(streams / "out");
  result.err = Text(streams / "err");
  return result;
}

}  // namespace motrace::testing
