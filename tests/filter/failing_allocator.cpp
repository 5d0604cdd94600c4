#include "failing_allocator.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace motrace::testing {

std::atomic<bool> memory_is_out{false};

}  // namespace motrace::testing

void* operator new(std::size_t size) {
  constexpr std::size_t kSmall = 400;
  void* memory = motrace::testing::memory_is_out && size >= kSmall ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
