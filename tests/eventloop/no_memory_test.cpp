// The dispatcher where libevent gets no memory. A program of its own: libevent takes its allocator
// before its first use.

#include <event2/event.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

#include "eventloop/loop_testing.h"
#include "support/log_capture.h"

namespace motrace::testing {
namespace {

std::atomic<bool> libevent_gets_none{false};

void* Allocate(size_t size) { return libevent_gets_none ? nullptr : std::malloc(size); }
void* Reallocate(void* memory, size_t size) {
  return libevent_gets_none ? nullptr : std::realloc(memory, size);
}

class NoMemoryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { event_set_mem_functions(Allocate, Reallocate, std::free); }
  void TearDown() override { libevent_gets_none = false; }
};

TEST_F(NoMemoryTest, ALoopThatIsStoppedEnds) {
  TestLoop loop;
  ASSERT_TRUE(loop.Flush());
  libevent_gets_none = true;
  loop.End();  // a loop that went on would keep this from returning
}

TEST_F(NoMemoryTest, ADelayedEventIsDroppedWithARecordAndTheRestHandled) {
  const LogCapture log;
  std::atomic<int> handled{0};
  TestLoop loop([&](const lum::Event&) { ++handled; });
  libevent_gets_none = true;
  loop.PostDelayed(5, 1);
  loop.Post(6);
  ASSERT_TRUE(loop.Flush());
  EXPECT_EQ(handled, 1);
  EXPECT_NE(log.Text().find("no memory for a timer, dropped what:5"), std::string::npos);
}

}  // namespace
}  // namespace motrace::testing
