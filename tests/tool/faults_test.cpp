// What goes wrong around the tool: inputs that are cut or change while they are read, resources
// that run out. Whatever happens, a run exits by itself with 0, and either every output is whole or
// standard error says what is not.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <string>
#include <thread>

#include "support/samples.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;

class FaultTest : public ::testing::Test {
 protected:
  FaultTest() { fs::create_directory(out()); }

  [[nodiscard]] fs::path input() const { return dir_ / "input.mp4"; }
  [[nodiscard]] fs::path out() const { return dir_ / "out"; }
  /// Some minutes of motion, so that a run lasts long enough to come between.
  void WriteLong(Mp4Order order) {
    WriteMp4(input(), {MotionTrack(90000, /*instants=*/200'000, /*hertz=*/1000)}, {order});
  }
  void WriteShort() { WriteMp4(input(), {VideoTrack(), MotionTrack(90000)}); }

  /// Exits with 0, or with 1 where not even the pipe can be set up. Below some limit the program
  /// cannot be loaded: 127.
  ProcessResult Extract(ProcessOptions options = {}) {
    options.time_limit = std::chrono::seconds(10);
    ProcessResult run = RunTool({input().string(), out().string()}, options);
    const bool limited = options.descriptor_limit + options.address_space_limit > 0;
    EXPECT_TRUE(run.exit_code == 0 || (limited && (run.exit_code == 1 || run.exit_code == 127)))
        << run.exit_code;
    return run;
  }
  /// What a run without faults writes; the output directory is empty again.
  std::map<std::string, Bytes> Whole() {
    EXPECT_EQ(Extract().err, "");
    auto files = ReadDirectory(out());
    Clear();
    return files;
  }
  void Clear() {
    for (const auto& entry : fs::directory_iterator(out())) fs::remove(entry);
  }

 private:
  TempDir dir_;
};

TEST_F(FaultTest, AFileCutAnywhereIsReadAsFarAsItGoesOrRefused) {
  WriteMp4(input(), {VideoTrack(), MotionTrack(90000)}, {Mp4Order::kMoovFirst, 100});
  const std::uintmax_t whole = fs::file_size(input());
  constexpr int kCuts = 40;
  for (int i = 1; i <= kCuts; ++i) {
    const std::uintmax_t size = whole - whole * static_cast<unsigned>(i) / kCuts;
    SCOPED_TRACE(size);
    fs::resize_file(input(), size);
    EXPECT_THAT(Extract().err, HasSubstr(input().string()));
    auto files = ReadDirectory(out());
    EXPECT_EQ(files["gyro.dat"].size() % 56, 0U);
  }
}

TEST_F(FaultTest, AFileThatShrinksWhileItIsReadIsCalledCut) {
  WriteLong(Mp4Order::kMoovFirst);
  const auto whole = fs::file_size(input());
  // The reader is at work as soon as it has created its first output.
  std::thread cutter([&] {
    while (!fs::exists(out() / "gyro.dat")) std::this_thread::yield();
    fs::resize_file(input(), whole - whole / 20);
  });
  const ProcessResult run = Extract();
  cutter.join();
  if (fs::file_size(out() / "gyro.dat") < std::uintmax_t{200'000} * 56) {
    EXPECT_THAT(run.err, HasSubstr(input().string()));
  }
}

TEST_F(FaultTest, AFileThatGrowsWhileItIsReadIsReadAsItWas) {
  WriteLong(Mp4Order::kMoovLast);
  const auto expected = Whole();
  std::atomic<bool> over{false};
  std::thread recorder([&] {
    while (!fs::exists(out() / "gyro.dat")) std::this_thread::yield();
    std::ofstream file(input(), std::ios::app | std::ios::binary);
    while (!over) file << std::string(1000, 'x') << std::flush;
  });
  EXPECT_EQ(Extract().err, "");
  over = true;
  recorder.join();
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out())));
}

TEST_F(FaultTest, AnOutputThatMayNotBeWrittenIsNamedAndKept) {
  WriteShort();
  std::ofstream(out() / "gyro.dat") << "kept";
  fs::permissions(out() / "gyro.dat", fs::perms::owner_read | fs::perms::others_read);
  std::vector<std::string> command{MOTRACE_TOOL_PATH, input().string(), out().string()};
  if (geteuid() == 0) {  // root may write everything
    fs::permissions(out().parent_path(), fs::perms::all);
    fs::permissions(out(), fs::perms::all);
    command.insert(command.begin(),
                   {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  }
  const ProcessResult run = RunProcess(command);
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "motrace: cannot create '" + (out() / "gyro.dat").string() +
                         "': Permission denied\nmotrace: nothing was extracted from '" +
                         input().string() + "'\n");
  EXPECT_EQ(ReadFile(out() / "gyro.dat"), (Bytes{'k', 'e', 'p', 't'}));
}

TEST_F(FaultTest, BytesBehindTheEndOfTheFileChangeNothing) {
  WriteShort();
  const auto expected = Whole();
  // Zeros: what a recorder preallocates.
  fs::resize_file(input(), fs::file_size(input()) + 100'000);
  Extract();
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out())));
}

TEST_F(FaultTest, OutOfDescriptorsIsNamed) {
  WriteShort();
  const auto whole = Whole();
  int complete = 0;
  for (std::uint64_t limit = 4; limit <= 24; ++limit) {
    SCOPED_TRACE(limit);
    Clear();
    ProcessOptions options;
    options.descriptor_limit = limit;
    const ProcessResult run = Extract(options);
    if (run.exit_code == 127 || !run.err.empty()) continue;
    ++complete;
    EXPECT_TRUE(SameFiles(whole, ReadDirectory(out())));
  }
  EXPECT_GT(complete, 0);
}

// Sanitizers map more addresses than any such limit leaves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(FaultTest, OutOfMemoryIsNamed) {
  WriteLong(Mp4Order::kMoovFirst);
  const auto whole = Whole();
  int incomplete = 0;
  int complete_in_a_row = 0;
  constexpr std::uint64_t kMiB = std::uint64_t{1024} * 1024;
  // From where the libraries cannot be loaded up to where the run wants for nothing.
  for (std::uint64_t mib = 100; mib < 4096 && complete_in_a_row < 5; mib += 2) {
    SCOPED_TRACE(mib);
    Clear();
    ProcessOptions options;
    options.address_space_limit = mib * kMiB;
    const ProcessResult run = Extract(options);
    ASSERT_FALSE(HasFailure());
    if (run.exit_code == 127) {
      mib += 8;
      continue;
    }
    if (run.err.empty()) {
      ++complete_in_a_row;
      EXPECT_TRUE(SameFiles(whole, ReadDirectory(out())));
    } else {
      complete_in_a_row = 0;
      ++incomplete;
      EXPECT_THAT(run.err, AnyOf(HasSubstr(input().string()), HasSubstr(out().string())));
    }
  }
  EXPECT_GT(incomplete, 0);
  EXPECT_EQ(complete_in_a_row, 5);
}
#endif

}  // namespace
}  // namespace motrace::testing
