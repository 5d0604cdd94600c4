// Samples between samples: sorted series, and values at any time.
#ifndef CAMM_INTERPOLATION_H_
#define CAMM_INTERPOLATION_H_

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

#include "camm/recording.h"

namespace camm {

/// A series in the order of time, each time once, and what was left out for that.
template <typename T>
struct SortedSeries {
  Series<T> samples;
  std::int64_t without_time = 0;
  std::int64_t repeated = 0;  ///< another sample had the same time; the first in the file stays
};

template <typename T>
SortedSeries<T> Sorted(const Series<T>& series) {
  SortedSeries<T> sorted;
  sorted.samples.reserve(series.size());
  for (const Timed<T>& sample : series) {
    if (sample.time_ns != kNoTime) sorted.samples.push_back(sample);
  }
  sorted.without_time = static_cast<std::int64_t>(series.size() - sorted.samples.size());
  const auto earlier = [](const Timed<T>& a, const Timed<T>& b) { return a.time_ns < b.time_ns; };
  if (!std::is_sorted(sorted.samples.begin(), sorted.samples.end(), earlier)) {
    std::stable_sort(sorted.samples.begin(), sorted.samples.end(), earlier);
  }
  const auto end =
      std::unique(sorted.samples.begin(), sorted.samples.end(),
                  [](const Timed<T>& a, const Timed<T>& b) { return a.time_ns == b.time_ns; });
  sorted.repeated = sorted.samples.end() - end;
  sorted.samples.erase(end, sorted.samples.end());
  return sorted;
}

/// The value between `a` and `b`: linear in every field, the short way round in longitude, the
/// shortest rotation for orientations; whole numbers are those of the nearer sample.
/// @param part 0 (exactly `a`) to 1 (exactly `b`).
template <typename T>
T Between(const T& a, const T& b, double part);
template <>
AngleAxis Between(const AngleAxis& a, const AngleAxis& b, double part);

/// Values of a series at any time, by interpolation. Never outside the series: what was not
/// measured is not made up. Asking in the order of time costs the least.
///
/// Not thread-safe. Does not own the samples.
template <typename T>
class Interpolator {
 public:
  /// @param samples of a `SortedSeries`, which must outlive this.
  explicit Interpolator(const Series<T>& samples) : samples_(samples) {}

  /// The value at a time; nothing before the first sample and after the last.
  std::optional<T> At(std::int64_t time_ns) {
    if (!Seek(time_ns)) return std::nullopt;
    const Timed<T>& after = samples_[next_];
    if (after.time_ns == time_ns) return after.value;
    const Timed<T>& before = samples_[next_ - 1];
    // Unsigned: times may lie further apart than a signed difference holds.
    const auto distance = [](std::int64_t from, std::int64_t to) {
      return static_cast<double>(static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from));
    };
    return Between(before.value, after.value,
                   distance(before.time_ns, time_ns) / distance(before.time_ns, after.time_ns));
  }

  /// The sample nearest to a time, of two the earlier; null if none is within the tolerance.
  const Timed<T>* Nearest(std::int64_t time_ns, std::int64_t tolerance_ns) {
    if (samples_.empty()) return nullptr;
    const bool inside = Seek(time_ns);
    const auto distance = [&](std::size_t i) {
      const std::int64_t at = samples_[i].time_ns;
      const auto a = static_cast<std::uint64_t>(at);
      const auto b = static_cast<std::uint64_t>(time_ns);
      return at > time_ns ? a - b : b - a;
    };
    std::size_t nearest = inside || next_ == 0 ? next_ : samples_.size() - 1;
    if (inside && next_ > 0 && distance(next_ - 1) <= distance(next_)) nearest = next_ - 1;
    return distance(nearest) <= static_cast<std::uint64_t>(tolerance_ns) ? &samples_[nearest]
                                                                         : nullptr;
  }

 private:
  // Sets `next_` to the first sample not before the time. Whether there is one, and either one
  // before it or it has that very time.
  bool Seek(std::int64_t time_ns) {
    if (next_ > 0 && samples_[next_ - 1].time_ns >= time_ns) next_ = 0;
    // Near the last answer first, then by halves.
    for (int step = 0; step < 8 && next_ < samples_.size(); ++step, ++next_) {
      if (samples_[next_].time_ns >= time_ns) break;
    }
    next_ = static_cast<std::size_t>(
        std::lower_bound(samples_.begin() + static_cast<std::ptrdiff_t>(next_), samples_.end(),
                         time_ns, [](const Timed<T>& s, std::int64_t t) { return s.time_ns < t; }) -
        samples_.begin());
    return next_ < samples_.size() && (next_ > 0 || samples_[next_].time_ns == time_ns);
  }

  const Series<T>& samples_;
  std::size_t next_ = 0;
};

template <typename T>
T Between(const T& a, const T& b, double part) {
  T value = part < 0.5 ? a : b;
  if (part == 0 || part == 1) return value;
  // Fields are visited one struct at a time: collect `b`'s and walk along.
  std::array<double, 16> ends{};
  std::size_t field = 0;
  T::Fields(b, [&](std::string_view, const auto& f) { ends[field++] = static_cast<double>(f); });
  std::array<double, 16> starts{};
  field = 0;
  T::Fields(a, [&](std::string_view, const auto& f) { starts[field++] = static_cast<double>(f); });
  field = 0;
  T::Fields(value, [&](std::string_view name, auto& f) {
    using Field = std::decay_t<decltype(f)>;
    if constexpr (std::is_floating_point_v<Field>) {
      double from = starts[field];
      const double to = ends[field];
      if (name == "longitude_deg" && std::abs(to - from) > 180) from += to > from ? 360 : -360;
      double at = from * (1 - part) + to * part;
      if (name == "longitude_deg" && at > 180) at -= 360;
      if (name == "longitude_deg" && at < -180) at += 360;
      f = static_cast<Field>(at);
    }
    ++field;
  });
  return value;
}

}  // namespace camm

#endif  // CAMM_INTERPOLATION_H_
