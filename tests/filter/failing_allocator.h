#ifndef MOTRACE_TESTS_FILTER_FAILING_ALLOCATOR_H_
#define MOTRACE_TESTS_FILTER_FAILING_ALLOCATOR_H_

#include <atomic>

namespace motrace::testing {

/// While it is set, this program's `new` finds no memory for anything but small objects (400
/// bytes).
extern std::atomic<bool> memory_is_out;

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_FILTER_FAILING_ALLOCATOR_H_
