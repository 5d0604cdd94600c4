// Ends a test that hangs, with the stacks of all its threads.
#ifndef MOTRACE_TESTS_SUPPORT_HANG_GUARD_H_
#define MOTRACE_TESTS_SUPPORT_HANG_GUARD_H_

#include <dirent.h>
#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace motrace::testing {

/// Unless it is destroyed within the limit, writes `what` and every thread's stack to standard
/// error and ends the process. Owns a thread.
class HangGuard {
 public:
  explicit HangGuard(std::string what, std::chrono::seconds limit = std::chrono::seconds(120))
      : what_(std::move(what)), thread_([this, limit] { Watch(limit); }) {}
  ~HangGuard() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      over_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  HangGuard(const HangGuard&) = delete;
  HangGuard& operator=(const HangGuard&) = delete;

 private:
  static void PrintStack(int /*signal*/) {
    std::array<void*, 64> frames{};
    backtrace_symbols_fd(frames.data(), backtrace(frames.data(), frames.size()), STDERR_FILENO);
  }

  void Watch(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (wake_.wait_for(lock, limit, [this] { return over_; })) return;
    std::fprintf(stderr, "HANG: %s: not over after %lld s; the stacks of all threads:\n",
                 what_.c_str(), static_cast<long long>(limit.count()));
    std::array<void*, 1> frame{};
    backtrace(frame.data(), 1);  // its first call loads a library, which a signal handler may not
    std::signal(SIGUSR2, &PrintStack);
    if (DIR* tasks = opendir("/proc/self/task")) {
      while (const dirent* task = readdir(tasks)) {  // NOLINT(concurrency-mt-unsafe): own handle
        const int id = std::atoi(task->d_name);      // NOLINT(cert-err34-c): "." and ".." give 0
        if (id == 0 || id == gettid()) continue;
        std::fprintf(stderr, "thread %d:\n", id);
        syscall(SYS_tgkill, getpid(), id, SIGUSR2);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // one stack after another
      }
      closedir(tasks);
    }
    std::_Exit(124);
  }

  std::string what_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool over_ = false;   // guarded by mutex_
  std::thread thread_;  // last: starts after everything it uses exists
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_HANG_GUARD_H_
