// Whole output directories, kept byte for byte. Each also holds dump.txt, the same as text, which
// two readers must agree on: one here, one in Python (read_motion.py).

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/camm_samples.h"
#include "support/mp4_writer.h"
#include "support/subprocess.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;

template <typename T>
T At(const Bytes& bytes, std::size_t offset) {
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

std::string Number(double value) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

/// What read_motion.py prints.
Bytes Dump(const std::map<std::string, Bytes>& files) {
  std::string text;
  const Bytes& gyro = files.at("gyro.dat");
  text += "gyro.dat: " + std::to_string(gyro.size() / 56) + " records\n";
  for (std::size_t at = 0; at + 56 <= gyro.size(); at += 56) {
    text += "  " + std::to_string(At<std::int64_t>(gyro, at)) + " us: accelerometer";
    for (std::size_t k = 0; k < 6; ++k) {
      text += k == 3 ? ", gyroscope " : " ";
      text += Number(At<double>(gyro, at + 8 + 8 * k));
    }
    text += "\n";
  }
  for (int number = 1; number <= 6; ++number) {
    const std::string name = "exposure_" + std::to_string(number) + ".dat";
    const Bytes& exposure = files.at(name);
    text += name + ": " + std::to_string(exposure.size() / 16) + " records\n";
    for (std::size_t at = 0; at + 16 <= exposure.size(); at += 16) {
      text += "  " + std::to_string(At<std::int64_t>(exposure, at)) +
              " us: " + Number(At<double>(exposure, at + 8)) + " s\n";
    }
  }
  // Compact JSON without nesting or escapes below the array: cutting at its marks is enough.
  const Bytes& json = files.at("gps.json");
  const std::string gps(json.begin(), json.end());
  std::string records;
  std::size_t count = 0;
  for (std::size_t at = gps.find("[{"); at != std::string::npos; at = gps.find(",{", at)) {
    at += 2;
    const std::size_t end = gps.find('}', at);
    std::istringstream members(gps.substr(at, end - at));
    records += " ";
    for (std::string member; std::getline(members, member, ',');) {
      const std::size_t colon = member.find(':');
      const std::string value = member.substr(colon + 1);
      records.append(" ").append(member.substr(1, colon - 2)).append("=");
      records += value == "null" ? "None" : value;
    }
    records += "\n";
    ++count;
    at = end;
  }
  text += "gps.json: " + std::to_string(count) + " records\n" + records;
  return {text.begin(), text.end()};
}

struct GoldenCase {
  std::string name;
  std::function<std::vector<Mp4Track>()> tracks;
};

std::ostream& operator<<(std::ostream& out, const GoldenCase& golden) { return out << golden.name; }

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

class GoldenTest : public ::testing::TestWithParam<GoldenCase> {
 protected:
  static fs::path Golden() { return fs::path(MOTRACE_GOLDEN_DIR) / GetParam().name; }
};

TEST_P(GoldenTest, TheToolWritesTheKeptFiles) {
  TempDir dir;
  const fs::path out = dir / GetParam().name;
  fs::create_directory(out);
  WriteMp4(dir / "video.mp4", GetParam().tracks());
  RunTool({(dir / "video.mp4").string(), out.string()});
  const auto files = ReadDirectory(out);
  ASSERT_EQ(files.size(), 8U);
  WriteFile(out / "dump.txt", Dump(files));
  const auto golden =
      fs::exists(Golden()) ? ReadDirectory(Golden()) : std::map<std::string, Bytes>();
  EXPECT_TRUE(SameFiles(golden, ReadDirectory(out)))
      << "If the change is meant: rm -r '" << Golden().string() << "'; cp -r '" << out.string()
      << "' '" << Golden().string() << "'";
  if (HasFailure()) dir.Keep();
}

TEST_P(GoldenTest, AnIndependentReaderReadsTheSameValues) {
  const std::string python = MOTRACE_PYTHON;
  if (!fs::exists(python)) GTEST_SKIP() << "no Python 3";
  const ProcessResult reader = RunProcess({python, MOTRACE_READ_MOTION, Golden().string()});
  EXPECT_EQ(reader.exit_code, 0) << reader.err;
  const Bytes dump = ReadFile(Golden() / "dump.txt");
  EXPECT_EQ(reader.out, std::string(dump.begin(), dump.end()));
}

INSTANTIATE_TEST_SUITE_P(Cases, GoldenTest,
                         ::testing::Values(GoldenCase{"camera", Camera},
                                           GoldenCase{"one_packet", OnePacket},
                                           GoldenCase{"nothing_decoded", NothingDecoded}),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace motrace::testing
