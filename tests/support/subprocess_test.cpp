#include "support/subprocess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "support/temp_dir.h"

namespace motrace::testing {
namespace {

ProcessResult Shell(const std::string& script, const ProcessOptions& options = {}) {
  return RunProcess({"/bin/sh", "-c", script}, options);
}

TEST(SubprocessTest, ReportsBothStreamsAndTheExitCode) {
  const ProcessResult result = Shell("printf out; printf err >&2; exit 255");
  EXPECT_EQ(result.out, "out");
  EXPECT_EQ(result.err, "err");
  EXPECT_EQ(result.exit_code, 255);
  EXPECT_FALSE(result.timed_out);
}

TEST(SubprocessTest, ReadsMoreThanAPipeHolds) {
  const ProcessResult result = Shell("head -c 300000 /dev/zero; head -c 300000 /dev/zero >&2");
  EXPECT_EQ(result.out.size(), 300000U);
  EXPECT_EQ(result.err.size(), 300000U);
}

TEST(SubprocessTest, ReportsASignal) {
  const ProcessResult result = Shell("kill -SEGV $$");
  EXPECT_EQ(result.signal, SIGSEGV);
  EXPECT_EQ(result.exit_code, -1);
}

TEST(SubprocessTest, KillsWhatHangs) {
  ProcessOptions options;
  options.time_limit = std::chrono::seconds(0);
  const ProcessResult result = RunProcess({"/bin/sleep", "1000"}, options);
  EXPECT_TRUE(result.timed_out);
  EXPECT_EQ(result.signal, SIGKILL);
}

TEST(SubprocessTest, SetsDirectoryEnvironmentTerminalAndFileSizeLimit) {
  const TempDir dir;
  ProcessOptions options;
  options.working_directory = dir.path();
  options.environment = {{"GREETING", "hello"}};
  options.stderr_is_terminal = true;
  options.file_size_limit = 4096;
  const ProcessResult result = Shell(
      "pwd; echo $GREETING; test -t 2 && echo terminal; head -c 10000 /dev/zero > file", options);
  EXPECT_EQ(result.out, dir.path().string() + "\nhello\nterminal\n");
  EXPECT_EQ(ReadFile(dir / "file").size(), 4096U);
  EXPECT_NE(result.exit_code, 0);
}

TEST(SubprocessTest, ThrowsWhenTheProgramIsMissing) {
  EXPECT_THROW(RunProcess({"/no/such/program"}), std::runtime_error);
}

}  // namespace
}  // namespace motrace::testing
