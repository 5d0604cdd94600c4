#ifndef MOTRACE_TESTS_TOOL_TOOL_RUN_H_
#define MOTRACE_TESTS_TOOL_TOOL_RUN_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/plain_extraction.h"
#include "support/samples.h"
#include "support/subprocess.h"
#include "support/temp_dir.h"

/// Running the built tool, and judging what it left behind.
namespace motrace::testing {

/// A camm track of `instants` at 200 Hz, every sample a packet of its own and of a type that is
/// read.
Mp4Track MotionTrack(std::uint32_t timescale = 90000, int instants = 200, int hertz = 200);

/// Runs `before` ("ulimit -f 16;"), `motrace arguments...` and `after` ("2>&-") as one line of a
/// shell. A run that hangs or dies of a signal fails the current test.
ProcessResult RunTool(const std::vector<std::string>& arguments, const std::string& before = "",
                      const std::string& after = "");

/// The names of the files that are in one of them only, or are not the same in both.
std::set<std::string> DifferingFiles(const std::map<std::string, Bytes>& some,
                                     const std::map<std::string, Bytes>& others);

/// Extracts `input` into a new directory and compares the eight files with the plain extraction of
/// what libavformat reads from the file. The exit code must be 0, and standard error must match.
void ExpectPlainExtraction(
    const std::filesystem::path& input,
    const ::testing::Matcher<const std::string&>& standard_error = ::testing::IsEmpty());

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_TOOL_TOOL_RUN_H_
