#include "camm/ground_track.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "camm/gps_time.h"

namespace camm {
namespace {

template <typename T>
std::optional<std::int64_t> Utc(const Timed<T>& sample, const TrackOptions& options) {
  if constexpr (std::is_same_v<T, Gps>) {
    if (const auto utc = UtcFromGps(sample.value.time_gps_s, options.leap_seconds)) return utc;
  }
  std::int64_t utc = 0;
  if (!options.start_unix_ns || sample.time_ns == kNoTime ||
      __builtin_add_overflow(*options.start_unix_ns, sample.time_ns, &utc)) {
    return std::nullopt;
  }
  return utc;
}

// Times as doubles: the difference of two may not fit an integer.
double Elapsed(const TrackPoint& from, const TrackPoint& to) {
  if (from.time_ns == kNoTime || to.time_ns == kNoTime) return 0;
  return static_cast<double>(to.time_ns) - static_cast<double>(from.time_ns);
}

template <typename T>
GroundTrack Make(const Series<T>& series, const TrackOptions& options) {
  GroundTrack track;
  // Half a percent, so that a receiver's own rate passes in spite of rounded times.
  const double step_ns = options.rate_hz > 0 ? 0.995e9 / options.rate_hz : 0;
  TrackPoint last;  // also of those thinned out
  for (const Timed<T>& sample : series) {
    const T& value = sample.value;
    TrackPoint point{sample.time_ns,
                     {},
                     value.latitude_deg,
                     value.longitude_deg,
                     static_cast<double>(value.altitude_m)};
    bool fixed = value.latitude_deg != 0 || value.longitude_deg != 0;
    if constexpr (std::is_same_v<T, Gps>) {
      fixed = fixed && value.fix_type != 0;
      point.gps = &value;
    }
    if (!fixed) {
      ++track.without_fix;
      continue;
    }
    if (!(std::abs(point.latitude_deg) <= 90 && std::abs(point.longitude_deg) <= 180)) {
      ++track.without_place;
      continue;
    }
    if (point.longitude_deg == 180) point.longitude_deg = -180;
    point.utc_ns = Utc(sample, options);
    if (track.segments.empty() ||
        std::abs(Elapsed(last, point)) > static_cast<double>(options.gap_ns)) {
      track.segments.emplace_back();
    } else if (std::abs(Elapsed(track.segments.back().back(), point)) < step_ns) {
      ++track.thinned;
      last = point;
      continue;
    }
    last = point;
    track.segments.back().push_back(point);
    ++track.points;
  }
  return track;
}

}  // namespace

GroundTrack MakeGroundTrack(const Series<Gps>& series, const TrackOptions& options) {
  return Make(series, options);
}
GroundTrack MakeGroundTrack(const Series<GpsMin>& series, const TrackOptions& options) {
  return Make(series, options);
}

double DistanceMetres(double latitude1_deg, double longitude1_deg, double latitude2_deg,
                      double longitude2_deg) {
  constexpr double kRadius = 6371008.8;
  constexpr double kRadians = 3.14159265358979323846 / 180;
  const double height = std::sin((latitude2_deg - latitude1_deg) * kRadians / 2);
  const double width = std::sin((longitude2_deg - longitude1_deg) * kRadians / 2);
  const double chord = height * height + std::cos(latitude1_deg * kRadians) *
                                             std::cos(latitude2_deg * kRadians) * width * width;
  return 2 * kRadius * std::asin(std::sqrt(std::min(chord, 1.0)));
}

}  // namespace camm
