// make_recordings DIR: recordings of every kind for export_truth.py, one a property.

#include <cmath>
#include <cstdio>
#include <exception>
#include <limits>
#include <string>

#include "support/samples.h"

namespace {

using namespace motrace::testing;  // NOLINT(google-build-using-namespace): one short program

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr double kLeast = std::numeric_limits<double>::denorm_min();
constexpr double kMost = std::numeric_limits<double>::max();

Bytes Fix(double time_gps, std::int32_t fix_type, double latitude, double longitude) {
  camm::Gps fix;
  fix.time_gps_s = time_gps;
  fix.fix_type = fix_type;
  fix.latitude_deg = latitude;
  fix.longitude_deg = longitude;
  fix.velocity_east_m_s = -3.0F;
  fix.velocity_north_m_s = 4.0F;
  return GpsSample(fix);
}

// Every type, with the numbers that text formats find hard, several samples a packet.
Mp4Track Everything(std::uint32_t timescale) {
  Mp4Track track = Mp4Track::Camm(timescale);
  const std::uint32_t step = timescale / 7;  // no whole number of nanoseconds
  for (int i = 0; i < 40; ++i) {
    const auto value = static_cast<float>(i) / 3;
    track.Add(Concat({GyroSample({value, -value, 1e-30F}), AccelSample({value, 9.81F, 1e30F})}),
              step);
    track.Add(GyroSample({value + 0.1F, kNan, -0.0F}), step);
  }
  track.Add(Stored(camm::AngleAxis{kInfinity, -kInfinity, kNan}), step);
  track.Add(ExposureSample(std::numeric_limits<std::int32_t>::min(), 16000000), step);
  track.Add(ExposureSample(8000000, std::numeric_limits<std::int32_t>::max()), step);
  track.Add(Stored(camm::Position{1.5F, std::numeric_limits<float>::denorm_min(), 3.4e38F}), step);
  track.Add(Stored(camm::Magnetic{21.5F, 1.25F, -43.0F}), step);
  track.Add(Stored(camm::GpsMin{48, 11, static_cast<double>(kNan)}), step);
  track.Add(Stored(camm::GpsMin{kLeast, 180, kMost}), step);
  track.Add(Stored(camm::GpsMin{91, 0, 0}), step);
  track.Add(Fix(1.4e9, 3, 48.1, 11.5), step);
  track.Add(Fix(-kMost, 2, -90, -180), step);
  track.Add(Fix(kMost, 0, 1, 1), step);
  track.Add(Fix(1.4e9, 3, 0, 0), step);
  track.Add(Fix(1167264016.5, 3, 48.1, static_cast<double>(kInfinity)), 20 * timescale);
  track.Add(Fix(1167264018.5, 3, 48.1, 11.5), step);
  return track;
}

void Write(const std::string& path, const std::vector<Mp4Track>& tracks,
           Mp4Order order = Mp4Order::kMoovLast) {
  Mp4Layout layout;
  layout.order = order;
  WriteMp4(path, tracks, layout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string folder = std::string(argv[1]) + "/";
  try {
    Write(folder + "all.mp4", {Everything(90000)});
    Write(folder + "fine.mp4", {Everything(1000000000)});
    Write(folder + "odd.mp4", {Everything(44101)});
    Write(folder + "fragments.mp4", {Everything(30000)}, Mp4Order::kFragmented);
    Mp4Track edited = Everything(48000);
    edited.edits = {{2000, -1}, {100000, 24000}};  // 2 s late, and the first half second is cut off
    Write(folder + "edited.mp4", {edited});
    Mp4Track early = Everything(1000);
    early.edits = {{100000, 2000}};  // what lies before the edit has negative times
    Write(folder + "early.mp4", {early});
    Write(folder + "two.mp4", {CameraTrack(), Everything(1000)});
    CameraOptions options;
    options.instants = 2000;
    WriteCamera(folder + "camera.mp4", options);
    Mp4Track damaged = Everything(1000);
    damaged.Add(Concat({GyroSample({1, 2, 3}, /*reserved=*/7), CammHeader(9)}), 1);
    Bytes cut = AccelSample({1, 2, 3});
    cut.pop_back();
    damaged.Add(Concat({GyroSample({4, 5, 6}), cut}), 1);
    Write(folder + "damaged.mp4", {damaged});
    Write(folder + "empty.mp4", {Mp4Track::Camm(1000)});
    Write(folder + "other.mp4", {Mp4Track::Data("tmcd", "tmcd", 1000)});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_recordings: %s\n", error.what());
    return 1;
  }
  return 0;
}
