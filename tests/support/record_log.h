#ifndef MOTRACE_TESTS_SUPPORT_RECORD_LOG_H_
#define MOTRACE_TESTS_SUPPORT_RECORD_LOG_H_

#include <array>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "base/log_message.h"

namespace motrace::testing {

/// One log record, without its thread and time.
struct LoggedRecord {
  std::string level;
  std::string site;  ///< file:line
  std::string text;

  friend bool operator==(const LoggedRecord& a, const LoggedRecord& b) {
    return std::tie(a.level, a.site, a.text) == std::tie(b.level, b.site, b.text);
  }
  friend std::ostream& operator<<(std::ostream& out, const LoggedRecord& record) {
    return out << '[' << record.level << "][" << record.site << ']' << record.text;
  }
};

/// Keeps the records written in its scope, through the log's second copy. One at a time; records
/// of any thread are kept.
class RecordLog {
 public:
  RecordLog() {
    const std::lock_guard<std::mutex> lock(lum::GetLogSink().mutex);
    lum::GetLogSink().file = std::tmpfile();
  }
  ~RecordLog() {
    const std::lock_guard<std::mutex> lock(lum::GetLogSink().mutex);
    std::fclose(lum::GetLogSink().file);
    lum::GetLogSink().file = nullptr;
  }
  RecordLog(const RecordLog&) = delete;
  RecordLog& operator=(const RecordLog&) = delete;

  /// What was written so far. A line that does not begin as a record belongs to the one before it.
  [[nodiscard]] std::vector<LoggedRecord> Records() const {
    static const std::regex kRecord(
        R"(\[(VERBOSE|INFO|WARNING|ERROR)\]\[0x[0-9a-f]+\]\[[^\]]*\]\[([^\]]*)\](.*))");
    std::vector<LoggedRecord> records;
    std::string line;
    for (const char c : Text()) {
      if (c != '\n') {
        line += c;
        continue;
      }
      std::smatch match;
      if (std::regex_match(line, match, kRecord)) {
        records.push_back({match[1], match[2], match[3]});
      } else if (!records.empty()) {
        records.back().text += '\n' + line;
      }
      line.clear();
    }
    return records;
  }

 private:
  static std::string Text() {
    const std::lock_guard<std::mutex> lock(lum::GetLogSink().mutex);
    std::FILE* file = lum::GetLogSink().file;
    std::string text;
    std::array<char, 4096> block{};
    std::rewind(file);
    while (const size_t read = std::fread(block.data(), 1, block.size(), file)) {
      text.append(block.data(), read);
    }
    std::fseek(file, 0, SEEK_END);  // where the log goes on
    return text;
  }
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_RECORD_LOG_H_
