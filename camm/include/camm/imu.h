// Gyroscope and accelerometer as one series, as inertial algorithms want them.
#ifndef CAMM_IMU_H_
#define CAMM_IMU_H_

#include <cstdint>
#include <vector>

#include "camm/recording.h"

namespace camm {

/// Angular rate and specific force at one time.
struct ImuSample {
  std::int64_t time_ns = 0;
  Gyro gyro;
  Accel accel;
};

/// What `MergeImu` makes, and what it left out.
struct ImuSeries {
  std::vector<ImuSample> samples;       ///< times strictly increasing
  std::int64_t gyro_without_time = 0;   ///< samples whose packet has no time
  std::int64_t gyro_repeated = 0;       ///< another sample had the same time
  std::int64_t gyro_outside_accel = 0;  ///< before the first or after the last acceleration
  std::int64_t accel_without_time = 0;
  std::int64_t accel_repeated = 0;
};

/// Every gyroscope sample with the acceleration at its time: the accelerometer's own sample where
/// it has one, else interpolated linearly between the two around it, never extrapolated. Samples
/// out of order are put in order.
ImuSeries MergeImu(const Series<Gyro>& gyro, const Series<Accel>& accel);

}  // namespace camm

#endif  // CAMM_IMU_H_
