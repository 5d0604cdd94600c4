// Logging, and the value of any type.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <future>
#include <locale>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/any.h"
#include "base/log_message.h"
#include "support/log_capture.h"

namespace lum {
namespace {

using ::motrace::testing::LogCapture;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr LogSite kSomewhere{"some/where.cpp", 12};

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
  std::ostringstream thread;
  thread << "0x" << std::hex << static_cast<uint32_t>(gettid());
  const LogCapture log;
  const std::string before = LocalDate();
  LUM_LOG_AT(kVerbose, kSomewhere) << "packet " << 3 << ": " << 0.5;
  const std::string after = LocalDate();
  std::thread([] { LUM_LOG_AT(kInfo, kSomewhere) << static_cast<const char*>(nullptr); }).join();
  LUM_LOG_AT(kWarning, kSomewhere) << "after one whose stream went bad";
  EXPECT_THAT(log.Lines(),
              ElementsAre("VERBOSE some/where.cpp:12 packet 3: 0.5", "INFO some/where.cpp:12 ",
                          "WARNING some/where.cpp:12 after one whose stream went bad"));
  const auto records = log.Records();
  EXPECT_EQ(records.at(0).thread, thread.str());
  EXPECT_NE(records.at(1).thread, thread.str());
  const std::string& time = records.at(0).time;
  EXPECT_THAT(time, MatchesRegex(R"([01][0-9]-[0-3][0-9] [0-9:]+\.(0|[1-9][0-9]?[0-9]?))"));
  EXPECT_LE(before, time.substr(0, time.find('.')));
  EXPECT_LE(time.substr(0, time.find('.')), after);
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

TEST(LogMessage, ShowsTheFileAfterItsLastBackslashAndPlainNumbers) {
  struct Grouping : std::numpunct<char> {
    [[nodiscard]] char do_thousands_sep() const override { return '.'; }
    [[nodiscard]] std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  for (const auto& [file, shown] :
       {std::pair{R"(e:\src\utils/vela_util.h)", "utils/vela_util.h"},
        std::pair{"/usr/src/main.cpp", "/usr/src/main.cpp"}, std::pair{R"(src\)", ""}}) {
    const LogCapture log;
    { LogMessage(file, "function", 1234567, 1) << 1000000; }
    EXPECT_THAT(log.Lines(), ElementsAre(std::string("INFO ") + shown + ":1234567 1000000"));
  }
  std::locale::global(before);
}

TEST(LogStatement, IsOneStatementThatEvaluatesNothingBelowTheMinimumLevel) {
  EXPECT_EQ(GetLogConfig().min_level, 0);
  const LogCapture log;
  int evaluated = 0;
  for (int32_t min_level = 0; min_level <= 4; ++min_level) {
    GetLogConfig().min_level = min_level;
    if (min_level < 0)  // NOLINT(readability-braces-around-statements): without braces is the point
      LUM_LOG(kError) << "not this";
    else  // NOLINT(readability-braces-around-statements)
      LUM_LOG_AT(kVerbose, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kInfo, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kWarning, kSomewhere) << ++evaluated;
    LUM_LOG_AT(kError, kSomewhere) << ++evaluated;
    LUM_CHECK(++evaluated > 0) << ++evaluated;  // holds: only its condition is
  }
  GetLogConfig().min_level = 0;
  std::string levels;
  for (const auto& record : log.Records()) levels += record.level[0];
  EXPECT_EQ(levels, "VIWEIWEWEE");
  EXPECT_EQ(evaluated, 4 + 3 + 2 + 1 + 0 + 5);
}

TEST(LogSink, IsStandardOutputUnlessItIsTold) {
  LogSink& sink = GetLogSink();
  EXPECT_EQ(sink.file, nullptr);
  const LogCapture log;  // flushed after each record: read back while the stream is open
  for (const bool off : {false, true}) {
    for (const bool use_stderr : {false, true}) {
      sink.use_stderr = use_stderr;
      sink.console_off = off;
      const size_t before = log.Text().size();
      ::testing::internal::CaptureStdout();
      ::testing::internal::CaptureStderr();
      LUM_LOG(kVerbose) << "hello";
      const std::string out = ::testing::internal::GetCapturedStdout();
      const std::string err = ::testing::internal::GetCapturedStderr();
      const std::string written = log.Text().substr(before);
      EXPECT_THAT(written, ::testing::EndsWith("]hello\n"));
      EXPECT_EQ(out, off || use_stderr ? "" : written);
      EXPECT_EQ(err, off || !use_stderr ? "" : written);
    }
  }
  sink.use_stderr = sink.console_off = false;
}

TEST(LogSink, LinesOfSeveralThreadsNeverInterleave) {
  const std::string body(300, '=');
  const LogCapture log;
  ::testing::internal::CaptureStdout();
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&body] {
      for (int i = 0; i < 500; ++i) LUM_LOG_AT(kInfo, kSomewhere) << body;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), log.Text());
  EXPECT_EQ(log.Lines(), std::vector(2000, "INFO some/where.cpp:12 " + body));
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

template <typename T>
void ExpectHeld(T value) {
  const any held(value);
  EXPECT_EQ(held.type(), typeid(T));
  EXPECT_EQ(any_cast<T>(held), value);
  EXPECT_THROW((void)any_cast<unsigned>(held), std::bad_cast);  // nothing is converted
}

TEST(Any, GivesItsValueBackOnlyAsWhatItIs) {
  std::promise<void> promise;
  ExpectHeld(nullptr);
  ExpectHeld(3);
  ExpectHeld(int64_t{3});
  ExpectHeld(&promise);
  const any empty;
  EXPECT_EQ(empty.type(), typeid(void));
  try {
    (void)any_cast<int>(empty);
    FAIL() << "the cast of an empty value must throw";
  } catch (const std::bad_cast& e) {
    EXPECT_STREQ(e.what(), "bad cast");
  }
}

TEST(Any, CopiesOwnTheirValues) {
  any original(std::string("one"));
  any copy(original);
  any_cast<std::string>(copy) = "two";
  EXPECT_EQ(any_cast<std::string>(original), "one");
  any& self = copy;
  copy = self;
  const any moved(std::move(copy));
  EXPECT_EQ(any_cast<std::string>(moved), "two");
  EXPECT_TRUE(copy.empty() && !moved.empty());  // NOLINT(bugprone-use-after-move): what is tested
}

}  // namespace
}  // namespace lum
