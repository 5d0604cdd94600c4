#include "process_guard.h"

#include <gtest/gtest.h>

#include <csignal>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "base/log_message.h"

namespace lum::vela {
namespace {

constexpr const char* kWords = "the files are not whole";

// An exception that leaves a thread is one that nobody can catch.
template <typename Exception>
void LeaveAThreadWith(const Exception& e) {
  const ProcessGuard guard(kWords);
  std::thread([&] { throw e; }).join();
}

TEST(ProcessGuardDeathTest, AProcessThatEndsEarlySaysSo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto failed = testing::ExitedWithCode(1);
  EXPECT_EXIT(LeaveAThreadWith(std::bad_alloc()), failed, kWords);
  EXPECT_EXIT(
      LeaveAThreadWith(std::system_error(std::make_error_code(std::errc::not_enough_memory))),
      failed, kWords);
  EXPECT_EXIT(
      {
        const ProcessGuard guard(kWords);
        LUM_CHECK(kWords == nullptr);
      },
      failed, kWords);
  // A fault of the program keeps its signal.
  EXPECT_EXIT(LeaveAThreadWith(std::logic_error("fault")), testing::KilledBySignal(SIGABRT),
              kWords);
  EXPECT_EXIT(
      {
        { const ProcessGuard guard(kWords); }
        std::exit(0);  // NOLINT(concurrency-mt-unsafe)
      },
      testing::ExitedWithCode(0), "^$");
}

// The new-handler stands in for an allocation that fails.
TEST(ProcessGuardTest, TheReserveIsGivenUpOnceAndKnown) {
  {
    const ProcessGuard guard(kWords);
    EXPECT_FALSE(ProcessGuard::OutOfMemory());
    const std::new_handler handler = std::get_new_handler();
    ASSERT_NE(handler, nullptr);
    handler();
    EXPECT_TRUE(ProcessGuard::OutOfMemory());
    EXPECT_THROW(handler(), std::bad_alloc);
  }
  EXPECT_EQ(std::get_new_handler(), nullptr);
  { const ProcessGuard again(kWords); }
  EXPECT_FALSE(ProcessGuard::OutOfMemory());
}

}  // namespace
}  // namespace lum::vela
