// GPS samples from GPX files.
#ifndef CAMM_PROGRAM_GPX_POINTS_H_
#define CAMM_PROGRAM_GPX_POINTS_H_

#include <string>
#include <vector>

#include "camm/program/motion_log.h"

namespace camm::program {

/// The track points of a GPX file (1.0 or 1.1) as samples: of type 6 where they have a time, else
/// of type 5, one a second or as often as `rate_hz` says. Speed and course come from Garmin's
/// TrackPointExtension where it is there, else from the points around; accuracies are unknown (0).
/// With `rate_hz`, points are interpolated linearly from the first time to the last.
/// @throws LogError
std::vector<TimedSample> ReadGpx(const std::string& path, const LogOptions& options);

}  // namespace camm::program

#endif  // CAMM_PROGRAM_GPX_POINTS_H_
