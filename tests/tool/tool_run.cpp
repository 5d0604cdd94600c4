#include "tool/tool_run.h"

#include <algorithm>
#include <regex>
#include <sstream>

namespace motrace::testing {

namespace fs = std::filesystem;

ProcessResult RunTool(const std::vector<std::string>& arguments, const ProcessOptions& options) {
  std::vector<std::string> command{MOTRACE_TOOL_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  ProcessResult result = RunProcess(command, options);
  EXPECT_FALSE(result.timed_out) << "the tool hangs; standard output so far:\n" << result.out;
  EXPECT_EQ(result.signal, 0) << result.err;
  return result;
}

namespace {

/// Takes "[level][0xthread][time][site]text" apart and checks the four fields.
bool ParseRecord(const std::string& line, OutputLine& record) {
  static const std::regex kRecord(R"(\[(VERBOSE|INFO|WARNING|ERROR)\]\[0x[1-9a-f][0-9a-f]*\])"
                                  R"(\[\d\d-\d\d \d\d:\d\d:\d\d\.(?:0|[1-9]\d{0,2})\])"
                                  R"(\[([^\\\]]+:\d+)\](.*))");
  std::smatch match;
  if (!std::regex_match(line, match, kRecord)) return false;
  record = {match[1], match[2], match[3]};
  return true;
}

}  // namespace

std::vector<OutputLine> ParseOutput(const std::string& standard_output) {
  std::vector<OutputLine> lines;
  std::istringstream stream(standard_output);
  for (std::string line; std::getline(stream, line);) {
    OutputLine record;
    if (ParseRecord(line, record)) {
      lines.push_back(record);
    } else if (line == "Start to parse motion metadata...") {
      lines.push_back({"", "", line});
    } else if (!line.empty() || lines.empty() || lines.back().text.rfind("FFmpeg:", 0) != 0) {
      ADD_FAILURE() << "no log record: \"" << line << "\"";
    }
  }
  EXPECT_TRUE(standard_output.empty() || standard_output.back() == '\n');
  return lines;
}

std::vector<std::string> Texts(const std::vector<OutputLine>& lines) {
  std::vector<std::string> texts;
  texts.reserve(lines.size());
  for (const OutputLine& line : lines) texts.push_back(line.text);
  return texts;
}

::testing::AssertionResult SameFiles(const std::map<std::string, Bytes>& expected,
                                     const std::map<std::string, Bytes>& actual) {
  std::ostringstream faults;
  for (const auto& [name, content] : expected) {
    const auto found = actual.find(name);
    if (found == actual.end()) {
      faults << "\n  missing: " << name;
    } else if (found->second != content) {
      const Bytes& got = found->second;
      const auto first =
          std::mismatch(content.begin(), content.end(), got.begin(), got.end()).first;
      faults << "\n  differs: " << name << " at byte " << first - content.begin() << " (expected "
             << content.size() << " bytes, got " << got.size() << ")";
    }
  }
  for (const auto& [name, content] : actual) {
    if (expected.count(name) == 0) faults << "\n  unexpected: " << name;
  }
  if (faults.str().empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << faults.str();
}

void ExpectPlainExtraction(const fs::path& input,
                           const ::testing::Matcher<const std::string&>& standard_error) {
  TempDir out;
  const ProcessResult run = RunTool({input.string(), out.path().string()});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.err, standard_error);
  EXPECT_THAT(Texts(ParseOutput(run.out)), ::testing::Contains("pipe run over..."));

  const auto packets = ReadDataStream(input);
  ASSERT_TRUE(packets.has_value());
  EXPECT_TRUE(SameFiles(ExtractPlainly(*packets).Files(), ReadDirectory(out.path())));
  if (::testing::Test::HasFailure()) out.Keep();
}

}  // namespace motrace::testing
