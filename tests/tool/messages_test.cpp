// What a user reads on standard error when a run did not go as hoped: one line each, in plain
// words. The words may be improved; what is tested is that the line names the file and the reason,
// that the log and the exit code stay as they are, and that what can be written is written.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/camm_samples.h"
#include "support/mp4_writer.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

/// One line that holds all the words.
::testing::AssertionResult OneLineWith(const std::string& standard_error,
                                       const std::vector<std::string>& words) {
  if (std::count(standard_error.begin(), standard_error.end(), '\n') != 1 ||
      standard_error.back() != '\n') {
    return ::testing::AssertionFailure() << "not one line: \"" << standard_error << "\"";
  }
  for (const std::string& word : words) {
    if (standard_error.find(word) == std::string::npos) {
      return ::testing::AssertionFailure()
             << "\"" << word << "\" is not in \"" << standard_error << "\"";
    }
  }
  return ::testing::AssertionSuccess();
}

class MessageTest : public ::testing::Test {
 protected:
  MessageTest() { fs::create_directory(out()); }
  ~MessageTest() override {
    if (HasFailure()) dir_.Keep();
  }
  MessageTest(const MessageTest&) = delete;
  MessageTest& operator=(const MessageTest&) = delete;

  [[nodiscard]] fs::path input() const { return dir_ / "input.mp4"; }
  [[nodiscard]] fs::path out() const { return dir_ / "out"; }

  /// Extracts input() into out(); whatever happens, the exit code is 0 and the log is a log.
  ProcessResult Extract(const ProcessOptions& options = {}) {
    ProcessResult run = RunTool({input().string(), out().string()}, options);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(Texts(ParseOutput(run.out)), AnyOf(Contains("pipe run over...").Times(1),
                                                   Contains("pipe run error...").Times(1)));
    return run;
  }

  /// What input() becomes when all goes well.
  [[nodiscard]] std::map<std::string, Bytes> Expected() const {
    return ExtractPlainly(*ReadDataStream(input())).Files();
  }

  [[nodiscard]] const fs::path& dir() const { return dir_.path(); }

 private:
  TempDir dir_;
};

// ---- the input

TEST_F(MessageTest, NothingIsSaidWhenAllIsWell) {
  WriteMp4(input(), {VideoTrack(), AudioTrack(), MotionTrack(90000)});
  EXPECT_EQ(Extract().err, "");
}

TEST_F(MessageTest, AMissingInputIsNamed) {
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "No such file or directory"}));
  EXPECT_TRUE(fs::is_empty(out()));
}

TEST_F(MessageTest, ADirectoryAsInputIsNamed) {
  fs::create_directory(input());
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "Is a directory"}));
}

TEST_F(MessageTest, AnInputThatIsNoVideoIsNamed) {
  WriteFile(input(), Bytes(5000, '?'));
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "Invalid data"}));
}

TEST_F(MessageTest, AnEmptyInputPathEndsAsAnError) {
  const ProcessResult run = RunTool({"", out().string()});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(Texts(ParseOutput(run.out)), Contains("pipe run error..."));
  EXPECT_TRUE(OneLineWith(run.err, {"No such file or directory"}));
}

TEST_F(MessageTest, AFileWithoutDataStreamIsNamedAndLeavesNoFiles) {
  WriteMp4(input(), {VideoTrack(), AudioTrack()});
  const ProcessResult run = Extract();
  EXPECT_TRUE(OneLineWith(run.err, {input().string(), "no data stream"}));
  EXPECT_THAT(Texts(ParseOutput(run.out)), Contains("pipe run over..."));
  EXPECT_TRUE(fs::is_empty(out()));
}

/// A track that FFmpeg takes for the data stream and that is no motion metadata.
Mp4Track Vendor(int samples) {
  Mp4Track track = Mp4Track::Data("meta", "vend", 1000);
  for (int i = 0; i < samples; ++i) track.Add(ExposureSample(i, i), 10);
  return track;
}

TEST_F(MessageTest, ADataStreamOfAnotherKindIsReadAndNamed) {
  WriteMp4(input(), {VideoTrack(), Vendor(12)});
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "camm", "vend"}));
  EXPECT_TRUE(SameFiles(Expected(), ReadDirectory(out())));
  EXPECT_EQ(ReadFile(out() / "exposure_1.dat").size(), 32U);  // it was read all the same
}

TEST_F(MessageTest, AMotionTrackThatWasNotChosenIsPointedOut) {
  // FFmpeg prefers the data stream with the higher bit rate.
  Mp4Track vendor = Mp4Track::Data("meta", "vend", 1000);
  for (int i = 0; i < 20; ++i) vendor.Add(Bytes(5000, 9), 10);
  WriteMp4(input(), {VideoTrack(), MotionTrack(90000, 20), vendor});
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "camm", "vend", "stream 1"}));
  EXPECT_TRUE(SameFiles(Expected(), ReadDirectory(out())));
}

TEST_F(MessageTest, ATimecodeTrackIsNamedWhenFFmpegChoosesIt) {
  // The motion samples lie behind ten seconds of video, further than FFmpeg looks.
  Mp4Track timecode = Mp4Track::Data("tmcd", "tmcd", 30000);
  timecode.Add(Bytes{0, 0, 0, 0}, 30000);
  H264Options video;
  video.frames = 300;
  Mp4Layout one_track_after_another;
  one_track_after_another.interleave_ms = 0;
  WriteMp4(input(), {timecode, ToMp4Track(EncodeH264(video), 90000), MotionTrack(90000, 20)},
           one_track_after_another);
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "camm", "tmcd", "stream 2"}));
  EXPECT_TRUE(SameFiles(Expected(), ReadDirectory(out())));
}

// ---- files that end early

struct Truncation {
  std::string name;
  std::uint32_t interleave_ms;  // 0: the motion track lies last
  std::uintmax_t bytes_lost;
};

std::ostream& operator<<(std::ostream& out, const Truncation& cut) { return out << cut.name; }

class TruncatedFileTest : public MessageTest, public ::testing::WithParamInterface<Truncation> {};

TEST_P(TruncatedFileTest, KeepsWhatIsThereAndSaysSo) {
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  layout.interleave_ms = GetParam().interleave_ms;
  WriteMp4(input(), {VideoTrack(), AudioTrack(), MotionTrack(90000)}, layout);
  fs::resize_file(input(), fs::file_size(input()) - GetParam().bytes_lost);
  const ProcessResult run = Extract();
  EXPECT_THAT(run.err, AllOf(HasSubstr(input().string()), HasSubstr("early")));
  EXPECT_TRUE(SameFiles(Expected(), ReadDirectory(out())));
  EXPECT_GT(ReadFile(out() / "gyro.dat").size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Cuts, TruncatedFileTest,
                         ::testing::Values(Truncation{"InTheMiddle", 100, 10000},
                                           Truncation{"WithinTheMotionTrack", 0, 1000},
                                           Truncation{"LastByte", 0, 1}),
                         [](const auto& test) { return test.param.name; });

TEST_F(MessageTest, AVideoThatIsCutBehindTheMotionTrackCostsNoMotion) {
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  layout.interleave_ms = 0;
  WriteMp4(input(), {MotionTrack(90000), VideoTrack()}, layout);
  const auto expected = Expected();
  fs::resize_file(input(), fs::file_size(input()) - 10);
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "ends early: 10 bytes"}));
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out())));
}

TEST_F(MessageTest, AFileWithoutItsIndexCannotBeOpened) {
  WriteMp4(input(), {VideoTrack(), MotionTrack(90000)});  // moov last
  fs::resize_file(input(), fs::file_size(input()) / 2);
  EXPECT_TRUE(OneLineWith(Extract().err, {input().string(), "Invalid data"}));
}

TEST_F(MessageTest, EditListsThatDropSamplesAreNoEarlyEnd) {
  Mp4Track motion = MotionTrack(90000);
  motion.edits = {{300, 36000, 1}};
  WriteMp4(input(), {VideoTrack(), motion});
  EXPECT_EQ(Extract().err, "");
}

// ---- the outputs

TEST_F(MessageTest, AMissingDirectoryIsNamedAndNotCreated) {
  WriteMp4(input(), {MotionTrack(1000)});
  fs::remove(out());
  const ProcessResult run = Extract();
  EXPECT_THAT(run.err, AllOf(HasSubstr(out().string()), HasSubstr("No such file or directory")));
  EXPECT_THAT(Texts(ParseOutput(run.out)), Contains("pipe run error..."));
  EXPECT_FALSE(fs::exists(out()));
}

TEST_F(MessageTest, AFileInPlaceOfTheDirectoryIsNamed) {
  WriteMp4(input(), {MotionTrack(1000)});
  fs::remove(out());
  WriteFile(out(), {1, 2, 3});
  EXPECT_THAT(Extract().err, AllOf(HasSubstr(out().string()), HasSubstr("Not a directory")));
  EXPECT_EQ(ReadFile(out()), (Bytes{1, 2, 3}));
}

TEST_F(MessageTest, GpsJsonThatIsADirectoryEndsTheRunAsAnError) {
  WriteMp4(input(), {MotionTrack(1000)});
  fs::create_directory(out() / "gps.json");
  const ProcessResult run = Extract();
  EXPECT_THAT(run.err,
              AllOf(HasSubstr((out() / "gps.json").string()), HasSubstr("Is a directory")));
  EXPECT_THAT(Texts(ParseOutput(run.out)), Contains("pipe run error..."));
}

TEST_F(MessageTest, OneExposureFileThatCannotBeCreatedCostsOnlyItself) {
  WriteMp4(input(), {MotionTrack(1000)});
  fs::create_directory(out() / "exposure_3.dat");
  const ProcessResult run = Extract();
  EXPECT_TRUE(OneLineWith(run.err, {(out() / "exposure_3.dat").string(), "Is a directory"}));
  EXPECT_THAT(Texts(ParseOutput(run.out)), Contains("pipe run over..."));
  auto expected = Expected();
  expected.erase("exposure_3.dat");
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out())));
}

/// Each output in turn is a device that takes no byte.
class FullDiskTest : public MessageTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(FullDiskTest, IsNoticedForEachFile) {
  const std::string name = GetParam();
  WriteMp4(input(), {MotionTrack(1000, 2000)});
  fs::create_symlink("/dev/full", out() / name);
  EXPECT_TRUE(OneLineWith(Extract().err, {(out() / name).string(), "No space left on device"}));
  fs::remove(out() / name);
  auto expected = Expected();
  expected.erase(name);
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out())));
}

INSTANTIATE_TEST_SUITE_P(Files, FullDiskTest,
                         ::testing::Values("gps.json", "gyro.dat", "exposure_1.dat",
                                           "exposure_6.dat"),
                         [](const auto& test) {
                           std::string name = test.param;
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

TEST_F(MessageTest, FilesCutShortByALimitAreNamed) {
  WriteMp4(input(), {MotionTrack(1000, 2000)});
  ProcessOptions options;
  options.file_size_limit = 8192;
  const ProcessResult run = Extract(options);
  EXPECT_THAT(run.err, AllOf(HasSubstr("gyro.dat"), HasSubstr("gps.json"),
                             HasSubstr("File too large"), Not(HasSubstr("exposure"))));
  // What fits is there: a prefix of the whole.
  const Bytes whole = Expected().at("gyro.dat");
  ASSERT_GT(whole.size(), 8192U);
  EXPECT_EQ(ReadFile(out() / "gyro.dat"), Bytes(whole.begin(), whole.begin() + 8192));
}

// ---- the samples

TEST_F(MessageTest, AccelerometerSamplesWithoutPartnerAreCounted) {
  Mp4Track motion = Mp4Track::Camm(1000);
  for (int i = 0; i < 3; ++i) motion.Add(GyroSample({1, 2, 3}), 10);
  for (int i = 0; i < 40; ++i) motion.Add(AccelSample({1, 2, 3}), 10);
  WriteMp4(input(), {motion});
  EXPECT_TRUE(OneLineWith(Extract().err, {"37", "accelerometer", "gyroscope"}));
  EXPECT_TRUE(SameFiles(Expected(), ReadDirectory(out())));
  EXPECT_EQ(ReadFile(out() / "gyro.dat").size(), 3 * 56U);
}

// ---- the progress line

TEST_F(MessageTest, AShortRunShowsNoProgressOnATerminal) {
  WriteMp4(input(), {MotionTrack(1000)});
  ProcessOptions options;
  options.stderr_is_terminal = true;
  EXPECT_EQ(Extract(options).err, "");
}

/// A named pipe that brings three quarters of a file, and the rest when the gate opens.
class HeldBackPipe {
 public:
  HeldBackPipe(const fs::path& path, Bytes content, std::shared_future<void> gate)
      : content_(std::move(content)) {
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + path.string());
    writer_ = std::thread([this, path, gate] {
      constexpr std::chrono::seconds kHang{30};
      const auto size = static_cast<std::streamsize>(content_.size());
      const auto* bytes = reinterpret_cast<const char*>(content_.data());
      std::ofstream pipe(path, std::ios::binary);
      pipe.write(bytes, size - size / 4).flush();
      EXPECT_EQ(gate.wait_for(kHang), std::future_status::ready) << "the gate stays shut";
      pipe.write(bytes + size - size / 4, size / 4);
    });
  }
  ~HeldBackPipe() { writer_.join(); }
  HeldBackPipe(const HeldBackPipe&) = delete;
  HeldBackPipe& operator=(const HeldBackPipe&) = delete;

 private:
  Bytes content_;
  std::thread writer_;
};

TEST_F(MessageTest, ALongRunShowsProgressOnATerminalAndOnlyThere) {
  constexpr int kSeconds = 4;
  H264Options video;
  video.frames = kSeconds * video.frames_per_second;
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  layout.interleave_ms = 100;
  const fs::path file = dir() / "file.mp4";
  WriteMp4(file, {ToMp4Track(EncodeH264(video), 90000), MotionTrack(90000, 200 * kSeconds)},
           layout);
  const auto expected = ExtractPlainly(*ReadDataStream(file)).Files();

  // Two runs side by side; both go on when the one on the terminal has drawn its line twice.
  std::promise<void> drawn_twice;
  const std::shared_future<void> gate = drawn_twice.get_future().share();
  const fs::path silent_out = dir() / "silent";
  fs::create_directory(silent_out);
  const HeldBackPipe silent_input(dir() / "silent.mp4", ReadFile(file), gate);
  const HeldBackPipe terminal_input(input(), ReadFile(file), gate);
  std::future<ProcessResult> silent = std::async(std::launch::async, [&] {
    return RunTool({(dir() / "silent.mp4").string(), silent_out.string()});
  });
  bool reported = false;
  ProcessOptions options;
  options.stderr_is_terminal = true;
  options.on_stderr = [&](const std::string& text) {
    if (reported || std::count(text.begin(), text.end(), '%') < 2) return;
    reported = true;
    drawn_twice.set_value();
  };
  const ProcessResult on_terminal = Extract(options);

  EXPECT_EQ(silent.get().err, "");
  EXPECT_THAT(on_terminal.err, HasSubstr("%"));
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(silent_out)));
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out())));
}

}  // namespace
}  // namespace motrace::testing
