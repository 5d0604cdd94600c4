#ifndef MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_
#define MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_

#include <cstdint>
#include <cstring>

#include "camm/samples.h"
#include "samples/bytes.h"

/// Whole Camera Motion Metadata samples, header included. `reserved` is what the two reserved bytes
/// hold: the format says 0, real cameras write other values too.
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

/// The 4-byte header alone, for any type number (also ones that the format does not know).
inline Bytes CammHeader(std::uint16_t type, std::uint16_t reserved = 0) {
  return Packed(reserved, type);
}
inline Bytes Stored(const camm::Sample& sample, std::uint16_t reserved = 0) {
  Bytes bytes;
  camm::Encode(sample, bytes);
  std::memcpy(bytes.data(), &reserved, sizeof reserved);
  return bytes;
}
inline Bytes ExposureSample(std::int32_t exposure_ns, std::int32_t skew_ns,
                            std::uint16_t reserved = 0) {
  return Stored(camm::Exposure{exposure_ns, skew_ns}, reserved);
}
inline Bytes GyroSample(const camm::Gyro& rate, std::uint16_t reserved = 0) {
  return Stored(rate, reserved);
}
inline Bytes AccelSample(const camm::Accel& acceleration) { return Stored(acceleration); }
inline Bytes GpsSample(const camm::Gps& fix) { return Stored(fix); }

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_CAMM_SAMPLES_H_
