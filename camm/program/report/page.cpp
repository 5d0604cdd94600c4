#include "camm/program/report/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "camm/check.h"
#include "camm/ground_track.h"
#include "camm/program/program.h"
#include "camm/program/report/assets.h"
#include "camm/program/summary_text.h"
#include "camm/summary.h"

namespace camm::program::report {
namespace {

using nlohmann::json;

// Up to this many samples a chart holds them as they are.
constexpr std::size_t kMostPlain = 4096;
// Spans of time at each resolution; the finest resolve a second of a ten-minute recording into 54.
constexpr std::size_t kSpans[] = {1024, 8192, 32768};
// Points of the way.
constexpr std::size_t kMostPoints = 4000;

std::string Base64(const void* data, std::size_t size) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::string text;
  text.reserve((size + 2) / 3 * 4);
  for (std::size_t i = 0; i < size; i += 3) {
    unsigned group = 0;
    for (std::size_t k = 0; k < 3; ++k) group = group << 8U | (i + k < size ? bytes[i + k] : 0U);
    for (std::size_t k = 0; k < 4; ++k) {
      text += i + k > size ? '=' : kDigits[group >> (18 - 6 * k) & 63U];
    }
  }
  return text;
}

template <typename T>
std::string Base64(const std::vector<T>& values) {
  return Base64(values.data(), values.size() * sizeof(T));
}

double Seconds(std::int64_t ns) { return static_cast<double>(ns) * 1e-9; }

/// Some numbers over time.
struct Curve {
  std::string id, title, unit;
  std::vector<std::string> labels;
  std::vector<double> times;               // seconds, ascending once `Sort` was called
  std::vector<std::vector<float>> values;  // one vector a label

  void Sort() {
    if (std::is_sorted(times.begin(), times.end())) return;
    std::vector<std::size_t> order(times.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [this](std::size_t a, std::size_t b) { return times[a] < times[b]; });
    const auto reorder = [&order](auto& sequence) {
      auto ordered = sequence;
      for (std::size_t i = 0; i < order.size(); ++i) ordered[i] = sequence[order[i]];
      sequence = std::move(ordered);
    };
    reorder(times);
    for (auto& value : values) reorder(value);
  }
};

/// A curve of a series: `fields` are multiplied by `factor`.
template <typename T>
Curve MakeCurve(const Series<T>& series, const char* title, const char* unit,
                const std::vector<std::pair<std::string, std::string_view>>& fields,
                double factor = 1) {
  Curve curve;
  curve.id = fields.size() > 1 ? std::string(T::kName) : std::string(fields.front().second);
  curve.title = title;
  curve.unit = unit;
  for (const auto& field : fields) curve.labels.push_back(field.first);
  curve.values.resize(fields.size());
  for (const Timed<T>& sample : series) {
    if (sample.time_ns == kNoTime) continue;
    curve.times.push_back(Seconds(sample.time_ns));
    T::Fields(sample.value, [&](std::string_view name, auto value) {
      for (std::size_t i = 0; i < fields.size(); ++i) {
        if (fields[i].second == name) {
          curve.values[i].push_back(static_cast<float>(static_cast<double>(value) * factor));
        }
      }
    });
  }
  curve.Sort();
  return curve;
}

/// The time between neighbouring samples: shows rate, jitter and gaps.
Curve MakeIntervals(const Timing& timing, const char* title, const char* id) {
  Curve curve;
  curve.id = id;
  curve.title = title;
  curve.unit = "ms";
  curve.labels = {"interval"};
  curve.values.resize(1);
  for (std::size_t i = 1; i < timing.times.size(); ++i) {
    curve.times.push_back(Seconds(timing.times[i]));
    curve.values[0].push_back(static_cast<float>(
        (static_cast<double>(timing.times[i]) - static_cast<double>(timing.times[i - 1])) * 1e-6));
  }
  curve.Sort();
  return curve;
}

/// Least and greatest value of each of `count` equal spans, as fractions of the whole range in 16
/// bits; -32768 where a span holds no number.
json Level(const Curve& curve, std::size_t count) {
  const double start = curve.times.front();
  const double step = (curve.times.back() - start) / static_cast<double>(count);
  json level{{"start", start}, {"step", step}, {"count", count}};
  for (const std::vector<float>& values : curve.values) {
    constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
    std::vector<float> least(count, kNone);
    std::vector<float> most(count, kNone);
    float low = kNone;
    float high = kNone;
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (!std::isfinite(values[i])) continue;
      const double place = (curve.times[i] - start) / step;
      const std::size_t span = std::min(static_cast<std::size_t>(std::max(place, 0.0)), count - 1);
      least[span] = std::fmin(least[span], values[i]);
      most[span] = std::fmax(most[span], values[i]);
      low = std::fmin(low, values[i]);
      high = std::fmax(high, values[i]);
    }
    const double unit = (static_cast<double>(high) - low) / 65534;
    const auto stored = [&](float value) {
      if (!std::isfinite(value)) return std::int16_t{-32768};
      const double steps = unit > 0 ? (static_cast<double>(value) - low) / unit : 0;
      return static_cast<std::int16_t>(std::lround(steps) - 32767);
    };
    std::vector<std::int16_t> pairs;
    pairs.reserve(2 * count);
    for (std::size_t i = 0; i < count; ++i) {
      pairs.push_back(stored(least[i]));
      pairs.push_back(stored(most[i]));
    }
    level["values"].push_back(Base64(pairs));
    level["scales"].push_back({{"low", low}, {"step", unit}});
  }
  return level;
}

json Chart(const Curve& curve) {
  json chart{{"id", curve.id},
             {"title", curve.title},
             {"unit", curve.unit},
             {"labels", curve.labels},
             {"summary", fmt::format("{} samples", curve.times.size())}};
  if (curve.times.size() <= kMostPlain || !(curve.times.back() > curve.times.front())) {
    chart["times"] = Base64(curve.times);
    for (const auto& values : curve.values) chart["values"].push_back(Base64(values));
    return chart;
  }
  for (const std::size_t count : kSpans) {
    if (count < curve.times.size()) chart["levels"].push_back(Level(curve, count));
  }
  return chart;
}

std::vector<Curve> Curves(const Recording& recording, const Summary& summary) {
  using Fields = std::vector<std::pair<std::string, std::string_view>>;
  std::vector<Curve> curves;
  curves.push_back(MakeCurve(recording.Of<Gyro>(), "Angular rate", "rad/s",
                             Fields{{"x", "x_rad_s"}, {"y", "y_rad_s"}, {"z", "z_rad_s"}}));
  curves.push_back(MakeCurve(recording.Of<Accel>(), "Acceleration", "m/s²",
                             Fields{{"x", "x_m_s2"}, {"y", "y_m_s2"}, {"z", "z_m_s2"}}));
  curves.push_back(MakeCurve(recording.Of<Magnetic>(), "Magnetic field", "µT",
                             Fields{{"x", "x_ut"}, {"y", "y_ut"}, {"z", "z_ut"}}));
  curves.push_back(MakeCurve(recording.Of<AngleAxis>(), "Orientation (rotation vector)", "rad",
                             Fields{{"x", "x_rad"}, {"y", "y_rad"}, {"z", "z_rad"}}));
  curves.push_back(MakeCurve(recording.Of<Position>(), "Position", "m",
                             Fields{{"x", "x_m"}, {"y", "y_m"}, {"z", "z_m"}}));
  curves.push_back(MakeCurve(recording.Of<Exposure>(), "Exposure time", "ms",
                             Fields{{"exposure", "pixel_exposure_ns"}}, 1e-6));
  curves.push_back(MakeCurve(recording.Of<Exposure>(), "Rolling shutter skew", "ms",
                             Fields{{"skew", "rolling_shutter_skew_ns"}}, 1e-6));
  curves.push_back(
      MakeCurve(recording.Of<Gps>(), "Altitude", "m", Fields{{"altitude", "altitude_m"}}));
  curves.push_back(MakeIntervals(summary.timing[Gyro::kType], "Time between gyroscope samples",
                                 "gyro_interval"));
  curves.push_back(MakeIntervals(summary.timing[Accel::kType], "Time between accelerometer samples",
                                 "accel_interval"));
  curves.erase(std::remove_if(curves.begin(), curves.end(),
                              [](const Curve& curve) { return curve.times.empty(); }),
               curves.end());
  return curves;
}

/// The way, as `FindWhereabouts` chooses it: type 6 where it can be placed, else type 5.
json Track(const Recording& recording) {
  GroundTrack track = MakeGroundTrack(recording.Of<Gps>());
  if (track.points == 0) track = MakeGroundTrack(recording.Of<GpsMin>());
  json way{{"time", json::array()},  {"latitude", json::array()}, {"longitude", json::array()},
           {"speed", json::array()}, {"fix", json::array()},      {"start", json::array()}};
  const std::size_t every = static_cast<std::size_t>(track.points) / kMostPoints + 1;
  for (const auto& segment : track.segments) {
    for (std::size_t i = 0; i < segment.size(); ++i) {
      if (i % every != 0 && i + 1 != segment.size()) continue;
      const TrackPoint& point = segment[i];
      way["time"].push_back(Seconds(point.time_ns));
      way["latitude"].push_back(point.latitude_deg);
      way["longitude"].push_back(point.longitude_deg);
      way["start"].push_back(i == 0);
      way["speed"].push_back(nullptr);
      way["fix"].push_back(nullptr);
      if (point.gps == nullptr) continue;
      way["speed"].back() = std::hypot(point.gps->velocity_east_m_s, point.gps->velocity_north_m_s);
      way["fix"].back() = point.gps->fix_type;
    }
  }
  way["summary"] = fmt::format("{} points", track.points);
  return way;
}

json Findings(const std::string& path, const Recording& recording) {
  json findings = json::array();
  for (const Finding& found : Check(path, recording).findings) {
    json finding{{"severity", found.severity == Severity::kNote ? "note" : "error"},
                 {"time", nullptr},
                 {"text", found.detail}};
    if (found.time_ns != kNoTime) finding["time"] = Seconds(found.time_ns);
    findings.push_back(std::move(finding));
  }
  return findings;
}

/// JSON that cannot end the element it stands in.
std::string ForScript(const json& data) {
  std::string text = data.dump(-1, ' ', false, json::error_handler_t::replace);
  for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;) {
    text.replace(at, 1, "\\u003c");
  }
  return text;
}

/// Everything up to the heading.
std::string Head(const std::string& escaped_title) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<link rel=\"icon\" href=\"data:,\">\n<title>" +
         escaped_title + "</title>\n<style>\n" + kChartStyle + kStyle +
         "</style>\n</head>\n<body>\n<main id=\"body\">\n<h1>" + escaped_title + "</h1>\n";
}

}  // namespace

std::string UrlPath(std::string_view path) {
  std::string url;
  for (const char character : path) {
    const bool plain = std::isalnum(static_cast<unsigned char>(character)) != 0 ||
                       std::string_view("-_.~/").find(character) != std::string_view::npos;
    url += plain ? std::string(1, character)
                 : fmt::format("%{:02X}", static_cast<unsigned char>(character));
  }
  return url;
}

std::string Index(const std::string& items) {
  return Head("Recordings") + "<ul>\n" + items + "</ul>\n</main>\n</body>\n</html>\n";
}

std::string Page(const std::string& name, const Recording& recording) {
  const Summary summary = Summarize(recording);
  const std::vector<Curve> curves = Curves(recording, summary);
  double first = std::numeric_limits<double>::max();
  double last = std::numeric_limits<double>::lowest();
  json data{{"charts", json::array()}};
  for (const Curve& curve : curves) {
    data["charts"].push_back(Chart(curve));
    first = std::min(first, curve.times.front());
    last = std::max(last, curve.times.back());
  }
  data["span"] = {first, std::max(last, first + 1e-3)};
  data["track"] = Track(recording);
  data["findings"] = Findings(name, recording);

  const std::string title = Escaped(Printable(name));
  std::string page = Head(title);
  page += "<pre>" + Escaped(SummaryText(name, summary)) + "</pre>\n";
  page += "<noscript>The charts need JavaScript.</noscript>\n</main>\n";
  page += "<script id=\"data\" type=\"application/json\">" + ForScript(data) + "</script>\n";
  page += "<script>" + std::string(kChartScript) + "</script>\n<script>\n" + kScript;
  page += "</script>\n</body>\n</html>\n";
  return page;
}

}  // namespace camm::program::report
