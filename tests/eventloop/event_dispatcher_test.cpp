#include "eventloop/event_dispatcher.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "eventloop/event.h"
#include "eventloop/loop_testing.h"
#include "support/log_capture.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;

const std::string kAt = "eventloop/event_dispatcher.cpp:";

TEST(Event, CarriesItsCodeAndNamedValues) {
  const LogCapture log;
  std::promise<void> promise;
  const auto event = MakeEvent(-5, nullptr, nullptr);
  EXPECT_EQ(event->what(), -5);
  EXPECT_EQ(event->SetData("index", 2)->SetData("index", 3)->SetData("pr", &promise), event);
  int index = 0;
  std::promise<void>* pr = nullptr;
  EXPECT_TRUE(event->GetDataCopy("index", &index) && event->GetDataCopy("pr", &pr));
  EXPECT_EQ(index, 3) << "the later value";
  EXPECT_EQ(pr, &promise);
  int64_t untouched = 42;
  EXPECT_THROW(event->GetDataCopy("index", &untouched), std::bad_cast);
  EXPECT_FALSE(event->GetDataCopy("idx", &untouched));
  EXPECT_EQ(untouched, 42);
  event->Post();
  EXPECT_THAT(log.Lines(),
              ElementsAre("INFO eventloop/event.h:63 unable to find key: idx",
                          "INFO eventloop/event.cpp:37 weak dispatcher is invalid now"));
}

TEST(EventDispatcher, HandlesEventsInOrderOnAThreadOfItsOwnUnlessTheirHandlerIsGone) {
  std::vector<int> seen;  // loop thread only, until Flush
  std::thread::id handled_on;
  TestLoop loop([&](const Event& event) {
    seen.push_back(event.what());
    handled_on = std::this_thread::get_id();
    if (event.what() < 10) loop.Post(event.what() + 10);  // after those queued
  });
  const auto twice = MakeEvent(20, loop.handler, loop.dispatcher);
  const LogCapture log;
  {
    const Gate gate(loop);
    loop.Post(3);
    loop.Post(2, -50);  // a negative delay is none
    twice->Post();
    twice->Post();  // runs as often as it was posted
    MakeEvent(21, std::make_shared<FunctionHandler>(), loop.dispatcher)->Post();
    loop.Post(INT32_MAX);
  }
  ASSERT_TRUE(loop.Flush() && loop.Flush());
  EXPECT_THAT(seen, ElementsAre(3, 2, 20, 20, INT32_MAX, 13, 12));
  EXPECT_THAT(log.Lines(), ElementsAre("VERBOSE " + kAt + "92 invalid handler session "));
  EXPECT_NE(handled_on, std::this_thread::get_id());
}

TEST(EventDispatcher, WhatAHandlerPostsKeepsItsPlaceAmongOtherThreads) {
  std::vector<int> seen;
  std::promise<void> posted;
  TestLoop loop([&](const Event& event) { seen.push_back(event.what()); });
  loop.Run([&] {
    loop.Post(1);
    std::thread([&] { loop.Post(2); }).join();
    loop.Post(3);
    posted.set_value();
  });
  ASSERT_TRUE(Arrives(posted.get_future()) && loop.Flush());
  EXPECT_THAT(seen, ElementsAre(1, 2, 3));
}

TEST(EventDispatcher, DelayedEventsComeInTheOrderTheyAreDueCountedFromThePost) {
  std::vector<int> seen;
  std::promise<void> last;
  TestLoop loop([&](const Event& event) {
    seen.push_back(event.what());
    if (event.what() == 1000) last.set_value();
  });
  {
    const Gate gate(loop);
    for (const int delay : {1000, 1, 100}) loop.Post(delay, delay);
    // Were the others' delays counted from when the loop takes them, this would be first.
    loop.Run([&loop] { loop.Post(60, 60); });
    loop.Post(0);
    PassTime(milliseconds(60));  // one already due waits for the next turn all the same
  }
  ASSERT_TRUE(Arrives(last.get_future()));
  EXPECT_THAT(seen, ElementsAre(0, 1, 100, 60, 1000));
}

// The loop's own idea of the time stands still while a handler runs.
TEST(EventDispatcher, NoEventComesBeforeItsDelayHasPassed) {
  TestLoop loop;
  std::promise<steady_clock::duration> waited;
  loop.Run([&] {
    PassTime(milliseconds(40));
    loop.Post(1, 1);  // makes the loop look at its timers early
    const auto posted = steady_clock::now();
    loop.Run([&waited, posted] { waited.set_value(steady_clock::now() - posted); }, 20);
  });
  std::future<steady_clock::duration> result = waited.get_future();
  ASSERT_TRUE(Arrives(result));
  EXPECT_GE(result.get(), milliseconds(19));  // time-outs are whole microseconds
}

TEST(EventDispatcher, RefusesEventsUnlessItRuns) {
  const auto handler = std::make_shared<FunctionHandler>([](const Event&) { FAIL(); });
  const auto dispatcher = std::make_shared<EventDispatcher>();
  const LogCapture log;
  dispatcher->SetName("test");
  dispatcher->Stop();  // one that never ran: nothing to stop, no harm in a release
  dispatcher->Release();
  MakeEvent(-3, handler, dispatcher)->Post();
  EXPECT_THAT(log.Lines(),
              ElementsAre("VERBOSE " + kAt + "160 [test] dispatcher release",
                          "ERROR " + kAt + "165 try to regsiter when not runnig:test what:-3"));
}

TEST(EventDispatcher, StopLetsTheHandlerFinishAndReleaseDropsTheRest) {
  for (const bool by_its_handler : {false, true}) {
    TestLoop loop([](const Event&) { FAIL() << "handled after the stop"; });
    const LogCapture log;
    // A dropped event's value may do anything, such as post.
    std::shared_ptr<int> value(new int(0), [&loop](const int* held) {
      loop.Post(9);
      delete held;
    });
    const auto post = [&](int32_t delay_ms) {
      MakeEvent(1, loop.handler, loop.dispatcher)->SetData("value", value)->PostWithDelay(delay_ms);
    };
    for (const int delay : {100'000, 200'000, INT32_MAX}) post(delay);
    ASSERT_TRUE(loop.Flush());  // the loop has taken these
    {
      const Gate gate(loop);
      const auto stop = [&loop] {
        loop.dispatcher->Stop();
        loop.dispatcher->Stop();  // does nothing
      };
      by_its_handler ? loop.Run(stop) : stop();
      if (by_its_handler) {
        for (const int delay : {0, 0, 1, 100'000}) post(delay);
      }
      EXPECT_EQ(value.use_count(), by_its_handler ? 8 : 4);
    }
    const std::weak_ptr<int> dropped = std::exchange(value, nullptr);
    loop.dispatcher->Release();
    EXPECT_TRUE(dropped.expired()) << "dropped events are destroyed";
    EXPECT_THAT(log.Lines(),
                ElementsAre("VERBOSE " + kAt + "127 test want to stop.",
                            "VERBOSE " + kAt +
                                (by_its_handler ? "130 [test] event break event:0"
                                                : "81 [test]event_base_loopbreak: 0"),
                            "VERBOSE " + kAt + "118 [test] thread exit ...",
                            "ERROR " + kAt + "165 try to regsiter when not runnig:test what:9",
                            "VERBOSE " + kAt + "160 [test] dispatcher release"));
  }
}

TEST(EventDispatcher, StopBeforeTheLoopHasStartedIsNotLost) {
  for (int i = 0; i < 300; ++i) {
    EventDispatcher dispatcher;
    dispatcher.Run();
    dispatcher.Stop();
    dispatcher.Release();
  }
}

TEST(EventDispatcher, ManyProducersLoseNothingAndKeepTheirOrders) {
  std::vector<int> next(4);
  bool in_order = true;
  TestLoop loop([&](const Event& event) {
    const auto [number, producer] = std::div(event.what(), 4);
    in_order = in_order && number == next.at(static_cast<size_t>(producer))++;
  });
  std::vector<std::thread> producers;
  producers.reserve(4);
  for (int p = 0; p < 4; ++p) {
    producers.emplace_back([&loop, p] {
      for (int i = 0; i < 2000; ++i) loop.Post(i * 4 + p);
    });
  }
  for (std::thread& producer : producers) producer.join();
  ASSERT_TRUE(loop.Flush());
  EXPECT_TRUE(in_order);
  EXPECT_THAT(next, ::testing::Each(2000));
}

// Breaking the loop is part of a VERBOSE record. The loop that goes on cannot be ended any more, so
// it takes its process with it.
TEST(EventDispatcherDeathTest, WithoutVerboseRecordsStopDoesNotBreakTheLoop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::promise<void> still_turning;
        TestLoop loop([&still_turning](const Event&) { still_turning.set_value(); });
        loop.Post(1, 300);
        if (!loop.Flush()) std::_Exit(2);
        GetLogConfig().min_level = 1;
        loop.dispatcher->Stop();
        std::_Exit(Arrives(still_turning.get_future()) ? 0 : 3);
      },
      ::testing::ExitedWithCode(0), "");
}

// ---- where libevent gets no memory

std::atomic<bool> libevent_gets_none{false};
// libevent takes its allocator before its first use.
const bool allocator_set = [] {
  event_set_mem_functions(
      [](size_t size) { return libevent_gets_none ? nullptr : std::malloc(size); },
      [](void* memory, size_t size) {
        return libevent_gets_none ? nullptr : std::realloc(memory, size);
      },
      std::free);
  return true;
}();

TEST(EventDispatcher, WithoutMemoryADelayedEventIsDroppedAndALoopThatIsStoppedEnds) {
  const LogCapture log;
  std::atomic<int> handled{0};
  {
    TestLoop loop([&](const Event&) { ++handled; });
    ASSERT_TRUE(allocator_set && loop.Flush());
    libevent_gets_none = true;
    loop.Post(5, 1);
    loop.Post(6);
    ASSERT_TRUE(loop.Flush());
  }  // a loop that went on would keep its release from returning
  libevent_gets_none = false;
  EXPECT_EQ(handled, 1);
  EXPECT_NE(log.Text().find("no memory for a timer, dropped what:5"), std::string::npos);
}

}  // namespace
}  // namespace lum
