#include "utils/vela_util.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "base/log_sites.h"

namespace lum::vela {
namespace {

constexpr std::chrono::milliseconds kPollInterval{500};

// What one run shares with the callbacks and the watchdog. Shared ownership, because the callbacks
// stay installed, and because the caller may be gone while the pipe's thread is still inside
// `Notify`.
struct Run {
  std::atomic<bool> done{false};
  std::atomic<int32_t> result{0};
  std::mutex mutex;  // held by the caller from before the pipe's start until it waits
  std::condition_variable wake;
  std::mutex watchdog_mutex;
  std::condition_variable watchdog_wake;

  // Does not take `mutex`: the pipe's thread never waits for the caller. A wake-up that comes
  // before the caller waits is lost; the watchdog repeats it.
  void Notify() {
    {
      const std::lock_guard<std::mutex> lock(watchdog_mutex);
      done = true;
    }
    watchdog_wake.notify_all();
    wake.notify_all();
  }

  void Finish(int32_t outcome) {
    result = outcome;
    Notify();
  }
};

void Watch(const std::shared_ptr<Run>& run, const std::shared_ptr<MediaPipe>& pipe,
           int32_t timeout_seconds) {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(run->watchdog_mutex);
  while (!run->done) {
    run->watchdog_wake.wait_for(lock, kPollInterval, [&] { return run->done.load(); });
    const auto elapsed = std::chrono::steady_clock::now() - start;
    if (!run->done && timeout_seconds > 0 && elapsed >= std::chrono::seconds(timeout_seconds)) {
      lock.unlock();
      pipe->Cancel();
      lock.lock();
    }
  }
  lock.unlock();
  // Once the mutex was to be had, the caller waits or has waited: this wake-up cannot be lost.
  { const std::lock_guard<std::mutex> caller_waits(run->mutex); }
  run->wake.notify_all();
}

// Ends and joins the watchdog, also when the pipe's start throws.
class Watchdog {
 public:
  Watchdog(std::shared_ptr<Run> run, const std::shared_ptr<MediaPipe>& pipe,
           int32_t timeout_seconds)
      : run_(std::move(run)), thread_(Watch, run_, pipe, timeout_seconds) {}
  ~Watchdog() {
    if (!thread_.joinable()) return;
    run_->Notify();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  void Join() { thread_.join(); }

 private:
  std::shared_ptr<Run> run_;
  std::thread thread_;
};

}  // namespace

int32_t RunPipe(const std::shared_ptr<MediaPipe>& pipe, uint32_t /*count*/, float /*factor*/,
                int32_t timeout_seconds) {
  const auto run = std::make_shared<Run>();
  Watchdog watchdog(run, pipe, timeout_seconds);
  std::unique_lock<std::mutex> lock(run->mutex);

  pipe->SetCancelCallback([run] {
    LUM_LOG_AT(kInfo, site::kRunCanceled) << "pipe run canceled...";
    run->Finish(1);
  });
  pipe->SetEndCallback([run] {
    LUM_LOG_AT(kInfo, site::kRunOver) << "pipe run over...";
    run->Finish(0);
  });
  pipe->SetErrorCallback([run](int code) {
    LUM_LOG_AT(kInfo, site::kRunError) << "pipe run error...";
    run->Finish(code);
  });

  pipe->Start();
  // No predicate: the first wake-up ends the wait, and the watchdog's end is the run's.
  run->wake.wait(lock);
  lock.unlock();
  watchdog.Join();
  return run->result;
}

}  // namespace lum::vela
