// Settings of the C library's allocator.
#ifndef MOTRACE_UTILS_ALLOCATOR_H_
#define MOTRACE_UTILS_ALLOCATOR_H_

#include <malloc.h>
#include <sys/resource.h>

/// Sets the allocator up for reading packets. For a program's main(), before it starts threads.
///
/// Every packet's buffer is a short-lived allocation of FFmpeg's at the heap's top. With glibc's
/// fast bins each such free consolidates the heap; without them a run takes a fifth less.
///
/// A thread's own arena reserves 64 MiB of addresses. Under a limit that refuses them, glibc asks
/// again for every packet, so that one arena serves all threads there.
inline void TuneAllocatorForPackets() {
#if defined(M_MXFAST) && defined(M_ARENA_MAX)
  mallopt(M_MXFAST, 0);  // NOLINT(concurrency-mt-unsafe): before any thread
  rlimit addresses{};
  if (getrlimit(RLIMIT_AS, &addresses) == 0 && addresses.rlim_cur != RLIM_INFINITY) {
    mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe)
  }
#endif
}

#endif  // MOTRACE_UTILS_ALLOCATOR_H_
