#include "tool/tool_run.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace motrace::testing {

namespace fs = std::filesystem;

Mp4Track MotionTrack(std::uint32_t timescale, int instants, int hertz) {
  CameraOptions options{timescale, instants, hertz};
  options.other_hertz = 0;
  return CameraTrack(options);
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

std::set<std::string> DifferingFiles(const std::map<std::string, Bytes>& some,
                                     const std::map<std::string, Bytes>& others) {
  std::vector<std::pair<std::string, Bytes>> differing;
  std::set_symmetric_difference(some.begin(), some.end(), others.begin(), others.end(),
                                std::back_inserter(differing));
  std::set<std::string> names;
  for (const auto& [name, content] : differing) names.insert(name);
  return names;
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
  EXPECT_THAT(DifferingFiles(ExtractPlainly(*packets), ReadDirectory(out.path())),
              ::testing::IsEmpty());
  if (::testing::Test::HasFailure()) out.Keep();
}

}  // namespace motrace::testing
