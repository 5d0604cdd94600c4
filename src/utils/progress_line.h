// A line on a terminal that shows how far a run has come.
#ifndef MOTRACE_UTILS_PROGRESS_LINE_H_
#define MOTRACE_UTILS_PROGRESS_LINE_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

/// Redraws "motrace: 42 %" on standard error twice a second, from half a second after construction
/// until destruction, which erases it. Draws nothing where standard error is no terminal.
///
/// Owns a thread; `fraction` is called on it.
class ProgressLine {
 public:
  /// @param fraction the part done, 0 to 1; any thread.
  explicit ProgressLine(std::function<double()> fraction);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  void Draw();

  std::function<double()> fraction_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool over_ = false;   // guarded by mutex_
  std::thread thread_;  // last: starts after everything it uses exists
};

#endif  // MOTRACE_UTILS_PROGRESS_LINE_H_
