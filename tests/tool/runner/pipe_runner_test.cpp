#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "editor/fake_media_src.h"
#include "editor/media_pipe.h"
#include "eventloop/loop_testing.h"
#include "support/log_capture.h"
#include "utils/vela_util.h"

namespace {

// What a thread does in place of its next wait; empty: it waits.
thread_local std::function<void(const std::function<void()>& wait)> instead_of_wait;

}  // namespace

// The linker sends the runner's wait here, so that a test can come between it and what it waits
// for.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
void __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(
    std::condition_variable* self, std::unique_lock<std::mutex>& lock);
void __wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(
    std::condition_variable* self, std::unique_lock<std::mutex>& lock) {
  const auto wait = [self, &lock] {
    __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(self, lock);
  };
  if (!instead_of_wait) return wait();
  const auto instead = std::move(instead_of_wait);
  instead_of_wait = nullptr;
  instead(wait);
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
}

namespace lum::vela {
namespace {

using ::motrace::testing::Arrives;
using ::motrace::testing::FakeMediaSrc;
using ::motrace::testing::LogCapture;
using ::motrace::testing::TestLoop;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Lt;

// A prepared pipe with one fake source; released at the end of the scope.
class RunnerRig {
 public:
  RunnerRig() {
    pipe->AddSrc(src);
    EXPECT_TRUE(pipe->Prepare());
    src->on_interrupt = [this] { src->BeCanceled(); };
  }
  ~RunnerRig() { pipe->Release(); }
  RunnerRig(const RunnerRig&) = delete;
  RunnerRig& operator=(const RunnerRig&) = delete;

  int32_t Run(int32_t timeout_seconds = -1) { return RunPipe(pipe, 1, 1.0F, timeout_seconds); }

  std::shared_ptr<FakeMediaSrc> src = std::make_shared<FakeMediaSrc>();
  std::shared_ptr<MediaPipe> pipe = std::make_shared<MediaPipe>();
};

TEST(RunPipe, TheOutcomeIsItsResultAndOneRecord) {
  const struct {
    std::function<void(FakeMediaSrc&)> report;
    int32_t result;
    const char* record;
  } cases[] = {{[](auto& src) { src.End(); }, 0, "41 pipe run over..."},
               {[](auto& src) { src.BeCanceled(); }, 1, "34 pipe run canceled..."},
               {[](auto& src) { src.Fail(7); }, 7, "47 pipe run error..."},
               {[](auto& src) { src.Fail(-1094995529); }, -1094995529, "47 pipe run error..."},
               {[](auto& src) { src.Fail(0); }, 0, "47 pipe run error..."}};
  for (const auto& c : cases) {
    RunnerRig rig;
    rig.src->on_start = [&] { c.report(*rig.src); };  // as early as can be
    const LogCapture log;
    EXPECT_EQ(rig.Run(), c.result);
    // The callbacks are still there, and are not called again.
    rig.src->End();
    rig.src->BeCanceled();
    rig.pipe->Release();
    EXPECT_THAT(log.Lines("utils/vela_util.h"),
                ElementsAre(std::string("INFO utils/vela_util.h:") + c.record));
    EXPECT_EQ(rig.pipe.use_count(), 1) << "nothing keeps the pipe";
  }
}

// The pipe's wake-up comes while the caller is on its way into the wait.
TEST(RunPipe, AReportBeforeTheWaitIsNotLost) {
  RunnerRig rig;
  std::promise<void> later;
  rig.src->on_interrupt = [&later] { later.set_value(); };
  instead_of_wait = [&](const std::function<void()>& wait) {
    rig.src->End();
    rig.pipe->Cancel();  // handled once the callback has returned
    EXPECT_TRUE(Arrives(later.get_future()));
    EXPECT_EQ(rig.pipe->state(), MediaPipe::kMediaPipeEnded);
    wait();
  };
  EXPECT_EQ(rig.Run(), 0);
  EXPECT_FALSE(instead_of_wait) << "the runner did not wait";
}

// A wake-up for no reason ends the wait, but not the run.
TEST(RunPipe, ASpuriousWakeUpDoesNotEndTheRun) {
  RunnerRig rig;
  TestLoop loop;
  instead_of_wait = [&](const std::function<void()>& /*wait*/) {
    loop.Run([&rig] { rig.src->Fail(5); }, 50);
  };
  EXPECT_EQ(rig.Run(), 5);
}

TEST(RunPipe, TheTimeLimitCancelsAtEachPollThatFollowsIt) {
  RunnerRig rig;
  rig.src->on_interrupt = [&rig] {
    if (rig.src->interrupts == 3) rig.src->BeCanceled();
  };
  const auto start = steady_clock::now();
  EXPECT_EQ(rig.Run(/*timeout_seconds=*/1), 1);
  EXPECT_THAT((steady_clock::now() - start) / milliseconds(1), AllOf(Ge(2000), Lt(10'000)));
  EXPECT_GE(rig.src->interrupts, 3);
}

TEST(RunPipe, WithinItsTimeLimitOrWithoutOneNothingIsCanceled) {
  TestLoop loop;
  std::vector<std::thread> runs;  // at once: each lasts a few polls
  for (const int32_t timeout_seconds : {0, -1, INT32_MIN, 1000}) {
    runs.emplace_back([&loop, timeout_seconds] {
      RunnerRig rig;
      rig.src->on_start = [&] { loop.Run([&rig] { rig.src->End(); }, 1200); };
      EXPECT_EQ(rig.Run(timeout_seconds), 0);
      EXPECT_EQ(rig.src->interrupts, 0);
    });
  }
  for (std::thread& run : runs) run.join();
}

// Were the end of a run to wait for the watchdog's next poll, these would last half a minute.
TEST(RunPipe, LastsNoLongerThanItsWork) {
  const auto start = steady_clock::now();
  for (int i = 0; i < 60; ++i) {
    RunnerRig rig;
    rig.src->on_start = [&rig] { rig.src->End(); };
    EXPECT_EQ(rig.Run(i % 2), 0);
  }
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(15));
}

}  // namespace
}  // namespace lum::vela
