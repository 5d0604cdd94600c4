#ifndef MOTRACE_SAMPLES_CAMERA_H_
#define MOTRACE_SAMPLES_CAMERA_H_

#include <cstdint>
#include <functional>
#include <string>

#include "samples/bytes.h"

/// The motion samples that a walker's 360 degree camera records.
namespace motrace::samples {

/// Each kind of sample at a rate of its own, in samples a second.
struct CameraOptions {
  std::uint32_t timescale = 90000;  ///< ticks a second
  int instants = 200;               ///< readings of gyroscope and accelerometer: the length
  int motion_hertz = 200;           ///< gyroscope and accelerometer, read at the same instant
  int exposure_hertz = 30;
  int gps_hertz = 10;
  int other_hertz = 1;  ///< angle-axis, position, minimal GPS and magnetic field; 0: none of them
  bool paired = false;  ///< the two motion samples of an instant share a packet
};

/// Calls `add` for every packet in the order of their times, with the ticks to the next one. The
/// values are a function of the time alone; those of one sample all differ.
void RecordCamera(const CameraOptions& options,
                  const std::function<void(const Bytes& payload, std::uint32_t duration)>& add);

/// Writes the packets as the motion track of a copy of `video`, or alone where that is empty.
/// Throws std::runtime_error with the reason when that fails.
void WriteCamera(const std::string& path, const CameraOptions& options = {},
                 const std::string& video = "");

}  // namespace motrace::samples

#endif  // MOTRACE_SAMPLES_CAMERA_H_
