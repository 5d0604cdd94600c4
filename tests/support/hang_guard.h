#ifndef MOTRACE_TESTS_SUPPORT_HANG_GUARD_H_
#define MOTRACE_TESTS_SUPPORT_HANG_GUARD_H_

#include <unistd.h>

#include <chrono>
#include <string>

namespace motrace::testing {

/// Unless it is destroyed within the limit, a signal ends the process. One at a time.
class HangGuard {
 public:
  explicit HangGuard(const std::string& /*what*/,
                     std::chrono::seconds limit = std::chrono::seconds(120)) {
    alarm(static_cast<unsigned>(limit.count()));
  }
  ~HangGuard() { alarm(0); }
  HangGuard(const HangGuard&) = delete;
  HangGuard& operator=(const HangGuard&) = delete;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_HANG_GUARD_H_
