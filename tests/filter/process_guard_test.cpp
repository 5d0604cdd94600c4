#include "process_guard.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "base/log_message.h"

namespace lum::vela {
namespace {

constexpr const char* kWords = "the files are not whole";

// An exception that leaves a thread cannot be caught.
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

// Sanitizers map more addresses than such a limit leaves, and have a heap of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(ProcessGuardDeathTest, UnderALimitOnAddressesAllThreadsShareOneHeap) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const rlim_t limit : {rlim_t{1} << 40, RLIM_INFINITY}) {
    const rlimit addresses{limit, RLIM_INFINITY};
    EXPECT_EXIT(
        {
          setrlimit(RLIMIT_AS, &addresses);
          const ProcessGuard guard(kWords);
          bool shared = false;
          std::thread([&] { shared = std::make_unique<char>().get() < sbrk(0); }).join();
          std::_Exit(shared ? 1 : 2);
        },
        testing::ExitedWithCode(limit == RLIM_INFINITY ? 2 : 1), "");
  }
}
#endif

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
