// Whole output directories, kept byte for byte. Each also holds dump.txt, the same as text, by a
// reader that shares nothing with the writer (read_motion.py).

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/samples.h"
#include "support/subprocess.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;

/// What a walking camera writes, 80 ms of it.
std::vector<Mp4Track> Camera() {
  Mp4Track motion = Mp4Track::Camm(90000);
  for (int i = 0; i < 8; ++i) {
    const auto t = static_cast<float>(i);
    motion.Add(GyroSample({0.25F * t, -0.5F, 0.1F}), 0);
    motion.Add(AccelSample({0.5F, -0.25F * t, 9.8125F}), 0);
    motion.Add(ExposureSample(8000000 + 1000 * i, 16000000), i % 4 == 3 ? 0 : 900);
    if (i % 4 == 3) {
      GpsFix fix;
      fix.time_gps_epoch = 1400000000.25 + i;
      fix.latitude = 48.137154 + i * 1e-7;
      fix.longitude = 11.576124;
      fix.altitude = 519.5F;
      fix.horizontal_accuracy = 2.5F;
      fix.vertical_accuracy = 4;
      fix.velocity_east = 0.7F;
      fix.velocity_north = -1.25F;
      fix.velocity_up = 0.1F;
      fix.speed_accuracy = 0.3F;
      motion.Add(GpsSample(fix), 900);
    }
    motion.Add(MagneticFieldSample({21.5F, 1.25F, -43}), 0);
  }
  return {VideoTrack(), AudioTrack(), motion};
}

/// Everything in one packet, with the values that number formats trip over.
std::vector<Mp4Track> OnePacket() {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  constexpr float kTiny = std::numeric_limits<float>::denorm_min();
  GpsFix odd;
  odd.time_gps_epoch = 1e15;
  odd.gps_fix_type = -1;
  odd.latitude = -0.0;
  odd.longitude = 1.0 / 3;
  odd.altitude = kNan;
  odd.horizontal_accuracy = kInfinity;
  odd.vertical_accuracy = -kInfinity;
  odd.velocity_east = kTiny;
  odd.velocity_north = 16777216;
  odd.velocity_up = 1e-5F;
  odd.speed_accuracy = 3.4e38F;
  GpsFix plain;
  plain.time_gps_epoch = 123456789012345678.0;
  plain.latitude = 90;
  plain.longitude = -179.99999999999997;
  Mp4Track motion = Mp4Track::Camm(1000);
  motion.Add(Concat({GpsSample(odd), ExposureSample(-2147483647 - 1, 2147483647, 0xFFFF),
                     GyroSample({0.1F, -0.0F, 1e22F}), AccelSample({kInfinity, kTiny, -9.8F}),
                     GpsSample(plain)}),
             1000);
  return {motion};
}

std::vector<Mp4Track> NothingDecoded() {
  Mp4Track motion = Mp4Track::Camm(1000);
  for (int i = 0; i < 3; ++i) motion.Add(AngleAxisSample({0.1F, 0.2F, 0.3F}), 10);
  return {VideoTrack(), motion};
}

TEST(GoldenTest, TheToolWritesTheKeptFiles) {
  const std::string python = MOTRACE_PYTHON;
  if (!fs::exists(python)) GTEST_SKIP() << "no Python 3";
  const std::pair<const char*, std::vector<Mp4Track>> cases[] = {
      {"camera", Camera()}, {"one_packet", OnePacket()}, {"nothing_decoded", NothingDecoded()}};
  for (const auto& [name, tracks] : cases) {
    TempDir dir;
    const fs::path golden = fs::path(MOTRACE_GOLDEN_DIR) / name;
    const fs::path out = dir / name;
    fs::create_directory(out);
    WriteMp4(dir / "video.mp4", tracks);
    RunTool({(dir / "video.mp4").string(), out.string()});
    const ProcessResult reader = RunProcess({python, MOTRACE_READ_MOTION, out.string()});
    EXPECT_EQ(reader.exit_code, 0) << reader.err;
    WriteFile(out / "dump.txt", Bytes(reader.out.begin(), reader.out.end()));
    EXPECT_TRUE(SameFiles(ReadDirectory(golden), ReadDirectory(out)))
        << "If the change is meant: rm -r '" << golden.string() << "'; cp -r '" << out.string()
        << "' '" << golden.string() << "'";
    if (HasFailure()) dir.Keep();
  }
}

}  // namespace
}  // namespace motrace::testing
