// What a recording holds, in figures: times, rates, gaps, ranges and whereabouts.
#ifndef CAMM_SUMMARY_H_
#define CAMM_SUMMARY_H_

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "camm/recording.h"

namespace camm {

/// Times of one sample type, in file order, and what follows from them. Missing times are left out.
struct Timing {
  std::vector<std::int64_t> times;
  std::int64_t first_ns = kNoTime, last_ns = kNoTime;
  std::int64_t median_interval_ns = -1;
  std::int64_t jitter_ns = -1;  ///< 95 of 100 intervals are no further from the median
  std::int64_t largest_gap_ns = -1, gap_start_ns = kNoTime;
  std::int64_t out_of_order = 0;  ///< samples earlier than the one before

  /// Finds everything else from `times`.
  void Finish();
  /// By the median interval; 0: unknown.
  [[nodiscard]] double RateHz() const {
    return median_interval_ns > 0 ? 1e9 / static_cast<double>(median_interval_ns) : 0;
  }
};

template <typename T>
struct Range {
  T least{}, most{};
  bool any = false;
  void Add(T value) {
    least = any ? std::min(least, value) : value;
    most = any ? std::max(most, value) : value;
    any = true;
  }
};

/// Where the recording went: over type 6 where it has a fix, else type 5, since a file with both
/// holds the same way twice.
struct Whereabouts {
  std::int64_t samples = 0, fixes = 0;  ///< of type 6
  std::int64_t points = 0;              ///< that can be placed
  double length_m = 0;
  Range<double> latitude, longitude, altitude;
  Range<std::int64_t> utc;  ///< Unix time in nanoseconds
};

/// The figures of one file. Memory: 8 bytes a sample, and the GPS samples.
struct Summary {
  ReadResult result;
  std::array<Timing, kTypeCount> timing;
  Range<std::int32_t> exposure_ns, skew_ns;
  Whereabouts where;
  /// Whether the n-th gyroscope and accelerometer samples are of one time, to half an interval.
  bool pairs_by_position = false;
  std::int64_t pair_distance_ns = -1;  ///< the largest; -1: none can be compared
};

/// Reads a file once and sums it up.
Summary Summarize(const Input& input, const ReadOptions& options = {});
/// The same of a recording in memory.
Summary Summarize(const Recording& recording);

}  // namespace camm

#endif  // CAMM_SUMMARY_H_
