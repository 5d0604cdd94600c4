#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "eventloop/event.h"
#include "eventloop/event_dispatcher.h"
#include "eventloop/loop_testing.h"
#include "stress/stress_testing.h"
#include "support/hang_guard.h"

namespace motrace::testing {
namespace {

// Several threads post, with and without delays, while another one, or a handler, stops the loop
// and the owner releases it.
TEST(DispatcherStress, PostingWhileItStopsLosesNoMemoryAndHangsNobody) {
  constexpr uint32_t kPosters = 3;
  constexpr int32_t kStop = 1;
  const HangGuard guard("posting while a dispatcher stops", HangLimit());
  SCOPED_TRACE(Seed());
  Chance chance(Seed());
  for (int round = 0; round < Rounds(300); ++round) {
    const auto dispatcher = std::make_shared<lum::EventDispatcher>();
    std::atomic<int> handled{0};
    const auto handler = std::make_shared<FunctionHandler>([&](const lum::Event& event) {
      ++handled;
      if (event.what() == kStop) dispatcher->Stop();
    });
    const auto value = std::make_shared<int>(round);
    std::atomic<int> posted{0};
    dispatcher->Run();
    std::vector<std::thread> threads;
    for (uint32_t p = 0; p < kPosters; ++p) {
      threads.emplace_back([&, seed = chance.Next()] {
        Chance mine(seed);
        for (int i = 0; i < 60; ++i) {
          lum::MakeEvent(0, handler, dispatcher)
              ->SetData("value", value)
              ->PostWithDelay(static_cast<int32_t>(mine.Below(4)));
          ++posted;
        }
      });
    }
    for (int s = 0; s < 2; ++s) {
      threads.emplace_back([&, by_handler = chance.Below(2) == 0, seed = chance.Next()] {
        Chance(seed).Dawdle();
        if (by_handler) lum::MakeEvent(kStop, handler, dispatcher)->Post();
        dispatcher->Stop();
      });
    }
    chance.Dawdle();
    dispatcher->Stop();
    dispatcher->Release();  // while the others still post and stop
    for (std::thread& thread : threads) thread.join();
    EXPECT_LE(handled, posted + 2);
    EXPECT_EQ(value.use_count(), 1) << "an event outlived its dispatcher";
  }
}

}  // namespace
}  // namespace motrace::testing
