#include "base/log_message.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <locale>
#include <new>

namespace lum {
namespace {

constexpr std::array<const char*, 4> kLevelNames = {"VERBOSE", "INFO", "WARNING", "ERROR"};

uint32_t CurrentThreadId() {
  // The kernel's id never changes within a thread, and asking for it is a system call.
  thread_local const auto id = static_cast<uint32_t>(gettid());
  return id;
}

std::string ShortFileName(const std::string& file) {
  const size_t backslash = file.rfind('\\');
  return backslash == std::string::npos ? file : file.substr(backslash + 1);
}

// One call of the sink a record, so that lines of several threads stay whole.
void Write(const std::string& text) {
  LogSink& sink = GetLogSink();
  const std::lock_guard<std::mutex> lock(sink.mutex);
  if (!sink.console_off) {
    std::fwrite(text.data(), 1, text.size(), sink.use_stderr ? stderr : stdout);
  }
  if (sink.file != nullptr) {
    std::fwrite(text.data(), 1, text.size(), sink.file);
    std::fflush(sink.file);
  }
}

}  // namespace

LogConfig& GetLogConfig() {
  static LogConfig config;
  return config;
}

LogSink::~LogSink() {
  const std::lock_guard<std::mutex> lock(mutex);  // a thread may still log while the process exits
  if (file != nullptr) std::fclose(file);
  file = nullptr;
}

LogSink& GetLogSink() {
  static LogSink sink;
  return sink;
}

LogMessage::LogMessage(const std::string& file, const std::string& /*function*/, int32_t line,
                       int32_t level)
    : fatal_(false), level_(level) {
  AppendHeader();
  *this << '[' << ShortFileName(file) << ':' << line << ']';
}

LogMessage::LogMessage(const std::string& condition, const std::string& file,
                       const std::string& /*function*/, int32_t line)
    : fatal_(true), level_(static_cast<int32_t>(LogLevel::kError)) {
  AppendHeader();
  *this << "[Check failed (" << condition << ") " << ShortFileName(file) << ':' << line << ']';
}

void LogMessage::AppendHeader() {
  imbue(std::locale::classic());  // numbers are plain, whatever the program's locale

  const int64_t now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
  const auto seconds = static_cast<std::time_t>(now_ms / 1000);
  std::tm local{};
  localtime_r(&seconds, &local);
  std::array<char, 64> date{};
  std::strftime(date.data(), date.size(), "%m-%d %T", &local);

  *this << '[' << kLevelNames[static_cast<size_t>(level_)] << "][0x" << std::hex
        << CurrentThreadId() << std::dec << "][" << date.data() << '.' << now_ms % 1000 << ']';
}

LogMessage::~LogMessage() {
  try {
    clear();  // also a record whose stream went bad ends its line
    *this << '\n';
    Write(str());
  } catch (const std::bad_alloc&) {  // a record less; what the process does goes on
  }
  if (fatal_) std::exit(1);  // NOLINT(concurrency-mt-unsafe): a failed check ends everything
}

}  // namespace lum
