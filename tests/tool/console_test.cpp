// What a run prints on standard output, how it exits, and which arguments and streams it stands.

#include <filesystem>

#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

using ::testing::ElementsAre;

TEST(ConsoleTest, TooFewArgumentsPrintTheUsageRecordAlone) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"video.mp4"}}) {
    const TempDir dir;
    const ProcessResult run = RunTool(arguments, "cd " + dir.path().string() + " &&");
    EXPECT_EQ(run.exit_code, 255);
    EXPECT_THAT(LogOf(run.out),
                ElementsAre(ElementsAre("ERROR main.cpp:21 usage: motrace source_path save_dir")));
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  }
}

TEST(ConsoleTest, RecordsOfFFmpegErrorsKeepTheirLineFeed) {
  const TempDir dir;
  // An mp4 file type box and nothing else: FFmpeg misses the movie box and says so.
  WriteFile(dir / "empty.mp4", {0, 0, 0, 16, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm', 0, 0, 2, 0});
  const ProcessResult run = RunTool({dir / "empty.mp4", dir.path()});
  EXPECT_THAT(
      LogOf(run.out).at(0),
      ::testing::Contains(::testing::StartsWith("ERROR av_toolbox/ffmpeg_util.cpp:14 FFmpeg:")));
  EXPECT_THAT(run.out, ::testing::ContainsRegex("FFmpeg:[^\n]*\n\n"));
}

TEST(ConsoleTest, TheStandardStreamsDoNotReachTheFiles) {
  const TempDir dir;
  const std::string path = dir / "video.mp4";
  WriteMotion(path);
  for (const std::string streams :
       {">&-", "<&- >&-", ">&- 2>&-", "<&- >&- 2>&-", ">/dev/full 2>&1", "| true"}) {
    const TempDir out;
    EXPECT_EQ(RunTool({path, out.path()}, "", streams).exit_code, 0);
    EXPECT_TRUE(SameFiles(ExtractPlainly(*ReadDataStream(path)).files, ReadDirectory(out.path())))
        << streams;
  }
}

TEST(ConsoleTest, PathsAreTakenAsTheyAre) {
  const TempDir dir;
  for (const std::string name : {"with space.mp4", "100%d.mp4", "ümläut ✓.mp4", "#?&.mp4",
                                 "no extension", "'quoted\".mp4", "-v"}) {
    WriteMotion(dir / name, 10);
    ExpectPlainExtraction(dir / name);
  }
  // What looks like an option is a path; an empty one is the current directory; what an earlier run
  // has left there is replaced; further arguments are ignored.
  const auto expected = ExtractPlainly(*ReadDataStream(dir / "-v")).files;
  const auto out = dir / "--help";
  std::filesystem::create_directory(out);
  for (const auto& [folder, save_dir] : {std::pair{dir.path(), "--help"}, {out, ""}}) {
    for (const auto& [name, content] : expected) {
      WriteFile(out / name, Bytes(content.size() + 1000, 0x55));
    }
    const ProcessResult run = RunTool({*save_dir == 0 ? "../-v" : "-v", save_dir, "--third"},
                                      "cd " + folder.string() + " &&");
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(SameFiles(expected, ReadDirectory(out)));
  }
}

}  // namespace
}  // namespace motrace::testing
