// How long and with which random moments the stress tests run.
#ifndef MOTRACE_TESTS_STRESS_STRESS_TESTING_H_
#define MOTRACE_TESTS_STRESS_STRESS_TESTING_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace motrace::testing {

inline uint32_t FromEnvironment(const char* name, uint32_t otherwise) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets any
  return value == nullptr ? otherwise : static_cast<uint32_t>(std::stoul(value));
}

/// `rounds`, times MOTRACE_STRESS_FACTOR.
inline int Rounds(int rounds) {
  return rounds * static_cast<int>(FromEnvironment("MOTRACE_STRESS_FACTOR", 1));
}

/// A time that so many rounds never take.
inline std::chrono::seconds HangLimit() { return std::chrono::seconds(Rounds(250)); }

/// MOTRACE_STRESS_SEED; goes into the trace of a failing test.
inline uint32_t Seed() { return FromEnvironment("MOTRACE_STRESS_SEED", 20240229); }

/// Random numbers and moments of one thread.
class Chance {
 public:
  explicit Chance(uint32_t seed) : engine_(seed) {}

  /// 0 to `limit` - 1.
  uint32_t Below(uint32_t limit) { return Next() % limit; }
  uint32_t Next() { return static_cast<uint32_t>(engine_()); }
  /// Lets a little time pass: mostly well below 100 microseconds, at times nothing at all.
  void Dawdle() {
    std::atomic<uint32_t> turns{Below(4) == 0 ? 0 : Below(30'000)};
    while (turns > 0) --turns;
  }

 private:
  std::mt19937 engine_;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_STRESS_STRESS_TESTING_H_
