// make_sample OUT.mp4 [without-audio]: writes a small camera video to try the tool on. Four seconds
// of H.264 with B-frames, AAC sound, and a Camera Motion Metadata track as a hand-held 360 degree
// camera would record it: gyroscope and accelerometer at 200 Hz, exposure at 30 Hz, GPS at 10 Hz,
// and once a second the types that the tool leaves out (angle-axis, position, minimal GPS, magnetic
// field).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/mp4_writer.h"

namespace {

using namespace motrace::testing;  // NOLINT(google-build-using-namespace): one short program

constexpr int kSeconds = 4;
constexpr std::uint32_t kTicksPerSecond = 90000;  // divides by every rate below

/// One sample of the motion track.
struct MotionSample {
  std::uint32_t time;  // ticks
  Bytes bytes;
};

/// The operator's sway: each axis swings at a rate of its own.
Vec3 AngularVelocity(double t) {
  return {static_cast<float>(0.30 * std::sin(2 * M_PI * 0.7 * t)),
          static_cast<float>(0.20 * std::cos(2 * M_PI * 0.5 * t)),
          static_cast<float>(0.10 * std::sin(2 * M_PI * 1.1 * t))};
}

/// Gravity along z, plus the steps of a walk.
Vec3 Acceleration(double t) {
  return {static_cast<float>(0.5 * std::sin(2 * M_PI * 1.8 * t)),
          static_cast<float>(0.3 * std::cos(2 * M_PI * 1.8 * t)),
          static_cast<float>(9.81 + 1.2 * std::sin(2 * M_PI * 3.6 * t))};
}

/// A walk to the north-east at 1.4 m/s.
GpsFix Position(double t) {
  constexpr double kMetresPerDegree = 111320;
  constexpr double kNorth = 1.2;
  constexpr double kEast = 0.7;
  constexpr double kLatitude = 48.137;
  GpsFix fix;
  fix.time_gps_epoch = 1400000000 + t;
  fix.gps_fix_type = 3;
  fix.latitude = kLatitude + kNorth * t / kMetresPerDegree;
  fix.longitude = 11.575 + kEast * t / (kMetresPerDegree * std::cos(kLatitude * M_PI / 180));
  fix.altitude = static_cast<float>(519.5 + 0.2 * t);
  fix.horizontal_accuracy = 2.5F;
  fix.vertical_accuracy = 4.0F;
  fix.velocity_east = static_cast<float>(kEast);
  fix.velocity_north = static_cast<float>(kNorth);
  fix.velocity_up = 0.2F;
  fix.speed_accuracy = 0.3F;
  return fix;
}

/// Calls add(time in ticks, time in seconds) at a fixed rate over the whole length.
template <typename Add>
void AtRate(std::uint32_t hertz, Add add) {
  const std::uint32_t step = kTicksPerSecond / hertz;
  for (std::uint32_t time = 0; time < kSeconds * kTicksPerSecond; time += step) {
    add(time, static_cast<double>(time) / kTicksPerSecond);
  }
}

Mp4Track MotionTrack() {
  std::vector<MotionSample> samples;
  // Both sensors are read at the same instant: two samples with one time.
  AtRate(200, [&](std::uint32_t time, double t) {
    samples.push_back({time, GyroSample(AngularVelocity(t))});
    samples.push_back({time, AccelSample(Acceleration(t))});
  });
  AtRate(30, [&](std::uint32_t time, double t) {
    const double exposure = 8e6 + 2e6 * std::sin(t);
    samples.push_back({time, ExposureSample(static_cast<std::int32_t>(exposure), 16000000)});
  });
  AtRate(10, [&](std::uint32_t time, double t) {
    samples.push_back({time, GpsSample(Position(t))});
  });
  AtRate(1, [&](std::uint32_t time, double t) {
    const GpsFix fix = Position(t);
    samples.push_back({time, AngleAxisSample({0.1F, 0.2F, 0.3F})});
    samples.push_back({time, PositionSample({1.5F, 2.5F, 3.5F})});
    samples.push_back({time, MinimalGpsSample(fix.latitude, fix.longitude, fix.altitude)});
    samples.push_back({time, MagneticFieldSample({21.5F, 1.25F, -43.0F})});
  });
  std::stable_sort(samples.begin(), samples.end(),
                   [](const MotionSample& a, const MotionSample& b) { return a.time < b.time; });

  Mp4Track track = Mp4Track::Camm(kTicksPerSecond);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const std::uint32_t next =
        i + 1 < samples.size() ? samples[i + 1].time : kSeconds * kTicksPerSecond;
    track.Add(samples[i].bytes, next - samples[i].time);
  }
  return track;
}

}  // namespace

int main(int argc, char** argv) {
  const bool with_audio = argc == 2;
  if (!with_audio && (argc != 3 || std::strcmp(argv[2], "without-audio") != 0)) {
    std::fputs("usage: make_sample OUT.mp4 [without-audio]\n", stderr);
    return 2;
  }
  try {
    H264Options video;
    video.width = 320;
    video.height = 160;
    video.frames = kSeconds * video.frames_per_second;
    AacOptions audio;
    audio.milliseconds = kSeconds * 1000;
    std::vector<Mp4Track> tracks{ToMp4Track(EncodeH264(video), kTicksPerSecond)};
    if (with_audio) tracks.push_back(ToMp4Track(EncodeAac(audio), 48000));
    tracks.push_back(MotionTrack());
    WriteMp4(argv[1], tracks);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_sample: %s\n", error.what());
    return 1;
  }
  return 0;
}
