// A whole output directory and log, kept byte for byte.

#include <limits>
#include <regex>

#include "camm/track_writer.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;

/// What a walking camera writes, 80 ms of it; then everything in one packet, with the values that
/// number formats trip over.
void WriteCamera(const fs::path& path, const fs::path& video) {
  camm::WriterOptions options;
  options.video = video;
  camm::TrackWriter motion(path, options);
  const auto add = [&](std::int64_t milliseconds, const Bytes& packet) {
    motion.AddPacket(milliseconds * 1'000'000, packet.data(), packet.size());
  };
  for (int i = 0; i < 8; ++i) {
    const auto t = static_cast<float>(i);
    add(10L * i, GyroSample({0.25F * t, -0.5F, 0.1F}));
    add(10L * i, AccelSample({0.5F, -0.25F * t, 9.8125F}));
    add(10L * i, ExposureSample(8000000 + 1000 * i, 16000000));
    add(10L * i + 10, MagneticFieldSample({21.5F, 1.25F, -43}));
  }
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kTiny = std::numeric_limits<float>::denorm_min();
  const GpsFix odd{1e15,      -1,         -0.0,  1.0 / 3,  std::numeric_limits<float>::quiet_NaN(),
                   kInfinity, -kInfinity, kTiny, 16777216, 1e-5F,
                   3.4e38F};
  const GpsFix plain{1400000000.25, 3,    48.137154, -179.99999999999997, 519.5F, 2.5F, 4, 0.7F,
                     -1.25F,        0.1F, 0.3F};
  add(80, Concat({GpsSample(odd), ExposureSample(-2147483647 - 1, 2147483647, 0xFFFF),
                  GyroSample({0.1F, -0.0F, 1e22F}), AccelSample({kInfinity, kTiny, -9.8F}),
                  GpsSample(plain)}));
  EXPECT_EQ(motion.Finish().error, "");
}

TEST(GoldenTest, TheToolWritesTheKeptFiles) {
  TempDir dir;
  const fs::path golden = MOTRACE_GOLDEN_DIR;
  const fs::path input = dir / "video.mp4";
  const fs::path out = dir / "out";
  fs::create_directory(out);
  MuxWithLibavformat(dir / "plain.mp4", "mp4", &SharedVideo(), &SharedAudio(), nullptr);
  WriteCamera(input, dir / "plain.mp4");
  const ProcessResult run = RunTool({input, out});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "motrace: note: samples of '" + input.string() +
                         "' that are not extracted: 8 magnetic field (type 7)\n");
  std::string log;
  for (const auto& thread : LogOf(run.out)) {
    for (const std::string& line : thread) log += line + "\n";
    log += "\n";
  }
  log = std::regex_replace(log, std::regex(input.string()), "PATH");
  // This place is not fixed.
  log = std::regex_replace(log, std::regex(R"((file_media_src\.cpp):\d+ ~)"), "$1 ~");
  WriteFile(out / "log.txt", Bytes(log.begin(), log.end()));

  EXPECT_TRUE(SameFiles(ReadDirectory(golden), ReadDirectory(out)))
      << "If the change is meant: rm -r '" << golden.string() << "'; cp -r '" << out.string()
      << "' '" << golden.string() << "'";
  if (HasFailure()) dir.Keep();
}

}  // namespace
}  // namespace motrace::testing
