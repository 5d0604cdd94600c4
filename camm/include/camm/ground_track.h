// The way over ground: GPS samples that can be placed, cut at gaps.
#ifndef CAMM_GROUND_TRACK_H_
#define CAMM_GROUND_TRACK_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "camm/recording.h"

namespace camm {

/// A position that can be drawn.
struct TrackPoint {
  std::int64_t time_ns = kNoTime;      ///< on the video's clock
  std::optional<std::int64_t> utc_ns;  ///< Unix time, where it is known
  double latitude_deg = 0;             ///< -90 to 90
  double longitude_deg = 0;            ///< -180 (included) to 180 (not)
  double altitude_m = 0;               ///< not finite: unknown
  const Gps* gps = nullptr;            ///< the sample, of type 6; null for type 5
};

/// How UTC is found, and where a track is cut.
struct TrackOptions {
  std::optional<int> leap_seconds;            ///< in place of the table
  std::optional<std::int64_t> start_unix_ns;  ///< UTC of time 0, for samples that carry no time
  std::int64_t gap_ns = 10'000'000'000;       ///< more than this between two points cuts
  double rate_hz = 0;                         ///< at most this many points a second; 0: all
};

/// The points of one sample type in file order, and what was left out.
struct GroundTrack {
  std::vector<std::vector<TrackPoint>> segments;  ///< none is empty
  std::int64_t points = 0;                        ///< in all segments
  std::int64_t without_fix = 0;    ///< type 6 with no fix, or exactly at latitude and longitude 0
  std::int64_t without_place = 0;  ///< no number, or not on Earth
  std::int64_t thinned = 0;
};

/// @param series must outlive the track, which points into it.
GroundTrack MakeGroundTrack(const Series<Gps>& series, const TrackOptions& options = {});
GroundTrack MakeGroundTrack(const Series<GpsMin>& series, const TrackOptions& options = {});

/// Great circle distance in metres, on a sphere of the Earth's mean radius.
double DistanceMetres(double latitude1_deg, double longitude1_deg, double latitude2_deg,
                      double longitude2_deg);

}  // namespace camm

#endif  // CAMM_GROUND_TRACK_H_
