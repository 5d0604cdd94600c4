#include "support/hang_guard.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace motrace::testing {
namespace {

TEST(HangGuardDeathTest, AHangEndsWithTheStackOfEveryThread) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::promise<void> never;
        std::promise<void> nor_this;
        const std::thread stuck([&] { never.get_future().wait(); });
        const HangGuard guard("the run", std::chrono::seconds(0));
        nor_this.get_future().wait();
      },
      ::testing::ExitedWithCode(124),
      "HANG: the run(.|\n)*PrintStack(.|\n)*thread [0-9]+:(.|\n)*PrintStack");
}

}  // namespace
}  // namespace motrace::testing
