#include "samples/camera.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <cmath>
#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <utility>
#include <vector>

#include "camm/track_writer.h"

namespace motrace::samples {
namespace {

/// The operator's sway: each axis swings at a rate of its own.
camm::Gyro AngularVelocity(double t) {
  return {static_cast<float>(0.30 * std::sin(2 * M_PI * 0.7 * t)),
          static_cast<float>(0.20 * std::cos(2 * M_PI * 0.5 * t)),
          static_cast<float>(0.10 * std::sin(2 * M_PI * 1.1 * t))};
}

/// Gravity along z, plus the steps of a walk.
camm::Accel Acceleration(double t) {
  return {static_cast<float>(0.5 * std::sin(2 * M_PI * 1.8 * t)),
          static_cast<float>(0.3 * std::cos(2 * M_PI * 1.8 * t)),
          static_cast<float>(9.81 + 1.2 * std::sin(2 * M_PI * 3.6 * t))};
}

/// A walk to the north-east at 1.4 m/s.
camm::Gps Whereabouts(double t) {
  constexpr double kMetresPerDegree = 111320;
  constexpr double kNorth = 1.2;
  constexpr double kEast = 0.7;
  constexpr double kLatitude = 48.137;
  camm::Gps fix;
  fix.time_gps_s = 1400000000 + t;
  fix.fix_type = 3;
  fix.latitude_deg = kLatitude + kNorth * t / kMetresPerDegree;
  fix.longitude_deg = 11.575 + kEast * t / (kMetresPerDegree * std::cos(kLatitude * M_PI / 180));
  fix.altitude_m = static_cast<float>(519.5 + 0.2 * t);
  fix.horizontal_accuracy_m = 2.5F;
  fix.vertical_accuracy_m = 4.0F;
  fix.velocity_east_m_s = static_cast<float>(kEast);
  fix.velocity_north_m_s = static_cast<float>(kNorth);
  fix.velocity_up_m_s = 0.2F;
  fix.speed_accuracy_m_s = 0.3F;
  return fix;
}

Bytes Packet(std::initializer_list<camm::Sample> samples) {
  Bytes packet;
  for (const camm::Sample& sample : samples) camm::Encode(sample, packet);
  return packet;
}

std::vector<Bytes> MotionAt(double t, bool paired) {
  if (paired) return {Packet({AngularVelocity(t), Acceleration(t)})};
  return {Packet({AngularVelocity(t)}), Packet({Acceleration(t)})};
}

Bytes ExposureAt(double t) {
  return Packet(
      {camm::Exposure{static_cast<std::int32_t>(8e6 + 2e6 * std::sin(t)), /*skew=*/16000000}});
}

std::vector<Bytes> OthersAt(double t) {
  const camm::Gps fix = Whereabouts(t);
  return {Packet({camm::AngleAxis{0.1F, 0.2F, 0.3F}}), Packet({camm::Position{1.5F, 2.5F, 3.5F}}),
          Packet({camm::GpsMin{fix.latitude_deg, fix.longitude_deg,
                               static_cast<double>(fix.altitude_m)}}),
          Packet({camm::Magnetic{21.5F, 1.25F, -43.0F}})};
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
      {options.gps_hertz, [](double t) { return std::vector<Bytes>{Packet({Whereabouts(t)})}; }}};
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

void WriteCamera(const std::string& path, const CameraOptions& options, const std::string& video) {
  camm::WriterOptions writing;
  writing.video = video;
  writing.overwrite = true;
  writing.time_scale = options.timescale;
  camm::TrackWriter writer(path, writing);
  std::int64_t ticks = 0;
  RecordCamera(options, [&](const Bytes& payload, std::uint32_t duration) {
    writer.AddPacket(av_rescale(ticks, 1'000'000'000, options.timescale), payload.data(),
                     payload.size());
    ticks += duration;
  });
  const camm::WriteResult result = writer.Finish();
  if (result.status != camm::Status::kWhole) throw std::runtime_error(result.error);
}

}  // namespace motrace::samples
