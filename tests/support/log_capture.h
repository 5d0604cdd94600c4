// Collects the log records that a test causes.
#ifndef MOTRACE_TESTS_SUPPORT_LOG_CAPTURE_H_
#define MOTRACE_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "base/log_message.h"

namespace motrace::testing {

/// One record, taken apart.
struct LogRecord {
  std::string level;
  std::string thread;  ///< "0x" and the id in hexadecimal
  std::string time;
  std::string site;  ///< "file:line"; of a failed check also its condition
  std::string text;
};

/// A line that does not begin as a record belongs to the one before it.
inline std::vector<LogRecord> ParseLog(const std::string& log) {
  static const std::regex kRecord(R"(\[(VERBOSE|INFO|WARNING|ERROR)\]\[(0x[1-9a-f][0-9a-f]*)\])"
                                  R"(\[(\d\d-\d\d \d\d:\d\d:\d\d\.(?:0|[1-9]\d{0,2}))\])"
                                  R"(\[([^\]]*:\d+[^\]]*)\](.*))");
  std::vector<LogRecord> records;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (std::regex_match(line, match, kRecord)) {
      records.push_back({match[1], match[2], match[3], match[4], match[5]});
    } else {
      if (records.empty()) records.emplace_back();
      records.back().text += '\n' + line;
    }
  }
  return records;
}

/// From construction to destruction, a copy of every record of the process. Any thread.
class LogCapture {
 public:
  LogCapture() : stream_(open_memstream(&buffer_, &size_)) { previous_ = Exchange(stream_); }
  ~LogCapture() {
    Exchange(previous_);
    std::fclose(stream_);
    std::free(buffer_);  // NOLINT(*-no-malloc): open_memstream's buffer
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// All bytes written.
  [[nodiscard]] std::string Text() const {
    const std::lock_guard<std::mutex> lock(lum::GetLogSink().mutex);
    return {buffer_, size_};
  }

  [[nodiscard]] std::vector<LogRecord> Records() const { return ParseLog(Text()); }

  /// Every record as "LEVEL file:line text"; of one source file, if one is named.
  [[nodiscard]] std::vector<std::string> Lines(const std::string& file = "") const {
    std::vector<std::string> lines;
    for (const LogRecord& record : Records()) {
      if (!file.empty() && record.site.rfind(file + ':', 0) != 0) continue;
      lines.push_back(record.level + ' ' + record.site + ' ' + record.text);
    }
    return lines;
  }

 private:
  static std::FILE* Exchange(std::FILE* file) {
    lum::LogSink& sink = lum::GetLogSink();
    const std::lock_guard<std::mutex> lock(sink.mutex);
    std::swap(sink.file, file);
    return file;
  }

  char* buffer_ = nullptr;
  size_t size_ = 0;
  std::FILE* stream_;
  std::FILE* previous_ = nullptr;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_LOG_CAPTURE_H_
