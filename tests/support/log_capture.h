// Collects the log records that a test causes.
#ifndef MOTRACE_TESTS_SUPPORT_LOG_CAPTURE_H_
#define MOTRACE_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <cstdio>
#include <cstdlib>
#include <mutex>
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

/// From construction to destruction, a copy of every record of the process. Any thread.
class LogCapture {
 public:
  LogCapture() : stream_(open_memstream(&buffer_, &size_)) {
    lum::LogSink& sink = lum::GetLogSink();
    const std::lock_guard<std::mutex> lock(sink.mutex);
    previous_ = sink.file;
    sink.file = stream_;
  }
  ~LogCapture() {
    {
      lum::LogSink& sink = lum::GetLogSink();
      const std::lock_guard<std::mutex> lock(sink.mutex);
      sink.file = previous_;
    }
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

  [[nodiscard]] std::vector<LogRecord> Records() const {
    std::vector<LogRecord> records;
    const std::string text = Text();
    for (size_t begin = 0; begin < text.size();) {
      const size_t end = text.find('\n', begin);
      records.push_back(Parse(text.substr(begin, end - begin)));
      begin = end + 1;
    }
    return records;
  }

  /// Every record as "LEVEL file:line text".
  [[nodiscard]] std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const LogRecord& record : Records()) {
      lines.push_back(record.level + ' ' + record.site + ' ' + record.text);
    }
    return lines;
  }

  /// `Lines` of one source file.
  [[nodiscard]] std::vector<std::string> LinesOf(const std::string& file) const {
    std::vector<std::string> lines;
    for (const LogRecord& record : Records()) {
      if (record.site.compare(0, file.size() + 1, file + ':') != 0) continue;
      lines.push_back(record.level + ' ' + record.site + ' ' + record.text);
    }
    return lines;
  }

 private:
  static LogRecord Parse(const std::string& line) {
    LogRecord record;
    size_t at = 0;
    for (std::string* field : {&record.level, &record.thread, &record.time, &record.site}) {
      const size_t close = line.find(']', at);
      if (at >= line.size() || line[at] != '[' || close == std::string::npos) {
        return {"not a record", "", "", "", line};
      }
      *field = line.substr(at + 1, close - at - 1);
      at = close + 1;
    }
    record.text = line.substr(at);
    return record;
  }

  char* buffer_ = nullptr;
  size_t size_ = 0;
  std::FILE* stream_;
  std::FILE* previous_ = nullptr;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_LOG_CAPTURE_H_
