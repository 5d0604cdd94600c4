#include "utils/memory_reserve.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// Plain memory of the C library, as it must be freed while the heap is exhausted.
std::atomic<void*> held{nullptr};
std::atomic<bool> spent{false};

// Returning makes operator new try again.
void GiveBack() {
  void* const memory = held.exchange(nullptr);
  spent = true;
  if (memory == nullptr) throw std::bad_alloc();
  std::free(memory);
}

}  // namespace

MemoryReserve::MemoryReserve(size_t bytes) {
  spent = false;
  held = std::malloc(bytes);
  std::set_new_handler(GiveBack);
}

MemoryReserve::~MemoryReserve() {
  std::set_new_handler(nullptr);
  std::free(held.exchange(nullptr));
}

bool MemoryReserve::Spent() { return spent.load(std::memory_order_relaxed); }
