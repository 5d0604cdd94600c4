// The log record behind every logging statement, and the fatal checks.
//
// A record is one line on standard output:
//   [LEVEL][0xTHREAD][MM-DD HH:MM:SS.ms][file:line]text
//
// Statements are written with the macros at the end of this file:
//   LUM_LOG(kInfo) << "opened " << name;
//   LUM_LOG_AT(kError, site::kOpenFailed) << reason;
//   LUM_CHECK(ptr != nullptr) << "no memory for a packet";
#ifndef QVXMEDIA_BASE_LOG_MESSAGE_H_
#define QVXMEDIA_BASE_LOG_MESSAGE_H_

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <string>

namespace lum {

/// Severity of a record. A failed check is a `kError` record that ends the process.
enum class LogLevel : int32_t { kVerbose = 0, kInfo = 1, kWarning = 2, kError = 3 };

/// Process-wide logging configuration. Any thread may read or write it.
struct LogConfig {
  std::string name;                   ///< The program's to use; the library never reads it.
  std::atomic<int32_t> min_level{0};  ///< Statements below this level build nothing.
};

/// Where records go. Any thread may write through it; `mutex` serialises the writers.
struct LogSink {
  LogSink() = default;
  ~LogSink();
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;

  std::FILE* file = nullptr;  ///< Optional second copy, flushed after each record; owned. Guarded.
  std::mutex mutex;
  /// Writes the console copy to standard error instead of standard output.
  std::atomic<bool> use_stderr{false};
  /// Leaves the console copy out; `file` still gets every record.
  std::atomic<bool> console_off{false};
};

/// The configuration, created on first use. Any thread.
LogConfig& GetLogConfig();
/// The sink, created on first use. Any thread.
LogSink& GetLogSink();

/// True when a statement of `level` is to be written.
inline bool LogEnabled(LogLevel level) {
  return GetLogConfig().min_level.load(std::memory_order_relaxed) <= static_cast<int32_t>(level);
}

/// A place in the source that records name. Where a record's place is part of the log format it is
/// kept in a table, so that moving the statement changes no record.
struct LogSite {
  const char* file;
  int32_t line;
};

/// One record: collects text as a stream and writes itself, as one line, when it is destroyed.
///
/// Threads: a record belongs to the thread that builds it; whole lines of several threads never
/// interleave.
/// Errors: failures to write are ignored. A record built by the check constructor ends the process
/// with `exit(1)` after it was written.
class LogMessage : public std::ostringstream {
 public:
  /// @param file source path; the part after its last backslash is printed.
  /// @param function accepted, not printed.
  /// @param level the value of a `LogLevel`.
  LogMessage(const std::string& file, const std::string& function, int32_t line, int32_t level);
  /// A failed check: level `kError`, fatal.
  /// @param condition text of the condition that did not hold.
  LogMessage(const std::string& condition, const std::string& file, const std::string& function,
             int32_t line);
  ~LogMessage() override;
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  /// The record as an lvalue, so that the first `<<` of a temporary finds every overload.
  std::ostream& stream() { return *this; }

 private:
  void AppendHeader();

  bool fatal_;
  int32_t level_;
};

}  // namespace lum

// The switch makes each macro one statement, safe after an `if` without braces. What is streamed is
// evaluated only when the record is written. The function's name comes from the builtin (GCC,
// clang), as linters take `__func__` in a lambda for a mistake.
#define LUM_LOG_IMPL_(level, file, line) \
  switch (0)                             \
  case 0:                                \
  default:                               \
    if (!::lum::LogEnabled(level)) {     \
    } else                               \
      ::lum::LogMessage(file, __builtin_FUNCTION(), line, static_cast<int32_t>(level)).stream()

/// A statement at the place where it stands. `level` is an enumerator of `lum::LogLevel`.
#define LUM_LOG(level) LUM_LOG_IMPL_(::lum::LogLevel::level, __FILE__, __LINE__)

/// A statement that names the `lum::LogSite` given.
#define LUM_LOG_AT(level, site) LUM_LOG_IMPL_(::lum::LogLevel::level, (site).file, (site).line)

#define LUM_CHECK_IMPL_(condition, text, file, line) \
  switch (0)                                         \
  case 0:                                            \
  default:                                           \
    if (condition) {                                 \
    } else                                           \
      ::lum::LogMessage(text, file, __builtin_FUNCTION(), line).stream()

/// Ends the process with an ERROR record when `condition` does not hold, whatever the minimum
/// level.
#define LUM_CHECK(condition) LUM_CHECK_IMPL_(condition, #condition, __FILE__, __LINE__)

/// `LUM_CHECK` that names the `lum::LogSite` given.
#define LUM_CHECK_AT(condition, site) \
  LUM_CHECK_IMPL_(condition, #condition, (site).file, (site).line)

#endif  // QVXMEDIA_BASE_LOG_MESSAGE_H_
