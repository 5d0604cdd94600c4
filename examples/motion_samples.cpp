// motion_samples FILE: how fast the camera turned at most, and when.
#include <camm/recording.h>

#include <cmath>
#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  camm::SilenceMessages();
  const camm::Recording ride = camm::Read({argv[1], nullptr});
  camm::Timed<camm::Gyro> most;
  for (const auto& gyro : ride.Of<camm::Gyro>()) {
    if (std::abs(gyro.value.x_rad_s) > std::abs(most.value.x_rad_s)) most = gyro;
  }
  std::printf("%.3f rad/s at %.3f s\n", most.value.x_rad_s,
              static_cast<double>(most.time_ns) * 1e-9);
  return static_cast<int>(ride.result.status);
}
