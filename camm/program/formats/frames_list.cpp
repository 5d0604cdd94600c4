// frames, odm, colmap: a row a video frame.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "camm/interpolation.h"
#include "camm/program/formats/formats.h"

namespace camm::formats {
namespace {

/// Half of the median time between two frames.
std::int64_t HalfFrame(const std::vector<std::int64_t>& pts_ns) {
  std::vector<std::int64_t> intervals;
  for (std::size_t i = 1; i < pts_ns.size(); ++i) {
    std::int64_t interval = 0;
    if (!__builtin_sub_overflow(pts_ns[i], pts_ns[i - 1], &interval)) intervals.push_back(interval);
  }
  if (intervals.empty()) return 0;
  const auto middle = intervals.begin() + static_cast<std::ptrdiff_t>(intervals.size() / 2);
  std::nth_element(intervals.begin(), middle, intervals.end());
  return *middle / 2;
}

/// The place at any time: type 6 where it has points, else type 5; not within gaps.
class Places {
 public:
  explicit Places(const Source& source) {
    TrackOptions options = source.options.track;
    options.rate_hz = 0;
    GroundTrack track = MakeGroundTrack(source.recording.Of<Gps>(), options);
    if (track.points == 0) track = MakeGroundTrack(source.recording.Of<GpsMin>(), options);
    for (const auto& segment : track.segments) {
      Series<GpsMin> points;
      for (const TrackPoint& point : segment) {
        points.push_back(
            {point.time_ns, {point.latitude_deg, point.longitude_deg, point.altitude_m}});
      }
      segments_.push_back(Sorted(points).samples);
    }
    for (const auto& segment : segments_) lookups_.emplace_back(segment);
  }

  std::optional<GpsMin> At(std::int64_t time_ns) {
    for (auto& lookup : lookups_) {
      if (const auto place = lookup.At(time_ns)) return place;
    }
    return std::nullopt;
  }

 private:
  std::vector<Series<GpsMin>> segments_;  // no longer changes once the lookups refer to it
  std::vector<Interpolator<GpsMin>> lookups_;
};

/// One frame, and what is known of it.
struct Frame {
  std::size_t number;  // from 0
  std::int64_t pts_ns;
  const Timed<Exposure>* exposure;  // null: none near
  std::int64_t middle_ns;           // the middle row's mid-exposure
  std::optional<GpsMin> place;
  std::optional<Position> position;
};

std::int64_t MidExposure(std::int64_t pts_ns, const Timed<Exposure>* exposure) {
  if (exposure == nullptr) return pts_ns;
  const std::int64_t half =
      (std::int64_t{exposure->value.pixel_exposure_ns} + exposure->value.rolling_shutter_skew_ns) /
      2;
  std::int64_t middle = 0;
  return __builtin_add_overflow(pts_ns, half, &middle) ? pts_ns : middle;
}

double Distance(const Frame& a, const Frame& b) {
  if (a.place && b.place) {
    return DistanceMetres(a.place->latitude_deg, a.place->longitude_deg, b.place->latitude_deg,
                          b.place->longitude_deg);
  }
  if (a.position && b.position) {
    return std::hypot(a.position->x_m - b.position->x_m, a.position->y_m - b.position->y_m,
                      a.position->z_m - b.position->z_m);
  }
  return std::numeric_limits<double>::infinity();
}

/// Owns the series that frames are looked up in.
class FrameTable {
 public:
  FrameTable(const Source& source, Report& report)
      : exposures_(Sorted(source.recording.Of<Exposure>()).samples),
        positions_(Sorted(source.recording.Of<Position>()).samples) {
    const Options& options = source.options;
    const std::vector<std::int64_t>& pts_ns = source.frames.pts_ns;
    if (pts_ns.empty()) {
      report.notes.push_back("no video frames" +
                             (source.frames.error.empty() ? "" : ": " + source.frames.error));
    }
    const std::int64_t tolerance =
        options.tolerance_ns >= 0 ? options.tolerance_ns : HalfFrame(pts_ns);
    Interpolator<Exposure> exposure(exposures_);
    Interpolator<Position> position(positions_);
    Places places(source);
    std::int64_t unplaced = 0;
    std::int64_t skipped = 0;
    for (std::size_t i = 0; i < pts_ns.size(); ++i) {
      Frame frame{i, pts_ns[i], exposure.Nearest(pts_ns[i], tolerance), 0, {}, {}};
      frame.middle_ns = MidExposure(frame.pts_ns, frame.exposure);
      frame.place = places.At(frame.middle_ns);
      frame.position = position.At(frame.middle_ns);
      without_exposure_ += frame.exposure == nullptr;
      if (options.every_metres > 0) {
        if (!frame.place && !frame.position) {
          ++unplaced;
          continue;
        }
        if (!frames_.empty() && Distance(frames_.back(), frame) < options.every_metres) {
          ++skipped;
          continue;
        }
      }
      frames_.push_back(frame);
    }
    NoteCount(report, unplaced, "frames without a position");
    NoteCount(report, skipped, "frames nearer than --every-metres");
  }

  [[nodiscard]] const std::vector<Frame>& frames() const { return frames_; }
  [[nodiscard]] std::int64_t without_exposure() const { return without_exposure_; }

 private:
  Series<Exposure> exposures_;
  Series<Position> positions_;
  std::vector<Frame> frames_;
  std::int64_t without_exposure_ = 0;
};

template <typename T>
void WriteNames(TextOut& out) {
  T value;
  T::Fields(value, [&out](std::string_view name, const auto&) { out << ',' << name; });
}

template <typename T>
void WriteCells(TextOut& out, const std::optional<T>& value) {
  const T fields = value.value_or(T{});
  T::Fields(fields, [&](std::string_view, const auto& field) {
    out << ',';
    if (value) out << field;
  });
}

/// The pattern with its `%d` or `%06d` replaced.
std::string ImageName(const std::string& pattern, std::size_t number) {
  const std::size_t at = pattern.find('%');
  const std::size_t end = pattern.find('d', at);
  std::string digits = std::to_string(number);
  if (at == std::string::npos || end == std::string::npos) return pattern + digits;
  const std::size_t width = end > at + 1 ? static_cast<std::size_t>(pattern[end - 1] - '0') : 0;
  if (digits.size() < width) digits.insert(0, width - digits.size(), '0');
  return pattern.substr(0, at) + digits + pattern.substr(end + 1);
}

void WriteNumber(TextOut& out, double number) {
  out << ' ';
  out.Plain(std::isfinite(number) ? number : 0);
}

}  // namespace

Report WriteFrames(const Source& source, Files& files) {
  Report report;
  const FrameTable table(source, report);
  if (table.frames().empty()) return report;
  if (table.without_exposure() > 0 && !source.recording.Of<Exposure>().empty()) {
    report.notes.push_back(std::to_string(table.without_exposure()) +
                           " frames have no exposure near");
  }
  const bool interpolate = source.options.interpolate;
  const auto orientations = Sorted(source.recording.Of<AngleAxis>()).samples;
  const auto rates = Sorted(source.recording.Of<Gyro>()).samples;
  const auto forces = Sorted(source.recording.Of<Accel>()).samples;
  Interpolator<AngleAxis> orientation(orientations);
  Interpolator<Gyro> rate(rates);
  Interpolator<Accel> force(forces);

  TextOut& out = files.Create("frames.csv");
  out << "frame,pts_ns,exposure_ns,skew_ns";
  if (interpolate) {
    out << ",mid_exposure_ns";
    WriteNames<GpsMin>(out);
    WriteNames<Position>(out);
    WriteNames<AngleAxis>(out);
    WriteNames<Gyro>(out);
    WriteNames<Accel>(out);
  }
  out << '\n';
  for (const Frame& frame : table.frames()) {
    out << frame.number << ',' << frame.pts_ns << ',';
    if (frame.exposure != nullptr) {
      out << frame.exposure->value.pixel_exposure_ns << ','
          << frame.exposure->value.rolling_shutter_skew_ns;
    } else {
      out << ',';
    }
    if (interpolate) {
      out << ',' << frame.middle_ns;
      WriteCells(out, frame.place);
      WriteCells(out, frame.position);
      WriteCells(out, orientation.At(frame.middle_ns));
      WriteCells(out, rate.At(frame.middle_ns));
      WriteCells(out, force.At(frame.middle_ns));
    }
    out << '\n';
  }
  report.written = true;
  return report;
}

// https://docs.opendronemap.org/geo/
Report WriteOdm(const Source& source, Files& files) {
  Report report;
  const FrameTable table(source, report);
  TextOut* out = nullptr;
  std::int64_t unplaced = 0;
  for (const Frame& frame : table.frames()) {
    if (!frame.place) {
      ++unplaced;
      continue;
    }
    if (out == nullptr) {
      out = &files.Create("geo.txt");
      *out << "EPSG:4326\n";
    }
    *out << ImageName(source.options.images, frame.number + 1);
    WriteNumber(*out, frame.place->longitude_deg);
    WriteNumber(*out, frame.place->latitude_deg);
    if (std::isfinite(frame.place->altitude_m)) WriteNumber(*out, frame.place->altitude_m);
    *out << '\n';
  }
  NoteCount(report, unplaced, "frames without a position");
  report.written = out != nullptr;
  return report;
}

// https://colmap.github.io/faq.html, "Geo-registration": name and three coordinates a line.
Report WriteColmap(const Source& source, Files& files) {
  Report report;
  const FrameTable table(source, report);
  const bool on_earth = std::any_of(table.frames().begin(), table.frames().end(),
                                    [](const Frame& frame) { return frame.place.has_value(); });
  TextOut* out = nullptr;
  std::int64_t unplaced = 0;
  for (const Frame& frame : table.frames()) {
    // All in one frame of reference.
    if (on_earth ? !frame.place : !frame.position) {
      ++unplaced;
      continue;
    }
    if (out == nullptr) out = &files.Create("colmap.txt");
    *out << ImageName(source.options.images, frame.number + 1);
    if (on_earth) {
      WriteNumber(*out, frame.place->latitude_deg);
      WriteNumber(*out, frame.place->longitude_deg);
      WriteNumber(*out, frame.place->altitude_m);
    } else {
      WriteNumber(*out, frame.position->x_m);
      WriteNumber(*out, frame.position->y_m);
      WriteNumber(*out, frame.position->z_m);
    }
    *out << '\n';
  }
  if (out != nullptr && !on_earth)
    report.notes.emplace_back("no GPS: positions in the local frame");
  NoteCount(report, unplaced, "frames without a position");
  report.written = out != nullptr;
  return report;
}

}  // namespace camm::formats
