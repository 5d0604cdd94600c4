// Memory kept back for ending a run in order.
#ifndef MOTRACE_UTILS_MEMORY_RESERVE_H_
#define MOTRACE_UTILS_MEMORY_RESERVE_H_

#include <cstddef>

/// Takes memory that is given back when an allocation fails for the first time: what was collected
/// can then still be written, and what was lost be named. Whoever collects data asks `Spent` and
/// stops.
///
/// One per process at a time, for a program's main(): it installs the process's new-handler while
/// it lives. Without memory for the reserve itself there is none, which is no error. Threads: made
/// and destroyed on one thread; the handler and `Spent` serve any.
class MemoryReserve {
 public:
  explicit MemoryReserve(size_t bytes);
  ~MemoryReserve();
  MemoryReserve(const MemoryReserve&) = delete;
  MemoryReserve& operator=(const MemoryReserve&) = delete;

  /// An allocation has failed in this process. Any thread.
  static bool Spent();
};

#endif  // MOTRACE_UTILS_MEMORY_RESERVE_H_
