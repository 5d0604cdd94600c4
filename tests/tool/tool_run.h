#ifndef MOTRACE_TESTS_TOOL_TOOL_RUN_H_
#define MOTRACE_TESTS_TOOL_TOOL_RUN_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/plain_extraction.h"
#include "support/samples.h"
#include "support/subprocess.h"
#include "support/temp_dir.h"

/// Files to extract, running the built tool, and judging what it left behind.
namespace motrace::testing {

/// One second of H.264 with B-frames (first decode time below zero), encoded once per process.
const EncodedStream& SharedVideo();
/// One second of AAC with priming, encoded once per process.
const EncodedStream& SharedAudio();
/// The shared streams as tracks with the usual time scales.
Mp4Track VideoTrack();
Mp4Track AudioTrack();
/// A camm track of `instants` at 200 Hz, every sample a packet of its own and of a type that is
/// read.
Mp4Track MotionTrack(std::uint32_t timescale = 90000, int instants = 200, int hertz = 200);
/// A file of such a track alone.
void WriteMotion(const std::filesystem::path& path, int instants = 200);
/// A camm track of one packet each, 10 ms apart.
Mp4Track PacketTrack(const std::vector<Bytes>& packets);

/// Runs `before` ("ulimit -f 16;"), `motrace arguments...` and `after` ("2>&-") as one line of a
/// shell. A run that hangs or dies of a signal fails the current test.
ProcessResult RunTool(const std::vector<std::string>& arguments, const std::string& before = "",
                      const std::string& after = "");

/// The log on standard output, a line "LEVEL place text" for each record, by thread; the threads in
/// the order in which they came. The start line and the line feed that ends an FFmpeg message count
/// for the thread before them. Anything else fails the current test.
std::vector<std::vector<std::string>> LogOf(const std::string& standard_output);

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
