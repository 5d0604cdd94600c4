#include "eventloop/event_dispatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "eventloop/loop_testing.h"
#include "support/log_capture.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kAt = "eventloop/event_dispatcher.cpp:";

TEST(EventDispatcher, HandlesEventsInOrderOnAThreadOfItsOwn) {
  std::vector<int> seen;  // loop thread only, until Flush
  std::thread::id handled_on;
  TestLoop loop([&](const Event& event) {
    seen.push_back(event.what());
    handled_on = std::this_thread::get_id();
    if (event.what() < 10) loop.Post(event.what() + 10);  // behind those queued
  });
  const auto twice = MakeEvent(20, loop.handler, loop.dispatcher);
  {
    const Gate gate(loop);
    loop.Post(3);
    loop.PostDelayed(1, 0);
    loop.PostDelayed(2, -50);  // a negative delay is none
    twice->Post();
    twice->Post();  // runs as often as it was posted
    loop.Post(INT32_MAX);
  }
  ASSERT_TRUE(loop.Flush());
  ASSERT_TRUE(loop.Flush());
  EXPECT_THAT(seen, ElementsAre(3, 1, 2, 20, 20, INT32_MAX, 13, 11, 12));
  EXPECT_NE(handled_on, std::this_thread::get_id());
}

TEST(EventDispatcher, DelayedEventsComeInTheOrderTheyAreDue) {
  std::vector<int> seen;
  std::promise<void> last;
  TestLoop loop([&](const Event& event) {
    seen.push_back(event.what());
    if (event.what() == 30) last.set_value();
  });
  {
    const Gate gate(loop);
    for (const int delay : {30, 10, 1, 20}) loop.PostDelayed(delay, delay);
    loop.Post(0);
    PassTime(milliseconds(2));  // one already due waits for the next turn all the same
  }
  ASSERT_TRUE(Arrives(last.get_future()));
  EXPECT_THAT(seen, ElementsAre(0, 1, 10, 20, 30));
}

// Were it measured from the moment when the loop takes the event, `late` would be due first.
TEST(EventDispatcher, TheDelayCountsFromTheCall) {
  std::vector<std::string> seen;
  std::promise<void> both;
  const auto note = [&](const char* name) {
    seen.emplace_back(name);
    if (seen.size() == 2) both.set_value();
  };
  TestLoop loop;
  {
    const Gate gate(loop);
    loop.Run([&] { note("early"); }, 100);
    loop.Run([&] { loop.Run([&] { note("late"); }, 60); });
    PassTime(milliseconds(100));
  }
  ASSERT_TRUE(Arrives(both.get_future()));
  EXPECT_THAT(seen, ElementsAre("early", "late"));
}

// The loop's own idea of the time stands still while a handler runs.
TEST(EventDispatcher, NoEventComesBeforeItsDelayHasPassed) {
  constexpr milliseconds kDelay(20);
  TestLoop loop;
  std::promise<steady_clock::duration> waited;
  loop.Run([&] {
    PassTime(2 * kDelay);
    loop.PostDelayed(1, 1);  // makes the loop look at its timers early
    const auto posted = steady_clock::now();
    loop.Run([&waited, posted] { waited.set_value(steady_clock::now() - posted); },
             static_cast<int32_t>(kDelay.count()));
  });
  std::future<steady_clock::duration> result = waited.get_future();
  ASSERT_TRUE(Arrives(result));
  EXPECT_GE(result.get(), kDelay - milliseconds(1));  // time-outs are whole microseconds
}

TEST(EventDispatcher, AHandlerThatIsGoneDropsItsEvent) {
  TestLoop loop;
  const LogCapture log;
  auto gone = std::make_shared<FunctionHandler>();
  {
    const Gate gate(loop);
    MakeEvent(1, gone, loop.dispatcher)->Post();
    gone.reset();
  }
  ASSERT_TRUE(loop.Flush());
  EXPECT_THAT(log.Lines(), ElementsAre("VERBOSE " + kAt + "92 invalid handler session "));
}

TEST(EventDispatcher, RefusesEventsUnlessItRuns) {
  const auto handler = std::make_shared<FunctionHandler>([](const Event&) { FAIL(); });
  const auto dispatcher = std::make_shared<EventDispatcher>();
  const LogCapture log;
  const auto expect_refusal = [&](const std::string& name, int what) {
    MakeEvent(what, handler, dispatcher)->PostWithDelay(what);
    EXPECT_THAT(log.Lines(), Contains("ERROR " + kAt + "165 try to regsiter when not runnig:" +
                                      name + " what:" + std::to_string(what)));
  };
  dispatcher->Stop();  // one that never ran: nothing to stop, no harm in a release
  dispatcher->Release();
  EXPECT_THAT(log.Lines(), ElementsAre("VERBOSE " + kAt + "160 [] dispatcher release"));
  expect_refusal("", 0);
  dispatcher->SetName("named");
  expect_refusal("named", -2);
  dispatcher->Run();
  dispatcher->Stop();
  expect_refusal("named", 3);
  dispatcher->Release();
  expect_refusal("named", 4);
}

TEST(EventDispatcher, StopLetsTheHandlerFinishAndReleaseDropsTheRest) {
  std::vector<int> seen;
  TestLoop loop([&seen](const Event& event) { seen.push_back(event.what()); });
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
    for (const int delay : {0, 0, 1, 100'000}) post(delay);
    EXPECT_EQ(value.use_count(), 8);
    loop.dispatcher->Stop();
  }
  const std::weak_ptr<int> dropped = std::exchange(value, nullptr);
  loop.dispatcher->Release();
  EXPECT_THAT(seen, IsEmpty());
  EXPECT_TRUE(dropped.expired()) << "dropped events are destroyed";
  EXPECT_THAT(log.Lines(),
              Contains("ERROR " + kAt + "165 try to regsiter when not runnig:test what:9"));
}

TEST(EventDispatcher, RecordsHowALoopWasStopped) {
  for (const bool by_its_handler : {false, true}) {
    TestLoop loop([](const Event&) { FAIL() << "queued behind the stop"; });
    ASSERT_TRUE(loop.Flush());
    const LogCapture log;
    const auto stop = [&loop] {
      loop.dispatcher->Stop();
      loop.dispatcher->Stop();  // does nothing
    };
    {
      const Gate gate(loop);
      by_its_handler ? loop.Run(stop) : stop();
      if (by_its_handler) loop.Post(1);
    }
    loop.dispatcher->Release();
    EXPECT_THAT(log.Lines(), ElementsAre("VERBOSE " + kAt + "127 test want to stop.",
                                         "VERBOSE " + kAt +
                                             (by_its_handler ? "130 [test] event break event:0"
                                                             : "81 [test]event_base_loopbreak: 0"),
                                         "VERBOSE " + kAt + "118 [test] thread exit ...",
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
  constexpr int kProducers = 4;
  constexpr int kEvents = 2000;
  std::vector<std::vector<int>> seen(kProducers);
  TestLoop loop([&seen](const Event& event) {
    size_t producer = 0;
    event.GetDataCopy("producer", &producer);
    seen.at(producer).push_back(event.what());
  });
  std::vector<std::thread> producers;
  for (size_t p = 0; p < kProducers; ++p) {
    producers.emplace_back([&loop, p] {
      for (int i = 0; i < kEvents; ++i) {
        MakeEvent(i, loop.handler, loop.dispatcher)->SetData("producer", p)->Post();
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  ASSERT_TRUE(loop.Flush());
  for (const std::vector<int>& events : seen) {
    EXPECT_EQ(events.size(), static_cast<size_t>(kEvents));
    EXPECT_TRUE(std::is_sorted(events.begin(), events.end()));
  }
}

// Thread support is switched on by the first dispatcher of a process, so it needs one of its own.
TEST(EventDispatcherDeathTest, TheFirstOfTheProcessRecordsThreadSupport) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const LogCapture log;
        { const EventDispatcher first; }
        { const EventDispatcher second; }
        for (const std::string& line : log.Lines()) std::fprintf(stderr, "<%s>", line.c_str());
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(0), "^<VERBOSE " + kAt + "100 libevent use phreads:0>$");
}

// Breaking the loop is part of a VERBOSE record. The loop that goes on cannot be ended any more, so
// it takes its process with it.
TEST(EventDispatcherDeathTest, WithoutVerboseRecordsStopDoesNotBreakTheLoop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::promise<void> still_turning;
        TestLoop loop([&still_turning](const Event&) { still_turning.set_value(); });
        loop.PostDelayed(1, 300);
        if (!loop.Flush()) std::_Exit(2);
        GetLogConfig().min_level = 1;
        loop.dispatcher->Stop();
        std::_Exit(Arrives(still_turning.get_future()) ? 0 : 3);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace lum
