#include "av_toolbox/ffmpeg_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "av_toolbox/ffmpeg_compat.h"
#include "support/record_log.h"

namespace lum {
namespace {

using ::motrace::testing::LoggedRecord;
using ::motrace::testing::RecordLog;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Set-up happens once in a process, so this looks at it in a process of its own.
TEST(FFmpegInitDeathTest, SetsUpOnceWhoeverCallsAndBridgesTheLog) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto set_up_and_look = [] {
    const RecordLog log;
    std::vector<std::thread> callers;
    callers.reserve(4);
    for (int i = 0; i < 4; ++i) callers.emplace_back(InitFFmpeg);
    for (std::thread& caller : callers) caller.join();
    InitFFmpeg();
    av_log(nullptr, AV_LOG_ERROR, "x\n");
    for (const LoggedRecord& record : log.Records()) std::cerr << record << '\n';
    std::_Exit(0);
  };
  EXPECT_EXIT(set_up_and_look(), ::testing::ExitedWithCode(0),
              R"(^\[INFO\]\[av_toolbox/ffmpeg_util.cpp:22\]ffmpeg init
\[ERROR\]\[av_toolbox/ffmpeg_util.cpp:14\]FFmpeg:x

$)");
}

TEST(FFmpegLogTest, PassesErrorsAndWorseAndDropsTheRest) {
  InitFFmpeg();
  const RecordLog log;
  for (const int dropped : {AV_LOG_WARNING, AV_LOG_INFO, AV_LOG_VERBOSE, AV_LOG_DEBUG}) {
    av_log(nullptr, dropped, "dropped %d", dropped);
  }
  EXPECT_THAT(log.Records(), IsEmpty());
  for (const int passed : {AV_LOG_PANIC, AV_LOG_FATAL, AV_LOG_ERROR}) {
    av_log(nullptr, passed, "%s %d", "level", passed);
  }
  const auto error = [](const char* text) {
    return LoggedRecord{"ERROR", "av_toolbox/ffmpeg_util.cpp:14", text};
  };
  EXPECT_THAT(log.Records(), ElementsAre(error("FFmpeg:level 0"), error("FFmpeg:level 8"),
                                         error("FFmpeg:level 16")));
}

TEST(FFmpegLogTest, CutsAMessageThatIsTooLong) {
  InitFFmpeg();
  const RecordLog log;
  av_log(nullptr, AV_LOG_ERROR, "%s", std::string(5000, 'a').c_str());
  EXPECT_THAT(log.Records(), ElementsAre(LoggedRecord{"ERROR", "av_toolbox/ffmpeg_util.cpp:14",
                                                      "FFmpeg:" + std::string(1023, 'a')}));
}

TEST(FFmpegErrorStringTest, IsFFmpegsDescription) {
  EXPECT_EQ(FFmpegErrorString(AVERROR_EOF), "End of file");
  EXPECT_EQ(FFmpegErrorString(AVERROR(ENOENT)), "No such file or directory");
  EXPECT_EQ(FFmpegErrorString(AVERROR_INVALIDDATA), "Invalid data found when processing input");
  EXPECT_EQ(FFmpegErrorString(-123456789), "Error number -123456789 occurred");
}

}  // namespace
}  // namespace lum
