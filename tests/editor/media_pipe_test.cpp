#include "editor/media_pipe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "editor/dynamic_bitset.h"
#include "editor/fake_media_src.h"
#include "eventloop/loop_testing.h"
#include "support/log_capture.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kStarted = MediaPipe::kMediaPipeStarted;
constexpr auto kEnded = MediaPipe::kMediaPipeEnded;
constexpr auto kCanceled = MediaPipe::kMediaPipeCanceled;
constexpr auto kError = MediaPipe::kMediaPipeError;

// A pipe with fake sources that notes its callbacks.
class PipeRig {
 public:
  explicit PipeRig(size_t sources = 1) {
    for (size_t i = 0; i < sources; ++i) {
      srcs.push_back(std::make_shared<FakeMediaSrc>(journal));
      pipe->AddSrc(srcs.back());
    }
    srcs.back()->on_interrupt = [this] {
      if (srcs.back()->interrupts == marker_at_) marker_.set_value();
    };
    pipe->SetEndCallback([this] { Outcome("end"); });
    pipe->SetCancelCallback([this] { Outcome("cancel"); });
    pipe->SetErrorCallback([this](int code) { Outcome("error " + std::to_string(code)); });
  }
  ~PipeRig() { pipe->Release(); }
  PipeRig(const PipeRig&) = delete;
  PipeRig& operator=(const PipeRig&) = delete;

  void Start() {
    EXPECT_TRUE(pipe->Prepare());
    pipe->Start();
  }
  /// Returns once the pipe has handled all that was reported before the call. It asks the sources
  /// to cancel so often that one of these requests must be its own, whatever else has: pass how
  /// many times that can be. Once a pipe.
  [[nodiscard]] bool Flush(int other_interrupts = 0) {
    marker_at_ = other_interrupts + 1;
    for (int i = 0; i <= other_interrupts; ++i) pipe->Cancel();
    return Arrives(marker_.get_future());
  }

  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  std::vector<std::shared_ptr<FakeMediaSrc>> srcs;
  std::shared_ptr<MediaPipe> pipe = std::make_shared<MediaPipe>();
  Journal outcomes;
  std::function<void()> on_outcome;  // runs inside the callback
  std::atomic<int32_t> state_in_callback{-1};

 private:
  void Outcome(const std::string& outcome) {
    state_in_callback = pipe->state();
    if (on_outcome) on_outcome();
    outcomes.Add(outcome);
  }

  std::atomic<int> marker_at_{-1};
  std::promise<void> marker_;
};

TEST(MediaPipe, ReportsGiveOneOutcome) {
  const struct {
    size_t sources;
    const char* steps;    // "0end": what each source reports; "outcome": a wait for it
    const char* outcome;  // empty: none
    int32_t state;
    int closes;  // of each source
  } cases[] = {{1, "0end", "end", kEnded, 1},
               {1, "0cancel", "cancel", kCanceled, 1},
               {1, "0error", "", kStarted, 0},
               {1, "0error 0cancel", "error 7", kError, 1},
               {2, "0end 0end", "", kStarted, 0},
               {2, "1end 0end", "end", kEnded, 1},
               {2, "1cancel 0cancel", "cancel", kCanceled, 1},
               {2, "0end 1cancel", "", kStarted, 0},
               {2, "0end 1cancel 0cancel", "cancel", kCanceled, 1},
               {2, "0cancel 1end 0end", "end", kEnded, 1},
               {1, "0end 0cancel 0end outcome 0error 0cancel", "end", kEnded, 1},
               {1, "0cancel 0end 0cancel", "cancel", kCanceled, 1},
               {1, "0error 0end", "", kStarted, 1},
               {1, "0error 0end 0cancel", "error 7", kError, 2},
               {1, "0error 0cancel outcome 0end 0error 0cancel", "error 7", kError, 1},
               {2, "0error 1error 0cancel 1cancel", "error 8", kError, 1},
               {2, "0cancel 1error 1cancel", "error 7", kError, 1},
               {2, "0end 1error 0cancel 1cancel", "error 7", kError, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.steps);
    PipeRig rig(c.sources);
    rig.Start();
    int errors = 0;
    int late_errors = 0;  // after the outcome: they cancel nothing
    std::istringstream steps(c.steps);
    for (std::string step; steps >> step;) {
      if (step == "outcome") {
        ASSERT_TRUE(rig.outcomes.WaitFor(1));
        continue;
      }
      FakeMediaSrc& src = *rig.srcs.at(static_cast<size_t>(step[0] - '0'));
      const std::string report = step.substr(1);
      if (report == "end") src.End();
      if (report == "cancel") src.BeCanceled();
      if (report != "error") continue;
      src.Fail(7 + errors++);
      if (!rig.outcomes.Entries().empty()) ++late_errors;
    }
    ASSERT_TRUE(rig.Flush(errors));
    const bool over = *c.outcome != '\0';
    EXPECT_EQ(rig.outcomes.Entries(), std::vector<std::string>(over ? 1 : 0, c.outcome));
    EXPECT_EQ(rig.pipe->state(), c.state);
    EXPECT_EQ(rig.state_in_callback, over ? c.state : -1);
    rig.pipe->Release();
    for (const auto& src : rig.srcs) {
      EXPECT_EQ(src->closes, c.closes);
      EXPECT_EQ(src->interrupts, errors - late_errors + (errors + 1)) << "and those of Flush";
    }
  }
}

TEST(MediaPipe, CallsBackOnItsOwnThreadOnceItsSourcesAreClosed) {
  PipeRig rig(2);
  std::thread::id pipe_thread;
  rig.srcs[0]->on_start = [&pipe_thread] { pipe_thread = std::this_thread::get_id(); };
  rig.on_outcome = [&] { EXPECT_EQ(std::this_thread::get_id(), pipe_thread); };
  rig.Start();
  for (const size_t i : {1U, 0U}) std::thread([&rig, i] { rig.srcs[i]->End(); }).join();
  ASSERT_TRUE(rig.outcomes.WaitFor(1));
  EXPECT_NE(std::this_thread::get_id(), pipe_thread);
  rig.pipe->Release();
  EXPECT_THAT(rig.journal->Entries(), ElementsAre("prepare 0", "prepare 1", "start 0", "start 1",
                                                  "close 0", "close 1", "stop 0", "stop 1"));
}

// A consumer that fails to close has its source report an error from within Close.
TEST(MediaPipe, AFailingCloseTurnsTheOutcomeIntoAnError) {
  const LogCapture log;
  for (const bool ended : {true, false}) {
    PipeRig rig;
    FakeMediaSrc& src = *rig.srcs[0];
    src.on_close = [&src] {
      if (src.closes == 1) src.Fail(-9);
    };
    src.on_interrupt = [&src] { src.BeCanceled(); };
    rig.Start();
    ended ? src.End() : src.BeCanceled();
    ASSERT_TRUE(rig.outcomes.WaitFor(1));
    EXPECT_THAT(rig.outcomes.Entries(), ElementsAre("error -9"));
    EXPECT_EQ(src.closes, ended ? 2 : 1);
  }
  EXPECT_THAT(log.Lines("editor/media_pipe.cpp")[0],
              "VERBOSE editor/media_pipe.cpp:166 close src check error, won't perform end "
              "callback.");
}

TEST(MediaPipe, PreparesInOrderUpToTheFirstFailureAndStartsAllTheSame) {
  PipeRig rig(3);
  rig.srcs[1]->prepares = false;
  EXPECT_FALSE(rig.pipe->Prepare());
  EXPECT_EQ(rig.pipe->state(), MediaPipe::kMediaPipeUnknown);
  rig.pipe->SetEndCallback(nullptr);
  rig.pipe->Start();
  for (const auto& src : rig.srcs) src->End();
  ASSERT_TRUE(rig.Flush());
  EXPECT_EQ(rig.pipe->state(), kEnded) << "also without a callback";
  EXPECT_EQ(rig.journal->Entries()[1], "prepare 1");
  EXPECT_EQ(rig.journal->Entries()[2], "start 0");
}

TEST(MediaPipe, WithoutASourceItFailsToPrepareAndItsReleaseLeavesNoRecord) {
  { const MediaPipe never_started; }  // needs no release
  auto pipe = std::make_shared<MediaPipe>();
  const LogCapture log;
  EXPECT_FALSE(pipe->Prepare());
  pipe->Cancel();  // before the start: dropped
  pipe->Release();
  EXPECT_EQ(pipe->state(), MediaPipe::kMediaPipeReleased);
  pipe.reset();
  EXPECT_THAT(log.Lines(),
              ElementsAre("VERBOSE editor/media_pipe.cpp:57 there should at least one src.",
                          "INFO eventloop/event.cpp:37 weak dispatcher is invalid now",
                          "VERBOSE editor/media_pipe.h:43 ~MediaPipe"));
}

TEST(MediaPipe, ReleaseEndsARunThatHasReportedNothing) {
  PipeRig rig(2);
  std::promise<void> started;
  rig.srcs[1]->on_start = [&started] { started.set_value(); };
  rig.srcs[1]->on_stop = [&rig] {  // dropped, and not waited for
    rig.srcs[1]->Fail(3);
    rig.srcs[1]->BeCanceled();
  };
  rig.Start();
  ASSERT_TRUE(Arrives(started.get_future()));
  rig.srcs[0]->End();
  rig.pipe->Release();
  EXPECT_EQ(rig.pipe->state(), MediaPipe::kMediaPipeReleased);
  EXPECT_THAT(rig.journal->Entries(),
              ElementsAre("prepare 0", "prepare 1", "start 0", "start 1", "stop 0", "stop 1"));
  rig.srcs[1]->End();  // too late: dropped
  rig.pipe->Release();
  EXPECT_THAT(rig.outcomes.Entries(), IsEmpty());
}

// A request that overtook the start would find a source that cannot report it yet.
TEST(MediaPipe, NoCancelComesBeforeTheStart) {
  for (int i = 0; i < 300; ++i) {
    PipeRig rig;
    std::atomic<bool> over{false};
    ASSERT_TRUE(rig.pipe->Prepare());
    std::thread canceller([&] {
      while (!over) rig.pipe->Cancel();
    });
    rig.pipe->Start();
    over = true;
    canceller.join();
    rig.pipe->Release();
    ASSERT_EQ(rig.journal->Entries().at(1), "start 0");
  }
}

// As when there is no thread to be had: it could not report a cancellation.
TEST(MediaPipe, ASourceThatCannotBeStartedIsAnError) {
  const LogCapture log;
  PipeRig rig(2);
  rig.srcs[1]->on_start = [] { throw 42; };
  rig.Start();
  ASSERT_TRUE(rig.outcomes.WaitFor(1));
  EXPECT_THAT(rig.outcomes.Entries(), ElementsAre("error -1"));
  EXPECT_THAT(log.Text(), ::testing::HasSubstr("]a source could not be started: "));
  EXPECT_EQ(rig.pipe->state(), kError);
  EXPECT_EQ(rig.srcs[0]->closes, 1);
}

// In whatever step the run is: before its start is handled, meanwhile, or when it is over.
TEST(MediaPipeDeathTest, DestroyedBeforeItsReleaseEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (int round = 0; round < 8; ++round) {
    EXPECT_EXIT(
        {
          GetLogSink().use_stderr = true;  // what a death test can match
          auto pipe = std::make_shared<MediaPipe>();
          const auto src = std::make_shared<FakeMediaSrc>();
          std::promise<void> ended;
          pipe->AddSrc(src);
          pipe->SetEndCallback([&ended] { ended.set_value(); });
          pipe->Prepare();
          pipe->Start();
          if (round == 0) {
            src->End();
            ended.get_future().wait();
          }
          pipe.reset();
          for (;;) pause();  // the pipe's thread may hold the last reference
        },
        ::testing::ExitedWithCode(1),
        R"(\[ERROR\]\[0x[0-9a-f]+\]\[[^]]+\]\[Check failed \(state_ == kMediaPipeReleased \|\| )"
        R"(state_ == kMediaPipeUnknown\) editor/media_pipe\.h:40\])"
        R"(You must call Release before ~MediaPipe if you have called Start\.)");
  }
}

TEST(DynamicBitset, HasAllBitsSetOnceEachIs) {
  EXPECT_TRUE(DynamicBitset(0).All());
  for (const size_t count : {1U, 32U, 33U, 65U}) {
    DynamicBitset bits(count);
    for (size_t i = 0; i < count; ++i) {
      EXPECT_FALSE(bits.All());
      bits.Set(i, /*value=*/true);
    }
    EXPECT_TRUE(bits.All());
    bits.Set(count - 1, /*value=*/false);
    EXPECT_FALSE(bits.All());
  }
}

}  // namespace
}  // namespace lum
