#include "support/camm_samples.h"

#include <cstring>

namespace motrace::testing {
namespace {

template <typename Unsigned>
void AppendLittleEndian(Bytes& out, Unsigned value) {
  for (unsigned shift = 0; shift < 8 * sizeof(Unsigned); shift += 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

Bytes Vec3Sample(CammType type, const Vec3& value, std::uint16_t reserved) {
  Bytes sample = CammHeader(static_cast<std::uint16_t>(type), reserved);
  AppendFloat(sample, value.x);
  AppendFloat(sample, value.y);
  AppendFloat(sample, value.z);
  return sample;
}

}  // namespace

void AppendU16(Bytes& out, std::uint16_t value) { AppendLittleEndian(out, value); }
void AppendU32(Bytes& out, std::uint32_t value) { AppendLittleEndian(out, value); }
void AppendU64(Bytes& out, std::uint64_t value) { AppendLittleEndian(out, value); }

void AppendFloat(Bytes& out, float value) {
  std::uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  AppendU32(out, bits);
}

void AppendDouble(Bytes& out, double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  AppendU64(out, bits);
}

Bytes CammHeader(std::uint16_t type, std::uint16_t reserved) {
  Bytes header;
  AppendU16(header, reserved);
  AppendU16(header, type);
  return header;
}

Bytes AngleAxisSample(const Vec3& angle_axis, std::uint16_t reserved) {
  return Vec3Sample(CammType::kAngleAxis, angle_axis, reserved);
}

Bytes ExposureSample(std::int32_t pixel_exposure_time, std::int32_t rolling_shutter_skew_time,
                     std::uint16_t reserved) {
  Bytes sample = CammHeader(static_cast<std::uint16_t>(CammType::kExposure), reserved);
  AppendU32(sample, static_cast<std::uint32_t>(pixel_exposure_time));
  AppendU32(sample, static_cast<std::uint32_t>(rolling_shutter_skew_time));
  return sample;
}

Bytes GyroSample(const Vec3& rate, std::uint16_t reserved) {
  return Vec3Sample(CammType::kGyroscope, rate, reserved);
}

Bytes AccelSample(const Vec3& acceleration, std::uint16_t reserved) {
  return Vec3Sample(CammType::kAcceleration, acceleration, reserved);
}

Bytes PositionSample(const Vec3& position, std::uint16_t reserved) {
  return Vec3Sample(CammType::kPosition, position, reserved);
}

Bytes MinimalGpsSample(double latitude, double longitude, double altitude, std::uint16_t reserved) {
  Bytes sample = CammHeader(static_cast<std::uint16_t>(CammType::kMinimalGps), reserved);
  AppendDouble(sample, latitude);
  AppendDouble(sample, longitude);
  AppendDouble(sample, altitude);
  return sample;
}

Bytes GpsSample(const GpsFix& fix, std::uint16_t reserved) {
  Bytes sample = CammHeader(static_cast<std::uint16_t>(CammType::kGps), reserved);
  AppendDouble(sample, fix.time_gps_epoch);
  AppendU32(sample, static_cast<std::uint32_t>(fix.gps_fix_type));
  AppendDouble(sample, fix.latitude);
  AppendDouble(sample, fix.longitude);
  AppendFloat(sample, fix.altitude);
  AppendFloat(sample, fix.horizontal_accuracy);
  AppendFloat(sample, fix.vertical_accuracy);
  AppendFloat(sample, fix.velocity_east);
  AppendFloat(sample, fix.velocity_north);
  AppendFloat(sample, fix.velocity_up);
  AppendFloat(sample, fix.speed_accuracy);
  return sample;
}

Bytes MagneticFieldSample(const Vec3& field, std::uint16_t reserved) {
  return Vec3Sample(CammType::kMagneticField, field, reserved);
}

}  // namespace motrace::testing
