// A line on a terminal that shows how far a run has come.
#ifndef MOTRACE_PROGRESS_LINE_H_
#define MOTRACE_PROGRESS_LINE_H_

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <thread>

namespace lum::vela {

/// Redraws "motrace: 42 %" once an interval, from the first one's end until destruction, which
/// erases it.
///
/// Owns a thread; `fraction` is called on it.
class ProgressLine {
 public:
  /// The stream itself where it is a terminal, else null.
  static std::FILE* IfTerminal(std::FILE* stream);

  /// @param out where to draw; null draws nothing, without a thread.
  /// @param fraction the part done, 0 to 1; any thread.
  ProgressLine(std::FILE* out, std::chrono::milliseconds interval,
               std::function<double()> fraction);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  void Draw();

  std::FILE* const out_;
  const std::chrono::milliseconds interval_;
  const std::function<double()> fraction_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool over_ = false;   // guarded by mutex_
  std::thread thread_;  // last: starts after everything it uses exists
};

}  // namespace lum::vela

#endif  // MOTRACE_PROGRESS_LINE_H_
