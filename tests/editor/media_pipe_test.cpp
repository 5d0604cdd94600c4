#include "editor/media_pipe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <ostream>
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

using ::motrace::testing::Arrives;
using ::motrace::testing::FakeMediaSrc;
using ::motrace::testing::Journal;
using ::motrace::testing::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A pipe with fake sources that notes its callbacks.
class PipeRig {
 public:
  explicit PipeRig(size_t sources = 1) : pipe(std::make_shared<MediaPipe>()) {
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
  [[nodiscard]] ::testing::AssertionResult Flush(int other_interrupts) {
    marker_at_ = other_interrupts + 1;
    for (int i = 0; i <= other_interrupts; ++i) pipe->Cancel();
    return Arrives(marker_.get_future());
  }

  std::vector<std::string> Outcomes() const { return outcomes_.Entries(); }
  [[nodiscard]] ::testing::AssertionResult HasOutcome() { return Arrives(first_); }

  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  std::vector<std::shared_ptr<FakeMediaSrc>> srcs;
  std::shared_ptr<MediaPipe> pipe;
  std::function<void()> on_outcome;  // runs inside the callback
  std::atomic<int32_t> state_in_callback{-1};
  std::thread::id callback_thread;

 private:
  void Outcome(const std::string& outcome) {
    outcomes_.Add(outcome);
    state_in_callback = pipe->state();
    callback_thread = std::this_thread::get_id();
    if (on_outcome) on_outcome();
    if (!reported_.exchange(true)) reported_promise_.set_value();
  }

  Journal outcomes_;
  std::atomic<bool> reported_{false};
  std::promise<void> reported_promise_;
  std::future<void> first_ = reported_promise_.get_future();
  std::atomic<int> marker_at_{-1};
  std::promise<void> marker_;
};

enum Report : int { kEnd = -1, kCancel = -2, kOutcome = -3 };  // or an error's code, above 0

struct Step {
  size_t src;
  int report;  // kOutcome: nothing is reported, the pipe's outcome is waited for
};

struct Scenario {
  const char* name;
  size_t sources;
  std::vector<Step> steps;
  std::vector<std::string> outcomes;
  int32_t state;
  int closes;  // of each source
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
  return out << scenario.name;
}

class MediaPipeReports : public ::testing::TestWithParam<Scenario> {};

TEST_P(MediaPipeReports, GiveOneOutcome) {
  const Scenario& scenario = GetParam();
  PipeRig rig(scenario.sources);
  rig.Start();
  int errors = 0;
  for (const Step& step : scenario.steps) {
    FakeMediaSrc& src = *rig.srcs[step.src];
    if (step.report == kEnd) {
      src.End();
    } else if (step.report == kCancel) {
      src.BeCanceled();
    } else if (step.report == kOutcome) {
      ASSERT_TRUE(rig.HasOutcome());
    } else {
      src.Fail(step.report);
      ++errors;
    }
  }
  ASSERT_TRUE(rig.Flush(errors));
  EXPECT_EQ(rig.Outcomes(), scenario.outcomes);
  EXPECT_EQ(rig.pipe->state(), scenario.state);
  if (!scenario.outcomes.empty()) {
    EXPECT_EQ(rig.state_in_callback, scenario.state);
  }
  for (const auto& src : rig.srcs) EXPECT_EQ(src->closes, scenario.closes);
}

constexpr auto kStarted = MediaPipe::kMediaPipeStarted;
constexpr auto kEnded = MediaPipe::kMediaPipeEnded;
constexpr auto kCanceled = MediaPipe::kMediaPipeCanceled;
constexpr auto kError = MediaPipe::kMediaPipeError;

INSTANTIATE_TEST_SUITE_P(
    MediaPipe, MediaPipeReports,
    ::testing::Values(
        Scenario{"OneEnds", 1, {{0, kEnd}}, {"end"}, kEnded, 1},
        Scenario{"OneIsCanceled", 1, {{0, kCancel}}, {"cancel"}, kCanceled, 1},
        Scenario{"OneFails", 1, {{0, 7}}, {}, kStarted, 0},
        Scenario{"OneFailsAndIsCanceled", 1, {{0, 7}, {0, kCancel}}, {"error 7"}, kError, 1},
        Scenario{"OneOfTwoEnds", 2, {{0, kEnd}}, {}, kStarted, 0},
        Scenario{"OneOfTwoEndsTwice", 2, {{0, kEnd}, {0, kEnd}}, {}, kStarted, 0},
        Scenario{"BothEnd", 2, {{0, kEnd}, {1, kEnd}}, {"end"}, kEnded, 1},
        Scenario{"BothEndTheLastFirst", 2, {{1, kEnd}, {0, kEnd}}, {"end"}, kEnded, 1},
        Scenario{"BothAreCanceled", 2, {{1, kCancel}, {0, kCancel}}, {"cancel"}, kCanceled, 1},
        Scenario{"OneEndsTheOtherIsCanceled", 2, {{0, kEnd}, {1, kCancel}}, {}, kStarted, 0},
        Scenario{"OneEndsThenBothAreCanceled",
                 2,
                 {{0, kEnd}, {1, kCancel}, {0, kCancel}},
                 {"cancel"},
                 kCanceled,
                 1},
        Scenario{"OneIsCanceledThenBothEnd",
                 2,
                 {{0, kCancel}, {1, kEnd}, {0, kEnd}},
                 {"end"},
                 kEnded,
                 1},
        Scenario{"EndThenCancel", 1, {{0, kEnd}, {0, kCancel}}, {"end"}, kEnded, 1},
        Scenario{"EndThenEnd", 1, {{0, kEnd}, {0, kEnd}}, {"end"}, kEnded, 1},
        Scenario{"EndThenErrorThenCancel",
                 1,
                 {{0, kEnd}, {0, kOutcome}, {0, 7}, {0, kCancel}},
                 {"end"},
                 kEnded,
                 1},
        Scenario{"CancelThenEnd", 1, {{0, kCancel}, {0, kEnd}}, {"cancel"}, kCanceled, 1},
        Scenario{"CancelThenCancel", 1, {{0, kCancel}, {0, kCancel}}, {"cancel"}, kCanceled, 1},
        Scenario{"ErrorThenEnd", 1, {{0, 7}, {0, kEnd}}, {}, kStarted, 1},
        Scenario{
            "ErrorThenEndThenCancel", 1, {{0, 7}, {0, kEnd}, {0, kCancel}}, {"error 7"}, kError, 2},
        Scenario{"ErrorIsOverAfterItsReport",
                 1,
                 {{0, 7}, {0, kCancel}, {0, kOutcome}, {0, kEnd}, {0, 8}, {0, kCancel}},
                 {"error 7"},
                 kError,
                 1},
        Scenario{"TheLastErrorIsReported",
                 2,
                 {{0, 7}, {1, 9}, {0, kCancel}, {1, kCancel}},
                 {"error 9"},
                 kError,
                 1},
        Scenario{"AnErrorAmongCancellations",
                 2,
                 {{0, kCancel}, {1, 5}, {1, kCancel}},
                 {"error 5"},
                 kError,
                 1},
        Scenario{"OneEndsTheOtherFails",
                 2,
                 {{0, kEnd}, {1, 5}, {0, kCancel}, {1, kCancel}},
                 {"error 5"},
                 kError,
                 1}),
    [](const auto& scenario) { return std::string(scenario.param.name); });

// What arrives on the sources' threads while the pipe is closing the sources, or calling back.
struct Late {
  const char* name;
  int first;
  int late;
  const char* outcome;
};

class LateReport : public ::testing::TestWithParam<std::tuple<Late, bool>> {};

TEST_P(LateReport, ChangesNothing) {
  const auto& [late, inside_close] = GetParam();
  PipeRig rig;
  FakeMediaSrc& src = *rig.srcs[0];
  const auto report = [&src](int what) {
    if (what == kEnd) src.End();
    if (what == kCancel) src.BeCanceled();
  };
  const auto report_late = [&report, what = late.late] {
    std::thread(report, what).join();
    std::thread(report, kEnd).join();
    std::thread(report, kCancel).join();
  };
  if (inside_close) {
    src.on_close = report_late;
  } else {
    rig.on_outcome = report_late;
  }
  rig.Start();
  report(late.first);
  ASSERT_TRUE(rig.HasOutcome());
  ASSERT_TRUE(rig.Flush(0));
  EXPECT_THAT(rig.Outcomes(), ElementsAre(late.outcome));
  EXPECT_EQ(rig.pipe->state(), rig.state_in_callback);
  EXPECT_EQ(src.closes, 1);
}

INSTANTIATE_TEST_SUITE_P(MediaPipe, LateReport,
                         ::testing::Combine(::testing::Values(Late{"CancelWhileTheEndIsReported",
                                                                   kEnd, kCancel, "end"},
                                                              Late{"EndWhileTheCancelIsReported",
                                                                   kCancel, kEnd, "cancel"}),
                                            ::testing::Bool()),
                         [](const auto& report) {
                           return std::string(std::get<0>(report.param).name) +
                                  (std::get<1>(report.param) ? "InClose" : "InCallback");
                         });

TEST(MediaPipe, CallsBackOnItsOwnThreadOnceItsSourcesAreClosed) {
  PipeRig rig(2);
  std::thread::id pipe_thread;
  rig.srcs[0]->on_start = [&pipe_thread] { pipe_thread = std::this_thread::get_id(); };
  rig.Start();
  std::thread([&rig] { rig.srcs[1]->End(); }).join();
  std::thread([&rig] { rig.srcs[0]->End(); }).join();
  ASSERT_TRUE(rig.HasOutcome());
  EXPECT_EQ(rig.callback_thread, pipe_thread);
  EXPECT_NE(rig.callback_thread, std::this_thread::get_id());
  rig.pipe->Release();
  EXPECT_THAT(rig.journal->Entries(), ElementsAre("prepare 0", "prepare 1", "start 0", "start 1",
                                                  "close 0", "close 1", "stop 0", "stop 1"));
}

TEST(MediaPipe, ReportsFromManyThreadsAreCountedOnce) {
  constexpr size_t kSources = 40;  // more than one word of bits
  PipeRig rig(kSources);
  rig.Start();
  std::promise<void> go;
  const std::shared_future<void> started = go.get_future().share();
  std::vector<std::thread> threads;
  for (const auto& src : rig.srcs) {
    threads.emplace_back([src, started] {
      started.wait();
      src->End();
      src->End();
    });
  }
  go.set_value();
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(rig.HasOutcome());
  ASSERT_TRUE(rig.Flush(0));
  EXPECT_THAT(rig.Outcomes(), ElementsAre("end"));
}

TEST(MediaPipe, CancelAsksEverySourceEachTime) {
  PipeRig rig(2);
  rig.Start();
  rig.pipe->Cancel();
  rig.pipe->Cancel();
  ASSERT_TRUE(rig.Flush(2));
  EXPECT_EQ(rig.srcs[0]->interrupts, rig.srcs[1]->interrupts);
  EXPECT_GE(rig.srcs[1]->interrupts, 3);
  EXPECT_EQ(rig.pipe->state(), kStarted);
  EXPECT_THAT(rig.Outcomes(), IsEmpty());
}

TEST(MediaPipe, AnErrorInterruptsEverySource) {
  PipeRig rig(2);
  for (const auto& src : rig.srcs) {
    src->on_interrupt = [&src = *src] { src.BeCanceled(); };
  }
  rig.Start();
  rig.srcs[1]->Fail(-5);
  ASSERT_TRUE(rig.HasOutcome());
  EXPECT_THAT(rig.Outcomes(), ElementsAre("error -5"));
}

// A consumer that fails to close has its source report an error from within Close.
TEST(MediaPipe, AFailingCloseTurnsTheEndIntoAnError) {
  const LogCapture log;
  PipeRig rig;
  FakeMediaSrc& src = *rig.srcs[0];
  src.on_close = [&src] {
    if (src.closes == 1) src.Fail(9);
  };
  src.on_interrupt = [&src] { src.BeCanceled(); };
  rig.Start();
  src.End();
  ASSERT_TRUE(rig.HasOutcome());
  EXPECT_THAT(rig.Outcomes(), ElementsAre("error 9"));
  EXPECT_EQ(rig.pipe->state(), kError);
  EXPECT_THAT(log.LinesOf("editor/media_pipe.cpp"),
              ElementsAre("VERBOSE editor/media_pipe.cpp:166 close src check error, won't perform "
                          "end callback."));
}

TEST(MediaPipe, AFailingCloseTurnsTheCancellationIntoAnError) {
  PipeRig rig;
  FakeMediaSrc& src = *rig.srcs[0];
  src.on_close = [&src] { src.Fail(9); };
  rig.Start();
  src.BeCanceled();
  ASSERT_TRUE(rig.Flush(1));
  EXPECT_THAT(rig.Outcomes(), ElementsAre("error 9"));
  EXPECT_EQ(src.closes, 1);
}

TEST(MediaPipe, WithoutCallbacksTheOutcomeIsItsState) {
  PipeRig rig;
  rig.pipe->SetEndCallback(nullptr);
  rig.Start();
  rig.srcs[0]->End();
  ASSERT_TRUE(rig.Flush(0));
  EXPECT_EQ(rig.pipe->state(), kEnded);
}

TEST(MediaPipe, PreparesInOrderUpToTheFirstFailureAndStartsAllTheSame) {
  PipeRig rig(3);
  rig.srcs[1]->prepares = false;
  EXPECT_FALSE(rig.pipe->Prepare());
  EXPECT_EQ(rig.pipe->state(), MediaPipe::kMediaPipeUnknown);
  EXPECT_THAT(rig.journal->Entries(), ElementsAre("prepare 0", "prepare 1"));
  rig.pipe->Start();
  rig.pipe->Release();
  EXPECT_THAT(rig.journal->Entries(), ElementsAre("prepare 0", "prepare 1", "start 0", "start 1",
                                                  "start 2", "stop 0", "stop 1", "stop 2"));
}

TEST(MediaPipe, WithoutASourceFailsToPrepareAndStartsNothing) {
  const auto pipe = std::make_shared<MediaPipe>();
  const LogCapture log;
  EXPECT_FALSE(pipe->Prepare());
  EXPECT_THAT(log.Lines(),
              ElementsAre("VERBOSE editor/media_pipe.cpp:57 there should at least one src."));
  pipe->Start();
  pipe->Release();
  EXPECT_EQ(pipe->state(), MediaPipe::kMediaPipeReleased);
}

TEST(MediaPipe, NeverStartedLeavesNoRecordOfItsRelease) {
  auto pipe = std::make_shared<MediaPipe>();
  pipe->AddSrc(std::make_shared<FakeMediaSrc>());
  const LogCapture log;
  pipe->Release();
  EXPECT_EQ(pipe->state(), MediaPipe::kMediaPipeReleased);
  EXPECT_THAT(log.Lines(), IsEmpty());
  pipe.reset();
  EXPECT_THAT(log.Lines(), ElementsAre("VERBOSE editor/media_pipe.h:43 ~MediaPipe"));
}

TEST(MediaPipe, BeforeItsStartRequestsAndReportsAreRecordedAndDropped) {
  const LogCapture log;
  PipeRig rig;
  rig.pipe->Cancel();
  rig.srcs[0]->End();
  const std::string record = "INFO eventloop/event.cpp:37 weak dispatcher is invalid now";
  EXPECT_THAT(log.LinesOf("eventloop/event.cpp"), ElementsAre(record, record));
  rig.Start();
  ASSERT_TRUE(rig.Flush(0));
  EXPECT_THAT(rig.Outcomes(), IsEmpty());
}

TEST(MediaPipe, ReleaseEndsARunThatHasReportedNothing) {
  PipeRig rig(2);
  std::promise<void> started;
  rig.srcs[1]->on_start = [&started] { started.set_value(); };
  rig.Start();
  ASSERT_TRUE(Arrives(started.get_future()));
  rig.srcs[0]->End();
  const LogCapture log;
  rig.pipe->Release();
  EXPECT_EQ(rig.pipe->state(), MediaPipe::kMediaPipeReleased);
  EXPECT_THAT(rig.Outcomes(), IsEmpty());
  EXPECT_THAT(rig.journal->Entries(),
              ElementsAre("prepare 0", "prepare 1", "start 0", "start 1", "stop 0", "stop 1"));
  EXPECT_THAT(log.Lines(),
              ElementsAre("VERBOSE eventloop/event_dispatcher.cpp:127 pipe want to stop.",
                          "VERBOSE eventloop/event_dispatcher.cpp:130 [pipe] event break event:0",
                          "VERBOSE eventloop/event_dispatcher.cpp:118 [pipe] thread exit ...",
                          "VERBOSE eventloop/event_dispatcher.cpp:160 [pipe] dispatcher release",
                          "VERBOSE editor/media_pipe.cpp:92 MediaPipe Released."));
  rig.srcs[1]->End();  // too late: dropped
  rig.pipe->Release();
  EXPECT_THAT(rig.Outcomes(), IsEmpty());
}

// Sources report until they are stopped; what they post then is dropped, and nobody waits for it.
TEST(MediaPipe, ReportsWhileItIsReleasedAreDropped) {
  PipeRig rig;
  rig.srcs[0]->on_stop = [&rig] {
    rig.srcs[0]->Fail(3);
    rig.srcs[0]->BeCanceled();
  };
  rig.Start();
  rig.pipe->Release();
  EXPECT_THAT(rig.Outcomes(), IsEmpty());
}

TEST(MediaPipe, UnknownEventsAreIgnored) {
  PipeRig rig;
  rig.Start();
  rig.pipe->HandleEvent(MakeEvent(6, rig.pipe, nullptr));
  rig.pipe->HandleEvent(MakeEvent(-1, rig.pipe, nullptr));
  ASSERT_TRUE(rig.Flush(0));
  EXPECT_THAT(rig.Outcomes(), IsEmpty());
}

// A request that overtook the start would find a source that cannot report it yet.
TEST(MediaPipe, NoCancelComesBeforeTheStart) {
  for (int i = 0; i < 300; ++i) {
    PipeRig rig;
    std::atomic<bool> over{false};
    rig.srcs[0]->on_interrupt = nullptr;
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

TEST(MediaPipeDeathTest, DestroyedBeforeItsReleaseEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
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
        src->End();
        ended.get_future().wait();
        while (pipe.use_count() > 1) std::this_thread::yield();
        pipe.reset();
      },
      ::testing::ExitedWithCode(1),
      R"(\[ERROR\]\[0x[0-9a-f]+\]\[[^]]+\]\[Check failed \(state_ == kMediaPipeReleased \|\| )"
      R"(state_ == kMediaPipeUnknown\) editor/media_pipe\.h:40\])"
      R"(You must call Release before ~MediaPipe if you have called Start\.)");
}

TEST(DynamicBitset, HasAllBitsSetOnceEachIs) {
  EXPECT_TRUE(DynamicBitset(0).All());
  for (const size_t count : {1U, 31U, 32U, 33U, 64U, 65U}) {
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
