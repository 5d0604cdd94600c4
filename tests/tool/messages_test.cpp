// What a user reads on standard error when a run did not go as hoped: one line each, in plain
// words. The words may be improved; what is tested is that the line names the file and the reason,
// that the log and the exit code stay as they are, and that what can be written is written.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/samples.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::HasSubstr;

using Tracks = std::vector<Mp4Track>;
using Words = std::vector<std::string>;

/// What the input becomes when all goes well.
std::map<std::string, Bytes> Expected(const fs::path& input) {
  return ExtractPlainly(*ReadDataStream(input)).Files();
}

struct MessageCase {
  std::string name;
  Tracks tracks;  ///< none: there is no input
  /// What standard error holds, as one line; "IN" and "OUT" stand for the paths. None: nothing.
  Words words;
  std::string outcome = "over";     ///< what the pipe's record says
  std::uintmax_t bytes_lost = 0;    ///< at the input's end
  std::uint32_t interleave_ms = 0;  ///< 0: one track after another
  std::string broken{};             ///< the output that cannot be written ("." is the directory)
};

std::ostream& operator<<(std::ostream& out, const MessageCase& message) {
  return out << message.name;
}

/// A track that FFmpeg takes for the data stream and that is no motion metadata.
Mp4Track Vendor(std::size_t size) {
  Mp4Track track = Mp4Track::Data("meta", "vend", 1000);
  for (int i = 0; i < 20; ++i) track.Add(Concat({ExposureSample(i, i), Bytes(size, 9)}), 10);
  return track;
}

Mp4Track EditedTrack() {
  Mp4Track track = MotionTrack(90000);
  track.edits = {{300, 36000, 1}};  // it drops samples, which is no early end
  return track;
}

Mp4Track UnpairedTrack() {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < 40; ++i) track.Add(i < 3 ? GyroSample({}) : AccelSample({}), 10);
  return track;
}

std::vector<MessageCase> Cases() {
  const Mp4Track video = VideoTrack();
  const Mp4Track motion = MotionTrack(90000, 2000);
  const Words full{"OUT", "No space left on device"};
  const Words directory{"OUT", "Is a directory"};
  return {
      {"AllWell", {video, AudioTrack(), motion}, {}},
      {"EditsDropSamples", {video, EditedTrack()}, {}},
      {"MissingInput", {}, {"IN", "No such file or directory"}, "error"},
      {"CutIndex", {motion}, {"IN", "cannot open"}, "error", 100'000},
      {"NoDataStream", {video, AudioTrack()}, {"IN", "no data stream"}},
      {"OtherDataStream", {video, Vendor(0)}, {"IN", "camm", "vend", "no stream"}},
      // FFmpeg prefers the data stream with the higher bit rate.
      {"MotionNotChosen", {video, motion, Vendor(5000)}, {"IN", "camm", "vend", "stream 1"}},
      {"CutInTheMiddle", {video, motion}, {"IN", "early"}, "over", 10'000, 100},
      {"CutWithinTheMotion", {video, motion}, {"IN", "early"}, "over", 1000},
      {"CutByAByte", {motion}, {"IN", "damaged or ends early: 1 motion"}, "over", 1},
      {"CutByAPacket", {motion}, {"IN", "ends early: ", "motion packets were there"}, "over", 16},
      {"CutBehindTheMotion", {motion, video}, {"IN", "ends early: 10 bytes"}, "over", 10},
      {"NoPartner", {UnpairedTrack()}, {"34 accelerometer", "gyroscope"}},
      {"NoDirectory", {motion}, {"OUT", "No such file or directory"}, "error", 0, 0, "."},
      {"GpsBlocked", {motion}, directory, "error", 0, 0, "gps.json"},
      {"ExposureBlocked", {motion}, directory, "over", 0, 0, "exposure_3.dat"},
      {"GyroFull", {motion}, full, "over", 0, 0, "gyro.dat"},
  };
}

class MessageTest : public ::testing::TestWithParam<MessageCase> {};

TEST_P(MessageTest, NamesTheFileAndTheReason) {
  const MessageCase& message = GetParam();
  TempDir dir;
  const fs::path input = dir / "input.mp4";
  const fs::path out = dir / "out";
  const fs::path broken = message.broken == "." ? out : out / message.broken;
  if (message.broken != ".") fs::create_directory(out);
  if (!message.tracks.empty()) {
    WriteMp4(input, message.tracks, {Mp4Order::kMoovFirst, message.interleave_ms});
    fs::resize_file(input, fs::file_size(input) - message.bytes_lost);
  }
  if (message.words.size() == 2 && message.words[1] == "No space left on device") {
    fs::create_symlink("/dev/full", broken);
  } else if (!message.broken.empty() && message.broken != ".") {
    fs::create_directory(broken);
  }
  const ProcessResult run = RunTool({input.string(), out.string()});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(Texts(ParseOutput(run.out)),
              Contains("pipe run " + message.outcome + "...").Times(1));
  for (std::string word : message.words) {
    if (word == "IN") word = input;
    if (word == "OUT") word = broken;
    EXPECT_THAT(run.err, HasSubstr(word));
  }
  if (message.words.empty()) {
    EXPECT_EQ(run.err, "");
  } else if (message.broken.empty() && message.name.rfind("Cut", 0) != 0) {
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  if (message.outcome != "over" || message.name == "NoDataStream") {
    EXPECT_EQ(fs::exists(out), message.broken != ".");
    EXPECT_TRUE(!message.broken.empty() || fs::is_empty(out));
    return;
  }
  fs::remove(broken == out / "" ? dir / "none" : broken);
  auto expected = Expected(input);
  expected.erase(message.broken);
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out)));
  if (HasFailure()) dir.Keep();
}

INSTANTIATE_TEST_SUITE_P(Runs, MessageTest, ::testing::ValuesIn(Cases()),
                         [](const auto& test) { return test.param.name; });

TEST(Messages, FilesCutShortByALimitAreNamed) {
  const TempDir dir;
  const fs::path input = dir / "input.mp4";
  WriteMp4(input, {MotionTrack(1000, 2000)});
  ProcessOptions options;
  options.file_size_limit = 8192;
  const ProcessResult run = RunTool({input.string(), dir.path().string()}, options);
  EXPECT_THAT(run.err,
              ::testing::AllOf(HasSubstr("gyro.dat"), HasSubstr("gps.json"),
                               HasSubstr("File too large"), ::testing::Not(HasSubstr("exposure"))));
  // What fits is there: a prefix of the whole.
  const Bytes whole = Expected(input).at("gyro.dat");
  EXPECT_EQ(ReadFile(dir / "gyro.dat"), Bytes(whole.begin(), whole.begin() + 8192));
}

// ---- the progress line

/// A named pipe that brings three quarters of a file, and the rest when the gate opens.
std::thread HeldBackPipe(const fs::path& path, Bytes content, std::shared_future<void> gate) {
  EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
  return std::thread([path, content = std::move(content), gate = std::move(gate)] {
    const auto size = static_cast<std::streamsize>(content.size());
    const auto* bytes = reinterpret_cast<const char*>(content.data());
    std::ofstream pipe(path, std::ios::binary);
    pipe.write(bytes, size - size / 4).flush();
    EXPECT_EQ(gate.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    pipe.write(bytes + size - size / 4, size / 4);
  });
}

TEST(Messages, ALongRunShowsProgressOnATerminalAndOnlyThere) {
  const TempDir dir;
  const fs::path file = dir / "file.mp4";
  H264Options video;
  video.frames = 4 * video.frames_per_second;
  WriteMp4(file, {ToMp4Track(EncodeH264(video), 90000), MotionTrack(90000, 800)},
           {Mp4Order::kMoovFirst, 100});

  // Two runs side by side; both go on when the one on the terminal has drawn its line twice.
  std::promise<void> drawn_twice;
  const std::shared_future<void> gate = drawn_twice.get_future().share();
  std::vector<std::thread> writers;
  for (const char* name : {"silent", "terminal"}) {
    fs::create_directory(dir / (std::string(name) + "_out"));
    writers.push_back(HeldBackPipe(dir / name, ReadFile(file), gate));
  }
  std::future<ProcessResult> silent = std::async(std::launch::async, [&dir] {
    return RunTool({(dir / "silent").string(), (dir / "silent_out").string()});
  });
  bool reported = false;
  ProcessOptions options;
  options.stderr_is_terminal = true;
  options.on_stderr = [&](const std::string& text) {
    if (reported || std::count(text.begin(), text.end(), '%') < 2) return;
    reported = true;
    drawn_twice.set_value();
  };
  RunTool({(dir / "terminal").string(), (dir / "terminal_out").string()}, options);
  EXPECT_TRUE(reported);
  EXPECT_EQ(silent.get().err, "");
  for (std::thread& writer : writers) writer.join();
  for (const char* out : {"silent_out", "terminal_out"}) {
    EXPECT_TRUE(SameFiles(Expected(file), ReadDirectory(dir / out)));
  }

  options.on_stderr = nullptr;
  WriteMp4(file, {MotionTrack(1000)});
  EXPECT_EQ(RunTool({file.string(), (dir / "terminal_out").string()}, options).err, "")
      << "a short run draws nothing";
}

}  // namespace
}  // namespace motrace::testing
