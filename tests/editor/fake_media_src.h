// A media source whose reports the test decides.
#ifndef MOTRACE_TESTS_EDITOR_FAKE_MEDIA_SRC_H_
#define MOTRACE_TESTS_EDITOR_FAKE_MEDIA_SRC_H_

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "editor/media_src.h"
#include "eventloop/loop_testing.h"

namespace motrace::testing {

/// What happened, in order. Any thread.
class Journal {
 public:
  void Add(std::string entry) {
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(std::move(entry));
    added_.notify_all();
  }
  /// Returns once there are so many entries; false when they do not come.
  [[nodiscard]] bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return added_.wait_for(lock, kHang, [&] { return entries_.size() >= count; });
  }
  [[nodiscard]] std::vector<std::string> Entries() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable added_;
  std::vector<std::string> entries_;  // guarded by mutex_
};

/// Notes every call as "start 0" (operation and index) and then runs the operation's hook. Hooks
/// are set before the pipe is started.
class FakeMediaSrc : public lum::MediaSrc {
 public:
  explicit FakeMediaSrc(std::shared_ptr<Journal> journal = std::make_shared<Journal>())
      : journal_(std::move(journal)) {}

  [[nodiscard]] double Progress() const override { return 0; }
  bool Prepare() override {
    Note("prepare", nullptr);
    return prepares;
  }
  void Start() override { Note("start", on_start); }
  void Interrupt() override {
    ++interrupts;
    Note("interrupt", on_interrupt);
  }
  void Close() override {
    ++closes;
    Note("close", on_close);
  }
  void Stop() override { Note("stop", on_stop); }

  // Reports; any thread.
  void End() { state_callback(MediaSrcState::kEnded, int64_t{1000}); }
  void BeCanceled() { state_callback(MediaSrcState::kCanceled, nullptr); }
  void Fail(int32_t code) {
    error_code = code;
    state_callback(MediaSrcState::kError, nullptr);
  }

  bool prepares = true;
  std::function<void()> on_start;
  std::function<void()> on_interrupt;
  std::function<void()> on_close;
  std::function<void()> on_stop;
  std::atomic<int> interrupts{0};
  std::atomic<int> closes{0};

 private:
  void Note(const char* operation, const std::function<void()>& hook) {
    journal_->Add(std::string(operation) + ' ' + std::to_string(index));
    if (hook) hook();
  }

  std::shared_ptr<Journal> journal_;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_EDITOR_FAKE_MEDIA_SRC_H_
