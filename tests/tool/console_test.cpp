// What a run prints on standard output, how it exits, and which arguments and streams it stands.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/samples.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::StartsWith;

const OutputLine kStartLine{"", "", "Start to parse motion metadata..."};

TEST(ConsoleTest, TooFewArgumentsPrintTheUsageRecordAlone) {
  const TempDir dir;
  ProcessOptions options;
  options.working_directory = dir.path();
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"video.mp4"}}) {
    const ProcessResult run = RunTool(arguments, options);
    EXPECT_EQ(run.exit_code, 255);
    EXPECT_THAT(
        ParseOutput(run.out),
        ElementsAre(OutputLine{"ERROR", "main.cpp:21", "usage: motrace source_path save_dir"}));
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  }
}

TEST(ConsoleTest, ARunThatEndsLogsItsStepsInOrder) {
  const TempDir dir;
  const TempDir out;
  const std::string path = dir / "video.mp4";
  WriteMp4(path, {VideoTrack(), AudioTrack(), MotionTrack(90000)});
  const ProcessResult run = RunTool({path, out.path().string(), "a third is ignored", "--fourth"});
  EXPECT_EQ(run.exit_code, 0);
  // Two dispatcher threads write at once here and there: only what has an order is compared.
  const std::string source = "editor/file_media_src.cpp:";
  const std::vector<OutputLine> steps{
      {"INFO", "av_toolbox/ffmpeg_util.cpp:22", "ffmpeg init"},
      {"VERBOSE", "av_toolbox/demuxer.cpp:148", "check is mp4 format, need filter to annexb"},
      {"ERROR", "av_toolbox/bsf_filter.cpp:18", "bsf_init ret:0"},
      kStartLine,
      {"VERBOSE", source + "306", "file media src to start."},
      {"VERBOSE", "av_toolbox/demuxer.cpp:224", "ReadPacket eof."},
      {"VERBOSE", source + "73", path + " on end."},
      {"VERBOSE", source + "557", "perform close"},
      {"VERBOSE", source + "294", "file_media_src:" + path + " closed."},
      {"INFO", "utils/vela_util.h:41", "pipe run over..."},
      {"VERBOSE", source + "300", "file_media_src:" + path + " released."},
      {"VERBOSE", "editor/media_pipe.cpp:92", "MediaPipe Released."},
      {"VERBOSE", "editor/media_pipe.h:43", "~MediaPipe"}};
  std::vector<OutputLine> seen;
  for (const OutputLine& line : ParseOutput(run.out)) {
    if (std::count(steps.begin(), steps.end(), line) > 0) seen.push_back(line);
  }
  EXPECT_EQ(seen, steps);
}

TEST(ConsoleTest, AMissingInputStillPrintsTheStartLineAndEndsWithAnError) {
  const TempDir dir;
  const TempDir out;
  const ProcessResult run = RunTool({(dir / "no such file.mp4").string(), out.path().string()});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(ParseOutput(run.out),
              AllOf(Contains(OutputLine{"ERROR", "av_toolbox/demuxer.cpp:156",
                                        "avformat open input error:No such file or directory"}),
                    Contains(kStartLine).Times(1),
                    Contains(OutputLine{"INFO", "utils/vela_util.h:47", "pipe run error..."})));
}

TEST(ConsoleTest, RecordsOfFFmpegErrorsKeepTheirLineFeed) {
  const TempDir dir;
  const TempDir out;
  // An mp4 file type box and nothing else: FFmpeg misses the movie box and says so.
  WriteFile(dir / "empty.mp4",
            Bytes{0, 0, 0, 16, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm', 0, 0, 2, 0});
  const ProcessResult run = RunTool({(dir / "empty.mp4").string(), out.path().string()});
  EXPECT_THAT(ParseOutput(run.out),
              Contains(AllOf(Field("site", &OutputLine::site, "av_toolbox/ffmpeg_util.cpp:14"),
                             Field("text", &OutputLine::text, StartsWith("FFmpeg:")))));
  EXPECT_THAT(run.out, ::testing::ContainsRegex("FFmpeg:[^\n]*\n\n"));
}

TEST(ConsoleTest, TheStandardStreamsDoNotReachTheFiles) {
  const TempDir dir;
  const std::string path = dir / "video.mp4";
  WriteMp4(path, {MotionTrack(1000)});
  for (const std::string streams :
       {">&-", "<&- >&-", ">&- 2>&-", "<&- >&- 2>&-", ">/dev/full 2>&1", "| true"}) {
    SCOPED_TRACE(streams);
    const TempDir out;
    const ProcessResult run = RunProcess({"/bin/sh", "-c", R"("$0" "$1" "$2" )" + streams,
                                          MOTRACE_TOOL_PATH, path, out.path().string()});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_FALSE(run.timed_out);
    EXPECT_TRUE(
        SameFiles(ExtractPlainly(*ReadDataStream(path)).Files(), ReadDirectory(out.path())));
  }
}

TEST(ConsoleTest, PathsAreTakenAsTheyAre) {
  const TempDir dir;
  for (const std::string name : {"with space.mp4", "100%d.mp4", "a:b.mp4", "ümläut ✓.mp4",
                                 "#?&.mp4", "no extension", "'quoted\".mp4", "-v"}) {
    WriteMp4(dir / name, {MotionTrack(1000, 10)});
    ExpectPlainExtraction(dir / name);
  }
  // What looks like an option is a path; an empty one is the current directory; what an earlier run
  // has left there is replaced.
  const auto expected = ExtractPlainly(*ReadDataStream(dir / "-v")).Files();
  const auto out = dir / "--help";
  std::filesystem::create_directory(out);
  for (const std::string save_dir : {"--help", ""}) {
    ProcessOptions options;
    options.working_directory = save_dir.empty() ? out : dir.path();
    for (const auto& [name, content] : expected) {
      WriteFile(out / name, Bytes(content.size() + 1000, 0x55));
    }
    EXPECT_EQ(RunTool({save_dir.empty() ? "../-v" : "-v", save_dir}, options).err, "");
    EXPECT_TRUE(SameFiles(expected, ReadDirectory(out)));
  }
}

}  // namespace
}  // namespace motrace::testing
