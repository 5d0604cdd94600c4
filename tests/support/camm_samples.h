#ifndef MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_
#define MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_

#include <cstdint>
#include <cstring>

#include "samples/bytes.h"

/// Builders of Camera Motion Metadata samples, one per type of the public format page
/// (https://developers.google.com/streetview/publish/camm-spec): two reserved bytes, the type as a
/// little-endian 16-bit number, then the type's fields, little-endian and without padding.
///
/// Every builder returns one whole sample, header included. `reserved` is what the two reserved
/// bytes hold: the format says 0, real cameras write other values too.
namespace motrace::testing {

using samples::Bytes;
using samples::Concat;

/// The fields' bytes one after another, as a little-endian host holds them.
template <typename... Fields>
Bytes Packed(Fields... fields) {
  Bytes bytes;
  const auto append = [&bytes](auto field) {
    const std::size_t at = bytes.size();
    bytes.resize(at + sizeof field);
    std::memcpy(bytes.data() + at, &field, sizeof field);
  };
  (append(fields), ...);
  return bytes;
}
inline void AppendU16(Bytes& out, std::uint16_t value) { out = Concat({out, Packed(value)}); }

/// Three components along the device's axes; the unit is the sample type's.
struct Vec3 {
  float x = 0;
  float y = 0;
  float z = 0;
};

/// Type 6, fields in stored order.
struct GpsFix {
  double time_gps_epoch = 0;      ///< seconds since the GPS epoch
  std::int32_t gps_fix_type = 3;  ///< 0 none, 2 2D, 3 3D
  double latitude = 0;            ///< degrees
  double longitude = 0;           ///< degrees
  float altitude = 0;             ///< metres
  float horizontal_accuracy = 0;  ///< metres
  float vertical_accuracy = 0;    ///< metres
  float velocity_east = 0;        ///< metres per second
  float velocity_north = 0;       ///< metres per second
  float velocity_up = 0;          ///< metres per second
  float speed_accuracy = 0;       ///< metres per second
};

/// The 4-byte header alone, for any type number (also ones that the format does not know).
inline Bytes CammHeader(std::uint16_t type, std::uint16_t reserved = 0) {
  return Packed(reserved, type);
}
/// A sample of three floats: types 0 (angle-axis, radians), 2, 3, 4 (position, metres), 7.
inline Bytes Vec3Sample(std::uint16_t type, const Vec3& v, std::uint16_t reserved = 0) {
  return Packed(reserved, type, v.x, v.y, v.z);
}
inline Bytes AngleAxisSample(const Vec3& angle_axis) { return Vec3Sample(0, angle_axis); }
/// Both times in nanoseconds.
inline Bytes ExposureSample(std::int32_t pixel_exposure_time,
                            std::int32_t rolling_shutter_skew_time, std::uint16_t reserved = 0) {
  return Packed(reserved, std::uint16_t{1}, pixel_exposure_time, rolling_shutter_skew_time);
}
/// Radians per second.
inline Bytes GyroSample(const Vec3& rate, std::uint16_t reserved = 0) {
  return Vec3Sample(2, rate, reserved);
}
/// Metres per second squared.
inline Bytes AccelSample(const Vec3& acceleration, std::uint16_t reserved = 0) {
  return Vec3Sample(3, acceleration, reserved);
}
inline Bytes PositionSample(const Vec3& position) { return Vec3Sample(4, position); }
/// Degrees, degrees, metres.
inline Bytes MinimalGpsSample(double latitude, double longitude, double altitude) {
  return Packed(std::uint16_t{0}, std::uint16_t{5}, latitude, longitude, altitude);
}
inline Bytes GpsSample(const GpsFix& fix, std::uint16_t reserved = 0) {
  return Packed(reserved, std::uint16_t{6}, fix.time_gps_epoch, fix.gps_fix_type, fix.latitude,
                fix.longitude, fix.altitude, fix.horizontal_accuracy, fix.vertical_accuracy,
                fix.velocity_east, fix.velocity_north, fix.velocity_up, fix.speed_accuracy);
}
/// Microtesla.
inline Bytes MagneticFieldSample(const Vec3& field) { return Vec3Sample(7, field); }

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_
