#include "utils/last_words.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "base/log_message.h"

namespace {

constexpr const char* kWords = "the files are not whole";

// An exception that leaves a thread is one that nobody can catch.
template <typename Exception>
void LeaveAThreadWith(const Exception& e) {
  LastWords::Set(kWords);
  std::thread([&] { throw e; }).join();
}

TEST(LastWordsDeathTest, AProcessThatEndsEarlySaysSo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto failed = testing::ExitedWithCode(1);
  EXPECT_EXIT(LeaveAThreadWith(std::bad_alloc()), failed, kWords);
  EXPECT_EXIT(
      LeaveAThreadWith(std::system_error(std::make_error_code(std::errc::not_enough_memory))),
      failed, kWords);
  EXPECT_EXIT(
      {
        LastWords::Set(kWords);
        LUM_CHECK(kWords == nullptr);
      },
      failed, kWords);
  // A fault of the program keeps its signal.
  EXPECT_EXIT(LeaveAThreadWith(std::logic_error("fault")), testing::KilledBySignal(SIGABRT),
              kWords);
  EXPECT_EXIT(
      {
        LastWords::Set(kWords);
        LastWords::Clear();
        std::exit(0);  // NOLINT(concurrency-mt-unsafe)
      },
      testing::ExitedWithCode(0), "^$");
}

}  // namespace
