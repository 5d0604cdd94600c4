// Which arguments and streams the tool stands, and what goes wrong around it: inputs that are cut,
// resources that run out. Whatever happens, a run exits by itself, and either every output is whole
// or standard error says what is not.

#include <algorithm>

#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(ConsoleTest, TooFewArgumentsPrintTheUsageRecordAlone) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"video.mp4"}}) {
    const TempDir dir;
    const ProcessResult run = RunTool(arguments, "cd " + dir.path().string() + " &&");
    EXPECT_EQ(run.exit_code, 255);
    EXPECT_THAT(run.out, ::testing::MatchesRegex(R"(\[ERROR\]\[0x[0-9a-f]+\]\[[^]]+\])"
                                                 R"(\[main\.cpp:21\]usage: motrace source_path )"
                                                 "save_dir\n"));
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(fs::is_empty(dir.path()));
  }
}

TEST(ConsoleTest, TheStandardStreamsDoNotReachTheFiles) {
  const TempDir dir;
  const std::string path = dir / "video.mp4";
  WriteMp4(path, {MotionTrack()});
  const auto expected = ExtractPlainly(*ReadDataStream(path));
  for (const std::string streams :
       {">&-", "<&- >&-", ">&- 2>&-", "<&- >&- 2>&-", ">/dev/full 2>&1", "| true"}) {
    const TempDir out;
    EXPECT_EQ(RunTool({path, out.path()}, "", streams).exit_code, 0);
    EXPECT_THAT(DifferingFiles(expected, ReadDirectory(out.path())), IsEmpty()) << streams;
  }
}

TEST(ConsoleTest, PathsAreTakenAsTheyAre) {
  const TempDir dir;
  for (const std::string name : {"with space.mp4", "100%d.mp4", "ümläut ✓.mp4", "#?&.mp4",
                                 "no extension", "'quoted\".mp4", "-v"}) {
    WriteMp4(dir / name, {MotionTrack()});
    ExpectPlainExtraction(dir / name);
  }
  // What looks like an option is a path; an empty one is the current directory; what an earlier run
  // has left there is replaced; further arguments are ignored.
  const auto expected = ExtractPlainly(*ReadDataStream(dir / "-v"));
  const auto out = dir / "--help";
  fs::create_directory(out);
  for (const auto& [folder, save_dir] : {std::pair{dir.path(), "--help"}, {out, ""}}) {
    for (const auto& [name, content] : expected) {
      WriteFile(out / name, Bytes(content.size() + 1000, 0x55));
    }
    const ProcessResult run = RunTool({*save_dir == 0 ? "../-v" : "-v", save_dir, "--third"},
                                      "cd " + folder.string() + " &&");
    EXPECT_EQ(run.err, "");
    EXPECT_THAT(DifferingFiles(expected, ReadDirectory(out)), IsEmpty());
  }
}

class FaultTest : public ::testing::Test {
 protected:
  FaultTest() { fs::create_directory(out()); }

  [[nodiscard]] fs::path input() const { return dir_ / "input.mp4"; }
  [[nodiscard]] fs::path out() const { return dir_ / "out"; }

  /// Runs the tool after `limit` again and again, with ever more of what it limits, until it was
  /// enough five times in a row. Exits with 1 where not even the pipe can be set up; below some
  /// limit the program cannot be loaded: 127. Returns how often something was missing.
  int RunWithMore(const std::string& limit, int instants, int from, int step) {
    WriteMp4(input(), {VideoTrack(), MotionTrack(90000, instants, /*hertz=*/1000)},
             {Mp4Order::kMoovFirst});
    RunTool({input(), out()});
    const auto whole = ReadDirectory(out());
    int incomplete = 0;
    int complete_in_a_row = 0;
    int amount = from;
    for (; complete_in_a_row < 5 && amount < 50 * from && !HasFailure(); amount += step) {
      SCOPED_TRACE(limit + std::to_string(amount));
      for (const auto& [name, content] : whole) fs::remove(out() / name);
      const ProcessResult run =
          RunTool({input(), out()}, "ulimit " + limit + std::to_string(amount) + ";");
      if (run.exit_code == 127 || run.exit_code == 2) continue;
      EXPECT_LE(run.exit_code, 1);
      complete_in_a_row = run.err.empty() ? complete_in_a_row + 1 : 0;
      incomplete += run.err.empty() ? 0 : 1;
      if (run.err.empty()) {
        EXPECT_THAT(DifferingFiles(whole, ReadDirectory(out())), IsEmpty());
      } else {
        EXPECT_THAT(run.err, ::testing::AnyOf(HasSubstr(input()), HasSubstr(out())));
      }
    }
    EXPECT_EQ(complete_in_a_row, 5) << limit << amount;
    return incomplete;
  }

  TempDir dir_;
};

TEST_F(FaultTest, AFileCutAnywhereIsReadAsFarAsItGoesOrRefused) {
  WriteMp4(input(), {VideoTrack(), MotionTrack()}, {Mp4Order::kMoovFirst, 100});
  const std::uintmax_t whole = fs::file_size(input());
  constexpr int kCuts = 40;
  for (int i = 1; i <= kCuts; ++i) {
    const std::uintmax_t size = whole - whole * static_cast<unsigned>(i) / kCuts;
    SCOPED_TRACE(size);
    fs::resize_file(input(), size);
    const ProcessResult run = RunTool({input(), out()});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.err, HasSubstr(input()));
    EXPECT_EQ(ReadDirectory(out())["gyro.dat"].size() % 56, 0U);
  }
}

// Sanitizers need descriptors of their own, and map more addresses than any such limit leaves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(FaultTest, OutOfDescriptorsIsNamed) { EXPECT_GT(RunWithMore("-n ", 200, 4, 1), 0); }

TEST_F(FaultTest, OutOfMemoryIsNamed) {
  // From where the libraries cannot be loaded up to where the run wants for nothing.
  EXPECT_GT(RunWithMore("-v ", 100'000, 150 * 1024, 3 * 1024), 0);
}

// 80 million samples in a few hundred bytes, and the limit that the documents recommend.
TEST_F(FaultTest, AnIndexThatPromisesMoreThanALimitHoldsIsNamed) {
  WriteMp4(input(), {PacketTrack({GyroSample({})})});
  Bytes file = ReadFile(input());
  const Bytes count{0x04, 0xC4, 0xB4, 0x00};
  const std::pair<std::string, int> fields[] = {{"stts", 12}, {"stsz", 12}, {"stsc", 16}};
  for (const auto& [box, offset] : fields) {
    const auto type = std::search(file.begin(), file.end(), box.begin(), box.end());
    std::copy(count.begin(), count.end(), type + offset);
    if (box == "stsz") type[11] = 16;  // bytes, each of them
  }
  WriteFile(input(), file);
  const ProcessResult run = RunTool({input(), out()}, "ulimit -v 2000000;");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.err, HasSubstr("none of the 80000000 motion packets of '" + input().string()));
}
#endif

}  // namespace
}  // namespace motrace::testing
