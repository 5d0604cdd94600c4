#include "utils/last_words.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>

namespace LastWords {
namespace {

std::atomic<const std::string*> words{nullptr};
std::terminate_handler previous = nullptr;

// Neither allocates nor buffers: there may be no memory, and nothing is flushed afterwards.
void Say() {
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
    Say();
    _exit(EXIT_FAILURE);
  } catch (const std::system_error&) {
    Say();
    _exit(EXIT_FAILURE);
  } catch (...) {  // a fault of the program: whoever looks for it wants the core
  }
  Say();
  if (previous != nullptr) previous();
  std::abort();
}

}  // namespace

void Set(const std::string& text) {
  static std::string kept;
  kept = text;
  words = &kept;
  static std::once_flag installed;
  std::call_once(installed, [] {
    std::atexit(Say);
    previous = std::set_terminate(OnTerminate);
  });
}

void Clear() { words = nullptr; }

}  // namespace LastWords
