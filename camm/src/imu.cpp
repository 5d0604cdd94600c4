#include "camm/imu.h"

#include "camm/interpolation.h"

namespace camm {

ImuSeries MergeImu(const Series<Gyro>& gyro, const Series<Accel>& accel) {
  const SortedSeries<Gyro> rates = Sorted(gyro);
  const SortedSeries<Accel> forces = Sorted(accel);
  ImuSeries merged;
  merged.gyro_without_time = rates.without_time;
  merged.gyro_repeated = rates.repeated;
  merged.accel_without_time = forces.without_time;
  merged.accel_repeated = forces.repeated;
  merged.samples.reserve(rates.samples.size());
  Interpolator<Accel> force(forces.samples);
  for (const Timed<Gyro>& rate : rates.samples) {
    if (const auto at = force.At(rate.time_ns)) {
      merged.samples.push_back({rate.time_ns, rate.value, *at});
    } else {
      ++merged.gyro_outside_accel;
    }
  }
  return merged;
}

}  // namespace camm
