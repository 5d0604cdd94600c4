#include "camm/summary.h"

#include <cmath>
#include <utility>
#include <variant>

#include "camm/gps_time.h"
#include "camm/ground_track.h"

namespace camm {
namespace {

std::int64_t Quantile(std::vector<std::int64_t>& values, double part) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

void AddTrack(const GroundTrack& track, Whereabouts& where) {
  where.points += track.points;
  for (const auto& segment : track.segments) {
    for (std::size_t i = 0; i < segment.size(); ++i) {
      const TrackPoint& point = segment[i];
      where.latitude.Add(point.latitude_deg);
      where.longitude.Add(point.longitude_deg);
      if (std::isfinite(point.altitude_m)) where.altitude.Add(point.altitude_m);
      if (i > 0) {
        where.length_m += DistanceMetres(segment[i - 1].latitude_deg, segment[i - 1].longitude_deg,
                                         point.latitude_deg, point.longitude_deg);
      }
    }
  }
}

Whereabouts FindWhereabouts(const Series<Gps>& gps, const Series<GpsMin>& gps_min) {
  Whereabouts where;
  where.samples = static_cast<std::int64_t>(gps.size());
  for (const Timed<Gps>& sample : gps) {
    where.fixes += sample.value.fix_type != 0;
    if (const auto utc = UtcFromGps(sample.value.time_gps_s)) where.utc.Add(*utc);
  }
  AddTrack(MakeGroundTrack(gps), where);
  if (where.points == 0) AddTrack(MakeGroundTrack(gps_min), where);
  return where;
}

/// Takes samples one at a time.
class Summation {
 public:
  template <typename T>
  void Add(const Timed<T>& sample) {
    if (sample.time_ns != kNoTime) summary_.timing[T::kType].times.push_back(sample.time_ns);
    if constexpr (std::is_same_v<T, Exposure>) {
      summary_.exposure_ns.Add(sample.value.pixel_exposure_ns);
      summary_.skew_ns.Add(sample.value.rolling_shutter_skew_ns);
    } else if constexpr (std::is_same_v<T, Gps>) {
      gps_.push_back(sample);
    } else if constexpr (std::is_same_v<T, GpsMin>) {
      gps_min_.push_back(sample);
    }
  }

  Summary Finish(ReadResult result) {
    summary_.result = std::move(result);
    for (Timing& type : summary_.timing) type.Finish();
    ComparePairs();
    summary_.where = FindWhereabouts(gps_, gps_min_);
    return std::move(summary_);
  }

 private:
  void ComparePairs() {
    const auto& gyro = summary_.timing[Gyro::kType].times;
    const auto& accel = summary_.timing[Accel::kType].times;
    std::int64_t& largest = summary_.pair_distance_ns;
    for (std::size_t i = 0; i < std::min(gyro.size(), accel.size()); ++i) {
      const double distance =
          std::abs(static_cast<double>(gyro[i]) - static_cast<double>(accel[i]));
      largest = std::max(largest, static_cast<std::int64_t>(std::min(distance, 9e18)));
    }
    // Half an interval: the nearest sample of the other sensor is then the one at its position.
    summary_.pairs_by_position = !gyro.empty() && gyro.size() == accel.size() &&
                                 largest <= summary_.timing[Gyro::kType].median_interval_ns / 2;
  }

  Summary summary_;
  Series<Gps> gps_;
  Series<GpsMin> gps_min_;
};

}  // namespace

void Timing::Finish() {
  if (times.empty()) return;
  const auto [first, last] = std::minmax_element(times.begin(), times.end());
  first_ns = *first;
  last_ns = *last;
  std::vector<std::int64_t> intervals;
  intervals.reserve(times.size());
  for (std::size_t i = 1; i < times.size(); ++i) {
    std::int64_t interval = 0;
    if (__builtin_sub_overflow(times[i], times[i - 1], &interval)) continue;
    if (interval < 0) {
      ++out_of_order;
      continue;
    }
    intervals.push_back(interval);
    if (interval > largest_gap_ns) {
      largest_gap_ns = interval;
      gap_start_ns = times[i - 1];
    }
  }
  if (intervals.empty()) return;
  median_interval_ns = Quantile(intervals, 0.5);
  for (std::int64_t& interval : intervals) interval = std::abs(interval - median_interval_ns);
  jitter_ns = Quantile(intervals, 0.95);
}

Summary Summarize(const Input& input, const ReadOptions& options) {
  Summation sum;
  ReadResult result = Stream(input, options, [&sum](const TimedSample& sample) {
    std::visit(
        [&](const auto& value) {
          sum.Add(Timed<std::decay_t<decltype(value)>>{sample.time_ns, value});
        },
        sample.sample);
  });
  return sum.Finish(std::move(result));
}

Summary Summarize(const Recording& recording) {
  Summation sum;
  std::apply(
      [&sum](const auto&... series) {
        const auto add_all = [&sum](const auto& samples) {
          for (const auto& sample : samples) sum.Add(sample);
        };
        (add_all(series), ...);
      },
      recording.series);
  return sum.Finish(recording.result);
}

}  // namespace camm
