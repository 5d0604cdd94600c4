#include "base/log_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <locale>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace lum {
namespace {

using ::motrace::testing::LogCapture;
using ::motrace::testing::LogRecord;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr LogSite kSomewhere{"some/where.cpp", 12};

// The minimum level for one scope.
class MinLevel {
 public:
  explicit MinLevel(int32_t level) : before_(GetLogConfig().min_level) {
    GetLogConfig().min_level = level;
  }
  ~MinLevel() { GetLogConfig().min_level = before_; }
  MinLevel(const MinLevel&) = delete;
  MinLevel& operator=(const MinLevel&) = delete;

 private:
  int32_t before_;
};

std::string HexThreadId() {
  std::ostringstream text;
  text << "0x" << std::hex << static_cast<uint32_t>(gettid());
  return text.str();
}

std::string LocalDate() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[64];
  std::strftime(text, sizeof(text), "%m-%d %H:%M:%S", &local);
  return text;
}

TEST(LogMessage, IsOneLineOfBracketedFieldsAndTheText) {
  const LogCapture log;
  LUM_LOG_AT(kInfo, kSomewhere) << "packet " << 3 << ": " << 0.5;
  EXPECT_TRUE(std::regex_match(
      log.Text(), std::regex(R"(\[INFO\]\[0x[1-9a-f][0-9a-f]*\])"
                             R"(\[[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.)"
                             R"((0|[1-9][0-9]{0,2})\])"
                             R"(\[some/where\.cpp:12\]packet 3: 0\.5\n)")))
      << log.Text();
}

TEST(LogMessage, NamesItsLevel) {
  const LogCapture log;
  LUM_LOG_AT(kVerbose, kSomewhere) << "a";
  LUM_LOG_AT(kInfo, kSomewhere) << "b";
  LUM_LOG_AT(kWarning, kSomewhere) << "c";
  LUM_LOG_AT(kError, kSomewhere) << "d";
  EXPECT_THAT(log.Lines(), ElementsAre("VERBOSE some/where.cpp:12 a", "INFO some/where.cpp:12 b",
                                       "WARNING some/where.cpp:12 c", "ERROR some/where.cpp:12 d"));
}

TEST(LogMessage, CarriesTheThreadIdAndTheLocalTime) {
  const LogCapture log;
  const std::string before = LocalDate();
  LUM_LOG(kInfo) << "mine";
  std::string other;
  std::thread([&other] {
    other = HexThreadId();
    LUM_LOG(kInfo) << "its";
  }).join();
  const std::string after = LocalDate();

  const std::vector<LogRecord> records = log.Records();
  ASSERT_THAT(records, SizeIs(2));
  EXPECT_EQ(records[0].thread, HexThreadId());
  EXPECT_EQ(records[1].thread, other);
  EXPECT_NE(records[0].thread, records[1].thread);
  const std::string date = records[0].time.substr(0, records[0].time.find('.'));
  EXPECT_LE(before, date);
  EXPECT_LE(date, after);
}

// The first tenth of a second is where padded digits would show; it comes round within a second.
TEST(LogMessage, PrintsMillisecondsWithoutPadding) {
  std::string digits;
  do {
    const LogCapture log;
    LUM_LOG(kVerbose) << "tick";
    const std::string time = log.Records().at(0).time;
    digits = time.substr(time.find('.') + 1);
    ASSERT_EQ(digits, std::to_string(std::stoi(digits)));
  } while (digits.size() == 3);
}

struct FileNameCase {
  const char* file;
  const char* shown;
};

class ShortFileName : public ::testing::TestWithParam<FileNameCase> {};

TEST_P(ShortFileName, IsWhatFollowsTheLastBackslash) {
  const LogCapture log;
  { LogMessage(GetParam().file, "function", 7, kInfo) << "x"; }
  EXPECT_THAT(log.Lines(), ElementsAre(std::string("INFO ") + GetParam().shown + ":7 x"));
}

INSTANTIATE_TEST_SUITE_P(LogMessage, ShortFileName,
                         ::testing::Values(FileNameCase{R"(e:\build\src\main.cpp)", "main.cpp"},
                                           FileNameCase{R"(e:\build\src\utils/vela_util.h)",
                                                        "utils/vela_util.h"},
                                           FileNameCase{"/usr/src/main.cpp", "/usr/src/main.cpp"},
                                           FileNameCase{"main.cpp", "main.cpp"},
                                           FileNameCase{R"(src\)", ""}, FileNameCase{"", ""}));

TEST(LogMessage, KeepsADecimalLineWhateverTheLocaleGroups) {
  struct Grouping : std::numpunct<char> {
    [[nodiscard]] char do_thousands_sep() const override { return '.'; }
    [[nodiscard]] std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  const LogCapture log;
  { LogMessage("a.cpp", "function", 1234567, kInfo) << 1000000; }
  std::locale::global(before);
  EXPECT_THAT(log.Lines(), ElementsAre("INFO a.cpp:1234567 1000000"));
}

TEST(LogStatement, NamesItsOwnPlaceAndIsOneStatement) {
  const LogCapture log;
  const bool never = false;
  if (never)
    LUM_LOG(kError) << "not this";
  else
    LUM_LOG(kInfo) << "this";
  const int line = __LINE__ - 1;
  const std::string file = __FILE__;
  EXPECT_THAT(log.Lines(), ElementsAre("INFO " + file.substr(file.rfind('\\') + 1) + ':' +
                                       std::to_string(line) + " this"));
}

TEST(LogStatement, BelowTheMinimumLevelEvaluatesNothing) {
  const LogCapture log;
  int evaluated = 0;
  for (int32_t min_level = kVerbose; min_level <= kError + 1; ++min_level) {
    const MinLevel limit(min_level);
    LUM_LOG_AT(kVerbose, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kInfo, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kWarning, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kError, kSomewhere) << ++evaluated;
  }
  EXPECT_EQ(evaluated, 4 + 3 + 2 + 1 + 0);
  EXPECT_THAT(log.Records(), SizeIs(10));
}

TEST(LogDefaults, WriteEveryLevelToStandardOutputOnly) {
  EXPECT_EQ(GetLogConfig().min_level, kVerbose);
  EXPECT_TRUE(GetLogConfig().name.empty());
  EXPECT_EQ(GetLogSink().file, nullptr);
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  LUM_LOG(kVerbose) << "hello";
  EXPECT_THAT(::testing::internal::GetCapturedStdout(), EndsWith("]hello\n"));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), IsEmpty());
}

TEST(LogSink, WritesItsFileBesideTheConsole) {
  const LogCapture log;  // flushed after each record: read back while the stream is open
  GetLogSink().use_stderr = true;
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  LUM_LOG(kWarning) << "both";
  GetLogSink().use_stderr = false;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), log.Text());
  EXPECT_THAT(::testing::internal::GetCapturedStdout(), IsEmpty());
  EXPECT_THAT(log.Text(), EndsWith("]both\n"));
}

TEST(LogSink, LinesOfSeveralThreadsNeverInterleave) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 500;
  const std::string body(300, '=');
  const LogCapture log;
  ::testing::internal::CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &body] {
      for (int i = 0; i < kRecords; ++i) {
        LUM_LOG_AT(kInfo, kSomewhere) << t << '/' << i << body << '.';
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), log.Text());

  std::set<std::string> seen;
  for (const std::string& line : log.Lines()) seen.insert(line);
  std::set<std::string> expected;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kRecords; ++i) {
      expected.insert("INFO some/where.cpp:12 " + std::to_string(t) + '/' + std::to_string(i) +
                      body + '.');
    }
  }
  EXPECT_EQ(seen, expected);
  EXPECT_THAT(log.Records(), SizeIs(kThreads * kRecords));
}

TEST(CheckDeathTest, WritesAnErrorRecordAndExitsWithOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr LogSite kPlace{"editor/thing.h", 40};
  EXPECT_EXIT(
      {
        GetLogSink().use_stderr = true;  // what a death test can match
        GetLogConfig().min_level = kError + 1;
        const int got = 3;
        LUM_CHECK_AT(got == 4, kPlace) << "got " << got;
      },
      ::testing::ExitedWithCode(1),
      R"(\[ERROR\]\[0x[0-9a-f]+\]\[[^]]+\]\[Check failed \(got == 4\) editor/thing\.h:40\]got 3)");
}

TEST(Check, ThatHoldsDoesNothing) {
  const LogCapture log;
  int evaluated = 0;
  const auto holds = [&evaluated] { return ++evaluated == 1; };
  LUM_CHECK(holds()) << ++evaluated;
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(log.Text(), IsEmpty());
}

}  // namespace
}  // namespace lum
