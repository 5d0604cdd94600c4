#include "av_toolbox/ffmpeg_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "av_toolbox/ffmpeg_compat.h"
#include "support/log_capture.h"

namespace lum {
namespace {

using ::motrace::testing::LogCapture;

// Set-up happens once in a process, so this looks at it in a process of its own.
TEST(FFmpegInitDeathTest, SetsUpOnceWhoeverCallsAndBridgesTheLog) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto set_up_and_look = [] {
    const LogCapture log;
    std::vector<std::thread> callers;
    callers.reserve(4);
    for (int i = 0; i < 4; ++i) callers.emplace_back(InitFFmpeg);
    for (std::thread& caller : callers) caller.join();
    InitFFmpeg();
    av_log(nullptr, AV_LOG_ERROR, "x\n");
    for (const std::string& line : log.Lines()) std::cerr << line << '\n';
    std::_Exit(0);
  };
  EXPECT_EXIT(set_up_and_look(), ::testing::ExitedWithCode(0),
              R"(^INFO av_toolbox/ffmpeg_util.cpp:22 ffmpeg init
ERROR av_toolbox/ffmpeg_util.cpp:14 FFmpeg:x

$)");
}

TEST(FFmpegLogTest, PassesErrorsAndWorseUpToALengthAndDropsTheRest) {
  InitFFmpeg();
  const LogCapture log;
  for (int level = AV_LOG_PANIC; level <= AV_LOG_TRACE; level += 8) {
    av_log(nullptr, level, "%s %d", "level", level);
  }
  av_log(nullptr, AV_LOG_ERROR, "%s", std::string(5000, 'a').c_str());
  const std::string error = "ERROR av_toolbox/ffmpeg_util.cpp:14 FFmpeg:";
  EXPECT_THAT(log.Lines(),
              ::testing::ElementsAre(error + "level 0", error + "level 8", error + "level 16",
                                     error + std::string(1023, 'a')));
}

TEST(FFmpegErrorStringTest, IsFFmpegsDescription) {
  EXPECT_EQ(FFmpegErrorString(AVERROR(ENOENT)), "No such file or directory");
  EXPECT_EQ(FFmpegErrorString(AVERROR_INVALIDDATA), "Invalid data found when processing input");
  EXPECT_EQ(FFmpegErrorString(-123456789), "Error number -123456789 occurred");
}

}  // namespace
}  // namespace lum
