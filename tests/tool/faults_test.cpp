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

#include "support/mp4_writer.h"
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
  ProcessResult Extract(ProcessOptions options = {}) {
    options.time_limit = std::chrono::seconds(10);
    return RunTool({input().string(), out().string()}, options);
  }

 private:
  TempDir dir_;
};

TEST_F(FaultTest, AFileCutAnywhereIsReadAsFarAsItGoesOrRefused) {
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  layout.interleave_ms = 100;
  WriteMp4(input(), {VideoTrack(), MotionTrack(90000)}, layout);
  const std::uintmax_t whole = fs::file_size(input());
  constexpr int kCuts = 40;
  for (int i = 1; i <= kCuts; ++i) {
    const std::uintmax_t size = whole - whole * static_cast<unsigned>(i) / kCuts;
    SCOPED_TRACE(size);
    fs::resize_file(input(), size);
    const ProcessResult run = Extract();
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.err, HasSubstr(input().string()));
    for (const auto& [name, bytes] : ReadDirectory(out())) {
      if (name == "gyro.dat") {
        EXPECT_EQ(bytes.size() % 56, 0U);
      }
    }
  }
}

TEST_F(FaultTest, AFileThatShrinksWhileItIsReadIsCalledCut) {
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  WriteMp4(input(), {MotionTrack(90000, /*instants=*/200'000, /*hertz=*/1000)}, layout);
  ProcessOptions options;
  const auto whole = fs::file_size(input());
  // The reader is at work as soon as it has created its first output.
  std::thread cutter([&] {
    while (!fs::exists(out() / "gyro.dat")) std::this_thread::yield();
    fs::resize_file(input(), whole - whole / 20);
  });
  const ProcessResult run = Extract(options);
  cutter.join();
  EXPECT_EQ(run.exit_code, 0);
  if (fs::file_size(out() / "gyro.dat") < std::uintmax_t{200'000} * 56) {
    EXPECT_THAT(run.err, HasSubstr(input().string()));
  }
}

TEST_F(FaultTest, AFileThatGrowsWhileItIsReadIsReadAsItWas) {
  WriteMp4(input(), {MotionTrack(90000, /*instants=*/200'000, /*hertz=*/1000)});
  ASSERT_EQ(Extract().err, "");
  const auto expected = ReadDirectory(out());
  fs::remove_all(out());
  fs::create_directory(out());
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
  WriteMp4(input(), {VideoTrack(), MotionTrack(90000)});
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
  WriteMp4(input(), {VideoTrack(), MotionTrack(90000)});
  ASSERT_EQ(Extract().err, "");
  const auto expected = ReadDirectory(out());
  fs::resize_file(input(),
                  fs::file_size(input()) + 100'000);  // zeros: what a recorder preallocates
  Extract();
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out())));
}

TEST_F(FaultTest, OutOfDescriptorsIsNamed) {
  WriteMp4(input(), {VideoTrack(), MotionTrack(90000)});
  Extract();
  const auto whole = ReadDirectory(out());
  int complete = 0;
  for (std::uint64_t limit = 4; limit <= 24; ++limit) {
    SCOPED_TRACE(limit);
    for (const auto& entry : fs::directory_iterator(out())) fs::remove(entry);
    ProcessOptions options;
    options.descriptor_limit = limit;
    const ProcessResult run = Extract(options);
    // Below a handful not even the program's libraries can be loaded.
    if (run.exit_code == 127) continue;
    EXPECT_EQ(run.exit_code == 0 || run.exit_code == 1, true) << run.exit_code;
    if (run.err.empty()) {
      ++complete;
      EXPECT_TRUE(SameFiles(whole, ReadDirectory(out())));
    }
  }
  EXPECT_GT(complete, 0);
}

// Sanitizers map more addresses than any such limit leaves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(FaultTest, OutOfMemoryIsNamed) {
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  WriteMp4(input(), {MotionTrack(90000, /*instants=*/150'000, /*hertz=*/1000)}, layout);
  ASSERT_EQ(Extract().err, "");
  const auto whole = ReadDirectory(out());
  int incomplete = 0;
  int complete_in_a_row = 0;
  constexpr std::uint64_t kMiB = std::uint64_t{1024} * 1024;
  // From where the libraries cannot be loaded up to where the run wants for nothing.
  for (std::uint64_t mib = 100; mib < 4096 && complete_in_a_row < 5; mib += 2) {
    SCOPED_TRACE(mib);
    for (const auto& entry : fs::directory_iterator(out())) fs::remove(entry);
    ProcessOptions options;
    options.address_space_limit = mib * kMiB;
    const ProcessResult run = Extract(options);
    ASSERT_FALSE(run.timed_out);
    ASSERT_EQ(run.signal, 0) << run.err;
    if (run.exit_code == 127) {
      mib += 8;
      continue;
    }
    EXPECT_TRUE(run.exit_code == 0 || run.exit_code == 1) << run.exit_code;
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
