#include "base/log_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <future>
#include <locale>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/log_capture.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

constexpr LogSite kSomewhere{"some/where.cpp", 12};

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
  setenv("TZ", "XST-5:45", /*overwrite=*/1);  // NOLINT(concurrency-mt-unsafe): no other thread
  tzset();
  const LogCapture log;
  const std::string before = LocalDate();
  LUM_LOG_AT(kVerbose, kSomewhere) << "packet " << 3 << ": " << 0.5;
  std::string other;
  std::thread([&other] {
    other = HexThreadId();
    LUM_LOG_AT(kInfo, kSomewhere) << "its";
  }).join();
  const std::string after = LocalDate();
  EXPECT_TRUE(std::regex_match(
      log.Text(), std::regex(R"(\[VERBOSE\]\[)" + HexThreadId() +
                             R"(\])"
                             R"(\[[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.)"
                             R"((0|[1-9][0-9]{0,2})\])"
                             R"(\[some/where\.cpp:12\]packet 3: 0\.5\n)"
                             R"(\[INFO\]\[)" +
                             other + R"(\]\[.*\]\[some/where\.cpp:12\]its\n)")))
      << log.Text();
  const std::string time = log.Records().at(0).time;
  const std::string date = time.substr(0, time.find('.'));
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

TEST(LogMessage, TheFileIsWhatFollowsTheLastBackslash) {
  const std::pair<const char*, const char*> cases[] = {
      {R"(e:\build\src\main.cpp)", "main.cpp"},
      {R"(e:\build\src\utils/vela_util.h)", "utils/vela_util.h"},
      {"/usr/src/main.cpp", "/usr/src/main.cpp"},
      {R"(src\)", ""},
      {"", ""}};
  for (const auto& [file, shown] : cases) {
    const LogCapture log;
    { LogMessage(file, "function", 7, 1) << "x"; }
    EXPECT_THAT(log.Lines(), ElementsAre(std::string("INFO ") + shown + ":7 x"));
  }
}

TEST(LogMessage, KeepsADecimalLineWhateverTheLocaleGroups) {
  struct Grouping : std::numpunct<char> {
    [[nodiscard]] char do_thousands_sep() const override { return '.'; }
    [[nodiscard]] std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  const LogCapture log;
  { LogMessage("a.cpp", "function", 1234567, 1) << 1000000; }
  std::locale::global(before);
  EXPECT_THAT(log.Lines(), ElementsAre("INFO a.cpp:1234567 1000000"));
}

TEST(LogStatement, NamesItsOwnPlaceAndIsOneStatement) {
  const LogCapture log;
  const bool never = false;
  if (never)  // NOLINT(readability-braces-around-statements): without braces is the point
    LUM_LOG(kError) << "not this";
  else  // NOLINT(readability-braces-around-statements)
    LUM_LOG(kInfo) << "this";
  const int line = __LINE__ - 1;
  const std::string file = __FILE__;
  EXPECT_THAT(log.Lines(), ElementsAre("INFO " + file.substr(file.rfind('\\') + 1) + ':' +
                                       std::to_string(line) + " this"));
}

TEST(LogStatement, BelowTheMinimumLevelEvaluatesNothing) {
  const LogCapture log;
  int evaluated = 0;
  for (int32_t min_level = 0; min_level <= 4; ++min_level) {
    GetLogConfig().min_level = min_level;
    LUM_LOG_AT(kVerbose, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kInfo, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kWarning, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kError, kSomewhere) << ++evaluated;
  }
  GetLogConfig().min_level = 0;
  std::string levels;
  for (const LogRecord& record : log.Records()) levels += record.level + ' ';
  EXPECT_EQ(levels, "VERBOSE INFO WARNING ERROR INFO WARNING ERROR WARNING ERROR ERROR ");
  EXPECT_EQ(evaluated, 4 + 3 + 2 + 1 + 0);
}

TEST(LogSink, IsStandardOutputUnlessItIsTold) {
  EXPECT_EQ(GetLogConfig().min_level, 0);
  EXPECT_EQ(GetLogSink().file, nullptr);
  const LogCapture log;  // flushed after each record: read back while the stream is open
  for (const bool use_stderr : {false, true}) {
    GetLogSink().use_stderr = use_stderr;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    LUM_LOG(kVerbose) << "hello";
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(use_stderr ? err : out, EndsWith("]hello\n"));
    EXPECT_THAT(log.Text(), EndsWith(use_stderr ? err : out));
    EXPECT_THAT(use_stderr ? out : err, IsEmpty());
  }
  GetLogSink().use_stderr = false;
}

TEST(LogSink, LinesOfSeveralThreadsNeverInterleave) {
  const std::string body(300, '=');
  const LogCapture log;
  ::testing::internal::CaptureStdout();
  std::promise<void> start;
  const std::shared_future<void> started = start.get_future().share();
  std::vector<std::thread> threads;
  std::multiset<std::string> expected;
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 500; ++i) {
      expected.insert("INFO some/where.cpp:12 " + std::to_string(t * 1000 + i) + body);
    }
    threads.emplace_back([t, &body, started] {
      started.wait();
      for (int i = 0; i < 500; ++i) LUM_LOG_AT(kInfo, kSomewhere) << t * 1000 + i << body;
    });
  }
  start.set_value();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), log.Text());
  const auto lines = log.Lines();
  EXPECT_EQ(std::multiset<std::string>(lines.begin(), lines.end()), expected);
}

TEST(CheckDeathTest, WritesAnErrorRecordAndExitsWithOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr LogSite kPlace{"editor/thing.h", 40};
  EXPECT_EXIT(
      {
        GetLogSink().use_stderr = true;  // what a death test can match
        GetLogConfig().min_level = 4;
        const int got = 3;
        LUM_CHECK_AT(got == 4, kPlace) << "got " << got;
      },
      ::testing::ExitedWithCode(1),
      R"(\[ERROR\]\[0x[0-9a-f]+\]\[[^]]+\]\[Check failed \(got == 4\) editor/thing\.h:40\]got 3)");
}

TEST(Check, ThatHoldsDoesNothing) {
  const LogCapture log;
  int evaluated = 0;
  LUM_CHECK(++evaluated == 1) << ++evaluated;
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(log.Text(), IsEmpty());
}

}  // namespace
}  // namespace lum
