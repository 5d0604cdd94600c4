// What a run prints on standard output, and how it exits.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/mp4_writer.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::Matcher;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

const OutputLine kStartLine{"", "", "Start to parse motion metadata..."};

Matcher<OutputLine> Line(const std::string& level, const std::string& site_regex,
                         const Matcher<std::string>& text) {
  return AllOf(Field("level", &OutputLine::level, level),
               Field("site", &OutputLine::site, MatchesRegex(site_regex)),
               Field("text", &OutputLine::text, text));
}

TEST(ConsoleTest, TooFewArgumentsPrintTheUsageRecordAlone) {
  const TempDir dir;
  ProcessOptions options;
  options.working_directory = dir.path();
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, std::vector<std::string>{"video.mp4"}}) {
    const ProcessResult run = RunTool(arguments, options);
    EXPECT_EQ(run.exit_code, 255);
    EXPECT_THAT(
        ParseOutput(run.out),
        ElementsAre(OutputLine{"ERROR", "main.cpp:21", "usage: motrace source_path save_dir"}));
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  }
}

TEST(ConsoleTest, FurtherArgumentsAreIgnored) {
  const TempDir dir;
  const TempDir out;
  WriteMp4(dir / "video.mp4", {MotionTrack(1000)});
  const ProcessResult run =
      RunTool({(dir / "video.mp4").string(), out.path().string(), "third", "--fourth"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(ReadDirectory(out.path()).size(), 8U);
}

TEST(ConsoleTest, ARunThatEndsLogsItsStepsInOrder) {
  const TempDir dir;
  const TempDir out;
  const std::string path = (dir / "video.mp4").string();
  WriteMp4(path, {VideoTrack(), AudioTrack(), MotionTrack(90000)});
  const ProcessResult run = RunTool({path, out.path().string()});
  EXPECT_EQ(run.exit_code, 0);

  // Two dispatcher threads write at once here and there: only what has an order is compared.
  std::vector<OutputLine> lines = ParseOutput(run.out);
  const std::vector<std::string> steps{
      "ffmpeg init",         "check is mp4 format, need filter to annexb",
      kStartLine.text,       "file media src to start.",
      "ReadPacket eof.",     path + " on end.",
      "perform close",       "file_media_src:" + path + " closed.",
      "pipe run over...",    "file_media_src:" + path + " released.",
      "MediaPipe Released.",
  };
  std::vector<std::string> seen;
  for (const OutputLine& line : lines) {
    if (std::count(steps.begin(), steps.end(), line.text) > 0) seen.push_back(line.text);
  }
  EXPECT_EQ(seen, steps);

  EXPECT_THAT(lines, Contains(Line("INFO", R"(.*ffmpeg_util\.\w+:22)", "ffmpeg init")));
  EXPECT_THAT(lines, Contains(Line("VERBOSE", R"(.*demuxer\.\w+:148)",
                                   "check is mp4 format, need filter to annexb")));
  EXPECT_THAT(
      lines, Contains(Line("VERBOSE", R"(.*file_media_src\.\w+:306)", "file media src to start.")));
  EXPECT_THAT(lines, Contains(Line("VERBOSE", R"(.*demuxer\.\w+:224)", "ReadPacket eof.")));
  EXPECT_THAT(lines, Contains(Line("VERBOSE", R"(.*file_media_src\.\w+:73)", path + " on end.")));
  EXPECT_THAT(lines, Contains(Line("INFO", R"(utils/vela_util\.h:41)", "pipe run over...")));
  EXPECT_THAT(lines,
              Contains(Line("VERBOSE", R"(editor/media_pipe\.\w+:92)", "MediaPipe Released.")));
  EXPECT_THAT(lines, Contains(Line("VERBOSE", R"(editor/media_pipe\.h:43)", "~MediaPipe")));
}

TEST(ConsoleTest, AFileWithoutVideoIsReadWithoutFilterRecords) {
  const TempDir dir;
  const TempDir out;
  WriteMp4(dir / "motion.mp4", {MotionTrack(90000)});
  const ProcessResult run = RunTool({(dir / "motion.mp4").string(), out.path().string()});
  EXPECT_THAT(Texts(ParseOutput(run.out)),
              AllOf(Not(Contains("ReadPacket eof.")),
                    Not(Contains("check is mp4 format, need filter to annexb"))));
}

TEST(ConsoleTest, AMissingInputStillPrintsTheStartLineAndEndsWithAnError) {
  const TempDir dir;
  const TempDir out;
  const ProcessResult run = RunTool({(dir / "no such file.mp4").string(), out.path().string()});
  EXPECT_EQ(run.exit_code, 0);
  const std::vector<OutputLine> lines = ParseOutput(run.out);
  EXPECT_THAT(lines, Contains(Line("ERROR", R"(.*demuxer\.\w+:156)",
                                   "avformat open input error:No such file or directory")));
  EXPECT_THAT(lines, Contains(kStartLine).Times(1));
  EXPECT_THAT(lines,
              Contains(Line("INFO", R"(utils/vela_util\.h:47)", "pipe run error...")).Times(1));
  EXPECT_THAT(Texts(lines), Not(Contains("pipe run over...")));
  EXPECT_TRUE(std::filesystem::is_empty(out.path()));
}

/// The least time, over some runs, from the pipe's report to its release, by the log's own clock. A
/// wait that is built in shows in every run, a busy machine does not.
std::chrono::milliseconds ShortestEnding(const std::vector<std::string>& arguments) {
  auto shortest = std::chrono::milliseconds::max();
  for (int i = 0; i < 5; ++i) {
    std::chrono::milliseconds reported{-1};
    std::chrono::milliseconds released{-1};
    const std::string out = RunTool(arguments).out;
    const std::regex record(R"(\[\w+\]\[\w+\]\[[\d-]+ (\d+):(\d+):(\d+)\.(\d+)\].*)");
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      std::smatch time;
      if (!std::regex_match(line, time, record)) continue;
      const std::chrono::milliseconds at =
          std::chrono::hours(std::stoi(time[1])) + std::chrono::minutes(std::stoi(time[2])) +
          std::chrono::seconds(std::stoi(time[3])) + std::chrono::milliseconds(std::stoi(time[4]));
      if (line.find("]pipe run ") != std::string::npos) reported = at;
      if (line.find("]MediaPipe Released.") != std::string::npos) released = at;
    }
    if (reported.count() < 0 || released.count() < 0) continue;
    if (released >= reported) shortest = std::min(shortest, released - reported);  // not midnight
  }
  return shortest;
}

TEST(ConsoleTest, ARunLastsNoLongerThanItsWork) {
  // A watchdog that is not woken sleeps through the rest of its half second.
  constexpr std::chrono::milliseconds kHalfAPoll{250};
  const TempDir dir;
  const TempDir out;
  WriteMp4(dir / "video.mp4", {VideoTrack(), MotionTrack(90000)});
  EXPECT_LT(ShortestEnding({(dir / "video.mp4").string(), out.path().string()}), kHalfAPoll);
  EXPECT_LT(ShortestEnding({(dir / "missing.mp4").string(), out.path().string()}), kHalfAPoll);
}

TEST(ConsoleTest, RecordsOfFFmpegErrorsKeepTheirLineFeed) {
  const TempDir dir;
  const TempDir out;
  // An mp4 file type box and nothing else: FFmpeg misses the movie box and says so.
  WriteFile(dir / "empty.mp4",
            Bytes{0, 0, 0, 16, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm', 0, 0, 2, 0});
  const ProcessResult run = RunTool({(dir / "empty.mp4").string(), out.path().string()});
  EXPECT_THAT(ParseOutput(run.out),
              Contains(Line("ERROR", R"(.*ffmpeg_util\.\w+:14)", StartsWith("FFmpeg:"))));
  EXPECT_THAT(run.out, ::testing::ContainsRegex("FFmpeg:[^\n]*\n\n"));
}

/// What a shell does to the standard streams.
class StandardStreamsTest : public ::testing::TestWithParam<std::pair<std::string, std::string>> {};

TEST_P(StandardStreamsTest, DoNotReachTheFiles) {
  const TempDir dir;
  const TempDir out;
  const std::string path = (dir / "video.mp4").string();
  WriteMp4(path, {MotionTrack(1000)});
  const std::string script = R"("$0" "$1" "$2" )" + GetParam().second;
  const ProcessResult run =
      RunProcess({"/bin/sh", "-c", script, MOTRACE_TOOL_PATH, path, out.path().string()});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_FALSE(run.timed_out);
  EXPECT_TRUE(SameFiles(ExtractPlainly(*ReadDataStream(path)).Files(), ReadDirectory(out.path())));
}

INSTANTIATE_TEST_SUITE_P(Streams, StandardStreamsTest,
                         ::testing::Values(std::pair{"NoOutput", ">&-"},
                                           std::pair{"NoInputAndOutput", "<&- >&-"},
                                           std::pair{"NoOutputAndError", ">&- 2>&-"},
                                           std::pair{"AllClosed", "<&- >&- 2>&-"},
                                           std::pair{"OutputFull", ">/dev/full 2>&1"},
                                           std::pair{"NobodyReads", "| true"}),
                         [](const auto& test) { return test.param.first; });

TEST(ConsoleTest, AnEmptySaveDirIsTheCurrentDirectory) {
  const TempDir dir;
  const TempDir out;
  WriteMp4(dir / "video.mp4", {MotionTrack(1000)});
  ProcessOptions options;
  options.working_directory = out.path();
  const ProcessResult run = RunTool({(dir / "video.mp4").string(), ""}, options);
  EXPECT_EQ(run.err, "");
  EXPECT_TRUE(SameFiles(ExtractPlainly(*ReadDataStream(dir / "video.mp4")).Files(),
                        ReadDirectory(out.path())));
}

TEST(ConsoleTest, LongerFilesOfAnEarlierRunAreReplaced) {
  const TempDir dir;
  const TempDir out;
  WriteMp4(dir / "video.mp4", {MotionTrack(1000)});
  const auto expected = ExtractPlainly(*ReadDataStream(dir / "video.mp4")).Files();
  for (const auto& [name, content] : expected) {
    WriteFile(out / name, Bytes(content.size() + 1000, 0x55));
  }
  RunTool({(dir / "video.mp4").string(), out.path().string()});
  EXPECT_TRUE(SameFiles(expected, ReadDirectory(out.path())));
}

TEST(ConsoleTest, PathsAreTakenAsTheyAre) {
  const TempDir dir;
  for (const std::string name : {"with space.mp4", "100%d.mp4", "a:b.mp4", "ümläut ✓.mp4",
                                 "#?&.mp4", "no extension", "'quoted\".mp4", "-dash.mp4"}) {
    WriteMp4(dir / name, {MotionTrack(1000, 10)});
    ExpectPlainExtraction(dir / name);
  }
}

TEST(ConsoleTest, ARelativePathThatLooksLikeAnOptionIsAPath) {
  const TempDir dir;
  WriteMp4(dir / "-v", {MotionTrack(1000, 10)});
  std::filesystem::create_directory(dir / "--help");
  ProcessOptions options;
  options.working_directory = dir.path();
  const ProcessResult run = RunTool({"-v", "--help"}, options);
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(ReadDirectory(dir / "--help").size(), 8U);
}

}  // namespace
}  // namespace motrace::testing
