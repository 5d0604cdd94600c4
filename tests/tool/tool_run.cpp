#include "tool/tool_run.h"

#include <algorithm>
#include <sstream>

#include "support/log_capture.h"

namespace motrace::testing {

namespace fs = std::filesystem;

const EncodedStream& SharedVideo() {
  static const EncodedStream stream = EncodeH264();
  return stream;
}
const EncodedStream& SharedAudio() {
  static const EncodedStream stream = EncodeAac();
  return stream;
}
Mp4Track VideoTrack() { return ToMp4Track(SharedVideo(), 90000); }
Mp4Track AudioTrack() { return ToMp4Track(SharedAudio(), 48000); }

Mp4Track MotionTrack(std::uint32_t timescale, int instants, int hertz) {
  CameraOptions options{timescale, instants, hertz};
  options.other_hertz = 0;
  return CameraTrack(options);
}

void WriteMotion(const fs::path& path, int instants) {
  CameraOptions options;
  options.instants = instants;
  options.other_hertz = 0;
  WriteCamera(path, options);
}

Mp4Track PacketTrack(const std::vector<Bytes>& packets) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (const Bytes& packet : packets) track.Add(packet, 10);
  return track;
}

ProcessResult RunTool(const std::vector<std::string>& arguments, const std::string& before,
                      const std::string& after) {
  std::vector<std::string> command{
      "/usr/bin/timeout", "-k", "5", "60", "/bin/sh", "-c", before + R"( "$0" "$@" )" + after,
      MOTRACE_TOOL_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  ProcessResult result = RunProcess(command);
  EXPECT_TRUE(result.exit_code < 124 || result.exit_code == 127 || result.exit_code == 255)
      << "the tool hangs or crashes (" << result.exit_code << "); standard output so far:\n"
      << result.out;
  return result;
}

std::vector<std::vector<std::string>> LogOf(const std::string& standard_output) {
  std::vector<std::vector<std::string>> threads;
  std::vector<std::string> ids;
  size_t thread = 0;
  std::istringstream stream(standard_output);
  for (std::string line; std::getline(stream, line);) {
    if (const auto record = ParseLogRecord(line)) {
      const auto known = std::find(ids.begin(), ids.end(), record->thread);
      thread = static_cast<size_t>(known - ids.begin());
      if (known == ids.end()) ids.push_back(record->thread);
      threads.resize(ids.size());
      threads[thread].push_back(record->level + ' ' + record->site + ' ' + record->text);
    } else if (line == "Start to parse motion metadata..." && !threads.empty()) {
      threads[thread].push_back(line);
    } else if (!line.empty() || threads.empty() ||
               threads[thread].back().find(" FFmpeg:") == std::string::npos) {
      ADD_FAILURE() << "no log record: \"" << line << "\"";
    }
  }
  EXPECT_TRUE(standard_output.empty() || standard_output.back() == '\n');
  return threads;
}

::testing::AssertionResult SameFiles(const std::map<std::string, Bytes>& expected,
                                     const std::map<std::string, Bytes>& actual) {
  if (expected == actual) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  for (const auto* files : {&expected, &actual}) {
    const auto& others = files == &expected ? actual : expected;
    failure << (files == &expected ? "expected" : "; got");
    for (const auto& [name, content] : *files) {
      const auto other = others.find(name);
      if (other != others.end() && other->second == content) continue;
      failure << ' ' << name << " (" << content.size() << " bytes)";
    }
  }
  return failure;
}

void ExpectPlainExtraction(const fs::path& input,
                           const ::testing::Matcher<const std::string&>& standard_error) {
  TempDir out;
  const ProcessResult run = RunTool({input, out.path()});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.err, standard_error);
  EXPECT_THAT(run.out, ::testing::HasSubstr("pipe run over...\n"));
  const auto packets = ReadDataStream(input);
  ASSERT_TRUE(packets.has_value());
  EXPECT_TRUE(SameFiles(ExtractPlainly(*packets).files, ReadDirectory(out.path())));
  if (::testing::Test::HasFailure()) out.Keep();
}

}  // namespace motrace::testing
