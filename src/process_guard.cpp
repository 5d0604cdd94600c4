#include "process_guard.h"

#include <execinfo.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

namespace lum::vela {
namespace {

// Room for the thread stacks' first pages, the log and the writing of what was collected.
constexpr size_t kReserve = size_t{4} * 1024 * 1024;

// Plain memory of the C library, as it must be freed while the heap is exhausted.
std::atomic<void*> reserve{nullptr};
std::atomic<bool> out_of_memory{false};

std::atomic<const std::string*> words{nullptr};
std::terminate_handler previous_terminate = nullptr;

void OccupyStandardDescriptors() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd >= 0) close(fd);
}

// Every packet's buffer is a short-lived allocation of FFmpeg's at the heap's top. With glibc's
// fast bins each such free consolidates the heap; without them a run takes a fifth less.
//
// A thread's own arena reserves 64 MiB of addresses. Under a limit that refuses them, glibc asks
// again for every packet, so that one arena serves all threads there.
void TuneAllocatorForPackets() {
#if defined(M_MXFAST) && defined(M_ARENA_MAX)
  mallopt(M_MXFAST, 0);  // NOLINT(concurrency-mt-unsafe): before any thread
  rlimit addresses{};
  if (getrlimit(RLIMIT_AS, &addresses) == 0 && addresses.rlim_cur != RLIM_INFINITY) {
    mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe)
  }
#endif
}

// The C library loads its own handle of the unwinder when it first needs one, and aborts when there
// is no memory for that.
void LoadUnwinder() {
  void* frame = nullptr;
  backtrace(&frame, 1);
}

// The process's new-handler: returning makes operator new try again.
void GiveBackReserve() {
  void* const memory = reserve.exchange(nullptr);
  out_of_memory = true;
  if (memory == nullptr) throw std::bad_alloc();
  std::free(memory);
}

// Neither allocates nor buffers: there may be no memory, and nothing is flushed afterwards.
void SayLastWords() {
  const std::string* text = words.exchange(nullptr);
  if (text == nullptr) return;
  size_t said = 0;
  while (said < text->size()) {
    const ssize_t n = write(STDERR_FILENO, text->data() + said, text->size() - said);
    if (n <= 0) return;
    said += static_cast<size_t>(n);
  }
}

[[noreturn]] void OnTerminate() {
  try {
    if (const std::exception_ptr thrown = std::current_exception()) std::rethrow_exception(thrown);
  } catch (const std::bad_alloc&) {
    SayLastWords();
    _exit(EXIT_FAILURE);
  } catch (const std::system_error&) {
    SayLastWords();
    _exit(EXIT_FAILURE);
  } catch (...) {  // a fault of the program: looking for it needs the core
  }
  SayLastWords();
  if (previous_terminate != nullptr) previous_terminate();
  std::abort();
}

}  // namespace

ProcessGuard::ProcessGuard(std::string last_words) : last_words_(std::move(last_words)) {
  OccupyStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  TuneAllocatorForPackets();
  LoadUnwinder();
  out_of_memory = false;
  reserve = std::malloc(kReserve);
  std::set_new_handler(GiveBackReserve);
  words = &last_words_;
  static std::once_flag installed;
  std::call_once(installed, [] {
    std::atexit(SayLastWords);
    previous_terminate = std::set_terminate(OnTerminate);
  });
}

ProcessGuard::~ProcessGuard() {
  words = nullptr;
  std::set_new_handler(nullptr);
  std::free(reserve.exchange(nullptr));
}

bool ProcessGuard::OutOfMemory() { return out_of_memory.load(std::memory_order_relaxed); }

}  // namespace lum::vela
