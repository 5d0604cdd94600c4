// Reading no faster than time passes, and the end of reading.
#ifndef QVXMEDIA_EDITOR_PACER_H_
#define QVXMEDIA_EDITOR_PACER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace lum {

/// A clock that a reader waits on, and that any thread can end.
///
/// Threads: `Start` and `WaitUntil` belong to the reader, the rest may be called from any thread.
class Pacer {
 public:
  /// The clock counts from here.
  void Start() { start_ = std::chrono::steady_clock::now(); }

  /// Waits until the clock shows `due_ms` milliseconds.
  /// @return false when reading was ended, before or meanwhile.
  [[nodiscard]] bool WaitUntil(int64_t due_ms);

  /// Ends the wait, and all later ones until `Reset`.
  void End();
  void Reset() { ended_ = false; }
  [[nodiscard]] bool ended() const { return ended_; }

 private:
  std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::atomic<bool> ended_{false};  // set under mutex_, so that no wait misses it
};

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_PACER_H_
