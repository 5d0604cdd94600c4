#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "editor/fake_media_src.h"
#include "editor/media_pipe.h"
#include "stress/stress_testing.h"
#include "support/hang_guard.h"
#include "utils/vela_util.h"

namespace motrace::testing {
namespace {

// A source with a thread of its own, which reports once by itself at a random moment, and every
// time that it is interrupted.
class EagerSrc : public FakeMediaSrc {
 public:
  explicit EagerSrc(uint32_t seed) : chance_(seed) {
    on_start = [this] {
      thread_ = std::thread([this] {
        chance_.Dawdle();
        switch (chance_.Below(4)) {
          case 0:
            return Fail(7);
          case 1:
            return;  // only when interrupted
          default:
            return End();
        }
      });
    };
    on_interrupt = [this] {
      // Not on the pipe's thread: sources report from theirs.
      interrupted_.push_back(std::async(std::launch::async, [this] { BeCanceled(); }));
    };
    on_stop = [this] {
      if (thread_.joinable()) thread_.join();
      interrupted_.clear();  // waits for each
    };
  }

 private:
  Chance chance_;
  std::thread thread_;
  std::vector<std::future<void>> interrupted_;  // the pipe's thread only
};

// Pipes of one to three sources, cancelled at random moments by several threads, released at
// another one.
TEST(PipeStress, CanceledAndReleasedAtRandomMomentsReportsAtMostOnce) {
  const HangGuard guard("cancelling pipes", HangLimit());
  SCOPED_TRACE(Seed());
  Chance chance(Seed());
  for (int round = 0; round < Rounds(1000); ++round) {
    std::atomic<int> callbacks{0};
    std::promise<void> reported;
    const auto call_back = [&] {
      if (++callbacks == 1) reported.set_value();
    };
    const auto pipe = std::make_shared<lum::MediaPipe>();
    const uint32_t sources = 1 + chance.Below(3);
    for (uint32_t i = 0; i < sources; ++i) {
      pipe->AddSrc(std::make_shared<EagerSrc>(chance.Next()));
    }
    pipe->SetEndCallback(call_back);
    pipe->SetCancelCallback(call_back);
    pipe->SetErrorCallback([&call_back](int code) {
      EXPECT_EQ(code, 7);
      call_back();
    });
    ASSERT_TRUE(pipe->Prepare());

    const bool wait_for_report = chance.Below(2) == 0;
    pipe->Start();
    const auto cancel = [&pipe](uint32_t seed) {
      Chance(seed).Dawdle();
      pipe->Cancel();
    };
    std::array<std::thread, 2> cancellers{std::thread(cancel, chance.Next()),
                                          std::thread(cancel, chance.Next())};
    if (wait_for_report) {
      reported.get_future().wait();  // a cancelled pipe always reports
    } else {
      chance.Dawdle();
    }
    pipe->Release();
    for (std::thread& canceller : cancellers) canceller.join();
    ASSERT_EQ(pipe->state(), lum::MediaPipe::kMediaPipeReleased);
    ASSERT_LE(callbacks, 1);
    if (wait_for_report) {
      ASSERT_EQ(callbacks, 1);
    }
  }
}

// The runner's limit passes while one of the source's steps holds the pipe's thread or the source.
TEST(RunnerLimit, GivesOneResultInWhateverStepItPasses) {
  using Hold = std::function<void()>;
  const struct {
    const char* step;
    std::function<void(FakeMediaSrc&, const Hold& hold)> arrange;
    int32_t result;
  } cases[] = {{"start", [](auto& src, const Hold& hold) { src.on_start = hold; }, 1},
               {"reading", [](auto& /*src*/, const Hold& /*hold*/) {}, 1},
               {"the report of the end",
                [](auto& src, const Hold& hold) {
                  src.on_start = [&src] { src.End(); };
                  src.on_close = hold;
                },
                0},
               {"the report of the cancellation",
                [](auto& src, const Hold& hold) {
                  src.on_close = [&src, hold] {
                    hold();
                    src.End();
                  };
                },
                1}};
  const HangGuard guard("time limits", HangLimit());
  constexpr int kPipes = 4;  // of each case, at once, in one process
  std::vector<std::thread> runs;
  for (const auto& c : cases) {
    for (int i = 0; i < kPipes; ++i) {
      runs.emplace_back([&c] {
        std::promise<void> never;
        const auto past_the_limit = [limit = never.get_future().share()] {
          limit.wait_for(std::chrono::milliseconds(1700));
        };
        const auto src = std::make_shared<FakeMediaSrc>();
        src->on_interrupt = [&src = *src] { src.BeCanceled(); };
        c.arrange(*src, past_the_limit);
        const auto pipe = std::make_shared<lum::MediaPipe>();
        pipe->AddSrc(src);
        EXPECT_TRUE(pipe->Prepare());
        EXPECT_EQ(lum::vela::RunPipe(pipe, 1, 1.0F, /*timeout_seconds=*/1), c.result) << c.step;
        pipe->Release();
        EXPECT_EQ(src->closes, 1) << c.step;
      });
    }
  }
  for (std::thread& run : runs) run.join();
}

}  // namespace
}  // namespace motrace::testing
