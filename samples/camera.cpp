#include "samples/camera.h"

#include <array>
#include <cmath>
#include <cstddef>

#include "samples/camm_samples.h"

namespace motrace::samples {
namespace {

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

std::vector<Bytes> MotionAt(double t, bool paired) {
  const Bytes gyro = GyroSample(AngularVelocity(t));
  const Bytes acceleration = AccelSample(Acceleration(t));
  if (paired) return {Concat({gyro, acceleration})};
  return {gyro, acceleration};
}

Bytes ExposureAt(double t) {
  return ExposureSample(static_cast<std::int32_t>(8e6 + 2e6 * std::sin(t)), 16000000);
}

std::vector<Bytes> OthersAt(double t) {
  const GpsFix fix = Position(t);
  return {AngleAxisSample({0.1F, 0.2F, 0.3F}), PositionSample({1.5F, 2.5F, 3.5F}),
          MinimalGpsSample(fix.latitude, fix.longitude, fix.altitude),
          MagneticFieldSample({21.5F, 1.25F, -43.0F})};
}

}  // namespace

void RecordCamera(const CameraOptions& options,
                  const std::function<void(const Bytes&, std::uint32_t)>& add) {
  struct Sensor {
    int hertz;
    std::function<std::vector<Bytes>(double)> packets_at;
    std::int64_t readings = 0;
    [[nodiscard]] double next() const { return static_cast<double>(readings) / hertz; }
  };
  std::vector<Sensor> sensors{
      {options.motion_hertz, [&](double t) { return MotionAt(t, options.paired); }},
      {options.exposure_hertz, [](double t) { return std::vector<Bytes>{ExposureAt(t)}; }},
      {options.gps_hertz, [](double t) { return std::vector<Bytes>{GpsSample(Position(t))}; }}};
  if (options.other_hertz > 0) sensors.push_back({options.other_hertz, OthersAt});

  const double end = static_cast<double>(options.instants) / options.motion_hertz;
  const auto ticks_at = [&](std::int64_t reading, int hertz) {
    return reading * options.timescale / hertz;
  };
  Bytes pending;  // until the next packet's time is known
  std::int64_t pending_ticks = 0;
  for (;;) {
    // The first of those with the earliest time.
    Sensor* sensor = sensors.data();
    for (Sensor& other : sensors) {
      if (other.next() < sensor->next()) sensor = &other;
    }
    const bool over = sensor->next() >= end;
    const std::int64_t ticks = over ? ticks_at(options.instants, options.motion_hertz)
                                    : ticks_at(sensor->readings, sensor->hertz);
    if (!pending.empty()) add(pending, static_cast<std::uint32_t>(ticks - pending_ticks));
    if (over) return;
    std::vector<Bytes> packets = sensor->packets_at(sensor->next());
    pending = std::move(packets.back());
    packets.pop_back();
    for (const Bytes& packet : packets) add(packet, 0);
    pending_ticks = ticks;
    ++sensor->readings;
  }
}

Mp4Track CameraTrack(const CameraOptions& options) {
  Mp4Track track = Mp4Track::Camm(options.timescale);
  RecordCamera(options, [&track](const Bytes& payload, std::uint32_t duration) {
    track.Add(payload, duration);
  });
  return track;
}

}  // namespace motrace::samples
