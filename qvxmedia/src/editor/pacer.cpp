#include "editor/pacer.h"

#include <algorithm>

#include "av_toolbox/time_util.h"

namespace lum {

bool Pacer::WaitUntil(int64_t due_ms) {
  // A broken time stamp may lie centuries ahead, which the clock's own unit cannot hold.
  constexpr int64_t kLongestWaitMs = int64_t{1000} * 60 * 60 * 24 * 365;
  using std::chrono::milliseconds;
  const auto passed =
      std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start_);
  std::unique_lock<std::mutex> lock(mutex_);
  if (due_ms > passed.count()) {
    const milliseconds wait(std::min(WrappingSub(due_ms, passed.count()), kLongestWaitMs));
    wake_.wait_for(lock, wait, [this] { return ended(); });
  }
  return !ended_;
}

void Pacer::End() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
  }
  wake_.notify_all();
}

}  // namespace lum
