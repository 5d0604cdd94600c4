#ifndef MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_
#define MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_

#include <cstdint>

#include "support/bytes.h"

/// Builders of Camera Motion Metadata samples, one per type of the public format page
/// (https://developers.google.com/streetview/publish/camm-spec): two reserved bytes, the type as a
/// little-endian 16-bit number, then the type's fields, little-endian and without padding.
///
/// Every builder returns one whole sample, header included. `reserved` is what the two reserved
/// bytes hold: the format says 0, real cameras write other values too.
namespace motrace::testing {

enum class CammType : std::uint16_t {
  kAngleAxis = 0,
  kExposure = 1,
  kGyroscope = 2,
  kAcceleration = 3,
  kPosition = 4,
  kMinimalGps = 5,
  kGps = 6,
  kMagneticField = 7,
};

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
Bytes CammHeader(std::uint16_t type, std::uint16_t reserved = 0);

/// Type 0, 16 bytes: orientation as angle-axis, radians.
Bytes AngleAxisSample(const Vec3& angle_axis, std::uint16_t reserved = 0);
/// Type 1, 12 bytes: both times in nanoseconds.
Bytes ExposureSample(std::int32_t pixel_exposure_time, std::int32_t rolling_shutter_skew_time,
                     std::uint16_t reserved = 0);
/// Type 2, 16 bytes: radians per second.
Bytes GyroSample(const Vec3& rate, std::uint16_t reserved = 0);
/// Type 3, 16 bytes: metres per second squared.
Bytes AccelSample(const Vec3& acceleration, std::uint16_t reserved = 0);
/// Type 4, 16 bytes: metres.
Bytes PositionSample(const Vec3& position, std::uint16_t reserved = 0);
/// Type 5, 28 bytes: degrees, degrees, metres.
Bytes MinimalGpsSample(double latitude, double longitude, double altitude,
                       std::uint16_t reserved = 0);
/// Type 6, 60 bytes.
Bytes GpsSample(const GpsFix& fix, std::uint16_t reserved = 0);
/// Type 7, 16 bytes: microtesla.
Bytes MagneticFieldSample(const Vec3& field, std::uint16_t reserved = 0);

/// Little-endian pieces, for payloads that no camera writes.
void AppendU16(Bytes& out, std::uint16_t value);
void AppendU32(Bytes& out, std::uint32_t value);
void AppendU64(Bytes& out, std::uint64_t value);
void AppendFloat(Bytes& out, float value);
void AppendDouble(Bytes& out, double value);

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_
