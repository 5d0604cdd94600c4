#ifndef MOTRACE_TESTS_TOOL_TOOL_RUN_H_
#define MOTRACE_TESTS_TOOL_TOOL_RUN_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "support/plain_extraction.h"
#include "support/samples.h"
#include "support/subprocess.h"
#include "support/temp_dir.h"

/// Running the built tool and judging what it left behind.
namespace motrace::testing {

/// Runs `motrace arguments...`. A run that hangs or dies of a signal fails the current test.
ProcessResult RunTool(const std::vector<std::string>& arguments,
                      const ProcessOptions& options = {});

/// One line of standard output. The start line, which is no log record, has no level and no site.
struct OutputLine {
  std::string level;  ///< VERBOSE, INFO, WARNING, ERROR
  std::string site;   ///< file:line
  std::string text;

  friend bool operator==(const OutputLine& a, const OutputLine& b) {
    return a.level == b.level && a.site == b.site && a.text == b.text;
  }
  friend std::ostream& operator<<(std::ostream& out, const OutputLine& line) {
    return out << "[" << line.level << "][" << line.site << "]" << line.text;
  }
};

/// Takes standard output apart. Anything but log records, the start line and the line feed that
/// ends an FFmpeg message fails the current test.
std::vector<OutputLine> ParseOutput(const std::string& standard_output);

/// The texts only.
std::vector<std::string> Texts(const std::vector<OutputLine>& lines);

/// Every file as expected, none missing, none besides; says which file differs, and where.
::testing::AssertionResult SameFiles(const std::map<std::string, Bytes>& expected,
                                     const std::map<std::string, Bytes>& actual);

/// Extracts `input` into a new directory and compares the eight files with the plain extraction of
/// what libavformat reads from the file. The exit code must be 0, and standard error must match.
void ExpectPlainExtraction(
    const std::filesystem::path& input,
    const ::testing::Matcher<const std::string&>& standard_error = ::testing::IsEmpty());

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_TOOL_TOOL_RUN_H_
