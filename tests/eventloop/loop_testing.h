// A loop and its handler, and the means to order what happens on it without sleeping.
#ifndef MOTRACE_TESTS_EVENTLOOP_LOOP_TESTING_H_
#define MOTRACE_TESTS_EVENTLOOP_LOOP_TESTING_H_

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <utility>

#include "eventloop/event.h"
#include "eventloop/event_dispatcher.h"

namespace motrace::testing {

// Generous: it only bounds a hang, no test waits for it to pass.
constexpr std::chrono::seconds kHang{60};

/// Waits for something that must come.
template <typename T>
[[nodiscard]] bool Arrives(const std::future<T>& future) {
  return future.wait_for(kHang) == std::future_status::ready;
}

/// Runs what each event carries under "run", else what was given to it.
class FunctionHandler : public lum::EventHandler {
 public:
  using Function = std::function<void()>;
  static constexpr int32_t kRun = -77;

  explicit FunctionHandler(std::function<void(const lum::Event&)> otherwise = nullptr)
      : otherwise_(std::move(otherwise)) {}

  void HandleEvent(const std::shared_ptr<lum::Event>& event) override {
    Function run;
    if (event->what() == kRun && event->GetDataCopy("run", &run)) return run();
    if (otherwise_) otherwise_(*event);
  }

 private:
  std::function<void(const lum::Event&)> otherwise_;
};

/// A running dispatcher; stopped and released at the end of the scope.
class TestLoop {
 public:
  explicit TestLoop(std::function<void(const lum::Event&)> handle = nullptr)
      : dispatcher(std::make_shared<lum::EventDispatcher>()),
        handler(std::make_shared<FunctionHandler>(std::move(handle))) {
    dispatcher->SetName("test");
    dispatcher->Run();
  }
  ~TestLoop() {
    dispatcher->Stop();
    dispatcher->Release();
  }
  TestLoop(const TestLoop&) = delete;
  TestLoop& operator=(const TestLoop&) = delete;

  void Post(int32_t what, int32_t delay_ms = 0) {
    lum::MakeEvent(what, handler, dispatcher)->PostWithDelay(delay_ms);
  }
  /// Runs `function` on the loop, after `delay_ms`.
  void Run(const FunctionHandler::Function& function, int32_t delay_ms = 0) {
    lum::MakeEvent(FunctionHandler::kRun, handler, dispatcher)
        ->SetData("run", function)
        ->PostWithDelay(delay_ms);
  }
  /// Returns once every event posted before the call, without a delay, was handled.
  [[nodiscard]] bool Flush() {
    const auto reached = std::make_shared<std::promise<void>>();
    Run([reached] { reached->set_value(); });
    return Arrives(reached->get_future());
  }

  std::shared_ptr<lum::EventDispatcher> dispatcher;
  std::shared_ptr<FunctionHandler> handler;
};

/// Holds a loop inside a handler to the end of the scope.
class Gate {
 public:
  explicit Gate(TestLoop& loop) {
    const auto entered = std::make_shared<std::promise<void>>();
    loop.Run([entered, opened = open_.get_future().share()] {
      entered->set_value();
      opened.wait();
    });
    EXPECT_TRUE(Arrives(entered->get_future()));
  }
  ~Gate() { open_.set_value(); }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

 private:
  std::promise<void> open_;
};

/// Lets the clock pass a moment that something was made due at.
inline void PassTime(std::chrono::milliseconds span) {
  const auto end = std::chrono::steady_clock::now() + span;
  while (std::chrono::steady_clock::now() <= end) {
  }
}

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_EVENTLOOP_LOOP_TESTING_H_
