// Motion samples from the files that `camm export` and other programs write.
#ifndef CAMM_PROGRAM_MOTION_LOG_H_
#define CAMM_PROGRAM_MOTION_LOG_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "camm/recording.h"

namespace camm::program {

/// What is wrong with a log, with its name and line.
struct LogError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct LogOptions {
  double rate_hz = 0;  ///< GPX: interpolate to this many points a second; 0: don't
  std::optional<std::int64_t> start_unix_ns;  ///< GPX: UTC of time 0; unset: the first point's
  std::optional<int> leap_seconds;            ///< in place of the table
};

/// Reads a log and calls `on_sample` for each sample, in the order of their times as far as each
/// file is in order itself. What it may be:
/// - a folder of `TYPE.csv` files, or one of them, by their column names;
/// - `.jsonl`: an object a line;
/// - a EuRoC folder or its `data.csv`, Kalibr's `imu0.csv`;
/// - `.gcsv`: Gyroflow's IMU log, its axes taken as they are;
/// - `.gpx`: points with a time become type 6, without one type 5, one a second.
/// @return remarks for the user.
/// @throws LogError; what `on_sample` throws passes through.
std::vector<std::string> ReadMotionLog(const std::string& path, const LogOptions& options,
                                       const std::function<void(const TimedSample&)>& on_sample);

}  // namespace camm::program

#endif  // CAMM_PROGRAM_MOTION_LOG_H_
