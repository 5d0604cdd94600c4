// What the process itself needs while an extraction runs.
#ifndef MOTRACE_PROCESS_GUARD_H_
#define MOTRACE_PROCESS_GUARD_H_

#include <string>

namespace lum::vela {

/// Keeps the process in order around one piece of work, so that none ends without a word:
///
/// - Closed standard streams are opened on /dev/null. The next file opened would take their number,
///   and log text would end up in an output file.
/// - SIGPIPE and SIGXFSZ are ignored: a log without a reader must not cost the work, and a limit on
///   the size of files becomes a failed write that can be named.
/// - The allocator is set up for short-lived packets, and the unwinder is loaded: an exception that
///   says that memory ran out could not load it any more.
/// - 4 MiB are kept back and given up when an allocation fails for the first time. What was
///   collected can then still be written, and what was lost be named. What collects data asks
///   `OutOfMemory` and stops. Without memory for the reserve the guard does without it.
/// - A text goes to standard error when the process ends before the guard: by a failed check
///   (`exit`), or by memory or threads that ran out where the exception cannot be caught. That ends
///   the process as a failed check does, with exit code 1, instead of by a signal.
///
/// One per process at a time, in main() and before it starts threads. Signals, descriptors and the
/// allocator stay as they are when it goes.
class ProcessGuard {
 public:
  /// @param last_words what to say when the process ends too early.
  explicit ProcessGuard(std::string last_words);
  ~ProcessGuard();
  ProcessGuard(const ProcessGuard&) = delete;
  ProcessGuard& operator=(const ProcessGuard&) = delete;

  /// An allocation has failed in this process. Any thread.
  [[nodiscard]] static bool OutOfMemory();

 private:
  const std::string last_words_;
};

}  // namespace lum::vela

#endif  // MOTRACE_PROCESS_GUARD_H_
