// What to say when the process ends in the middle of its work.
#ifndef MOTRACE_UTILS_LAST_WORDS_H_
#define MOTRACE_UTILS_LAST_WORDS_H_

#include <string>

/// Keeps a text that goes to standard error when the process ends before `Clear`: by a failed check
/// (`exit`), or by memory or threads that ran out where nobody could catch the exception, which
/// then ends the process as a failed check does, with exit code 1, instead of by a signal.
///
/// Threads: `Set` and `Clear` belong to main(), before and after the work.
namespace LastWords {

/// @throws std::bad_alloc
void Set(const std::string& text);
void Clear();

}  // namespace LastWords

#endif  // MOTRACE_UTILS_LAST_WORDS_H_
