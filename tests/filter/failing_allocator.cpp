// In a file of its own, where the static analyzer can follow the tests.
#include <atomic>
#include <cstdlib>
#include <new>

/// While it is set, this program's `new` finds no memory for anything but small objects.
std::atomic<bool> memory_is_out{false};

void* operator new(std::size_t size) {
  constexpr std::size_t kSmall = 400;
  void* memory = memory_is_out && size >= kSmall ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
