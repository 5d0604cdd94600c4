#include "camm/program/gpx_points.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "camm/gps_time.h"
#include "camm/ground_track.h"

namespace camm::program {
namespace {

constexpr double kMostPoints = 1e7;  // a day at 100 Hz is less, and all are in memory

struct Point {
  double latitude_deg = 0, longitude_deg = 0, altitude_m = 0;
  std::optional<std::int64_t> utc_ns;
  std::optional<double> speed_m_s, course_deg;
};

std::optional<double> Number(std::string_view text) {
  while (!text.empty() && std::strchr(" \t\r\n", text.front()) != nullptr) text.remove_prefix(1);
  while (!text.empty() && std::strchr(" \t\r\n", text.back()) != nullptr) text.remove_suffix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

/// Collects the points while expat calls it.
class Collector {
 public:
  explicit Collector(XML_Parser parser) : parser_(parser) {
    XML_SetUserData(parser, this);
    XML_SetElementHandler(
        parser,
        [](void* self, const char* name, const char** attributes) {
          static_cast<Collector*>(self)->Start(Local(name), attributes);
        },
        [](void* self, const char* name) { static_cast<Collector*>(self)->End(Local(name)); });
    XML_SetCharacterDataHandler(parser, [](void* self, const char* text, int size) {
      static_cast<Collector*>(self)->text_.append(text, static_cast<std::size_t>(size));
    });
    // No document of this kind declares entities; the ones that do are made to exhaust memory.
    XML_SetEntityDeclHandler(parser, [](void* self, const char*, int, const char*, int, const char*,
                                        const char*, const char*, const char*) {
      static_cast<Collector*>(self)->Fail("it declares entities");
    });
  }

  std::vector<Point> points;
  std::string problem;

 private:
  static std::string_view Local(const char* name) {
    const char* colon = std::strrchr(name, ':');
    return colon != nullptr ? colon + 1 : name;
  }
  void Fail(const std::string& what) {
    if (problem.empty()) problem = what;
    XML_StopParser(parser_, XML_FALSE);
  }

  void Start(std::string_view name, const char** attributes) {
    text_.clear();
    if (name != "trkpt") return;
    inside_ = true;
    points.emplace_back();
    bool placed[2] = {false, false};
    for (; attributes[0] != nullptr; attributes += 2) {
      const auto value = Number(attributes[1]);
      if (!value) continue;
      if (std::strcmp(attributes[0], "lat") == 0) {
        points.back().latitude_deg = *value;
        placed[0] = std::abs(*value) <= 90;
      } else if (std::strcmp(attributes[0], "lon") == 0) {
        points.back().longitude_deg = *value;
        placed[1] = std::abs(*value) <= 180;
      }
    }
    if (!placed[0] || !placed[1]) Fail("a track point has no latitude or longitude");
  }

  void End(std::string_view name) {
    if (inside_) {
      Point& point = points.back();
      if (name == "trkpt") inside_ = false;
      if (name == "ele") point.altitude_m = Number(text_).value_or(0);
      if (name == "speed") point.speed_m_s = Number(text_);
      if (name == "course") point.course_deg = Number(text_);
      if (name == "time") {
        point.utc_ns = ParseUtc(text_);
        if (!point.utc_ns) Fail("'" + text_ + "' is no time");
      }
    }
    text_.clear();
  }

  XML_Parser parser_;
  bool inside_ = false;  // a track point
  std::string text_;
};

std::vector<Point> Parse(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw LogError(path + ": cannot be opened");
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
      XML_ParserCreate(nullptr), &XML_ParserFree);
  if (!parser) throw std::bad_alloc();
  Collector collector(parser.get());
  std::array<char, 65536> piece{};
  bool last = false;
  while (!last) {
    file.read(piece.data(), piece.size());
    if (file.bad()) throw LogError(path + ": cannot be read");
    last = file.eof();
    if (XML_Parse(parser.get(), piece.data(), static_cast<int>(file.gcount()), last ? 1 : 0) ==
        XML_STATUS_OK) {
      continue;
    }
    const std::string what = collector.problem.empty()
                                 ? XML_ErrorString(XML_GetErrorCode(parser.get()))
                                 : collector.problem;
    std::string place = path;
    place.append(":").append(std::to_string(XML_GetCurrentLineNumber(parser.get()))).append(": ");
    throw LogError(place + what);
  }
  return std::move(collector.points);
}

struct Velocity {
  double east = 0, north = 0, up = 0;
};

/// Metres a second between two points.
Velocity Between(const Point& a, const Point& b) {
  const double seconds =
      a.utc_ns && b.utc_ns ? static_cast<double>(*b.utc_ns - *a.utc_ns) / 1e9 : 0;
  if (!(seconds > 0)) return {};
  const auto along = [&](double latitude, double longitude) {
    return DistanceMetres(a.latitude_deg, a.longitude_deg, latitude, longitude) / seconds;
  };
  return {std::copysign(along(a.latitude_deg, b.longitude_deg),
                        std::remainder(b.longitude_deg - a.longitude_deg, 360)),
          std::copysign(along(b.latitude_deg, a.longitude_deg), b.latitude_deg - a.latitude_deg),
          (b.altitude_m - a.altitude_m) / seconds};
}

Sample ToSample(const Point& point, const Velocity& around, std::optional<int> leap_seconds) {
  if (!point.utc_ns) return GpsMin{point.latitude_deg, point.longitude_deg, point.altitude_m};
  Velocity velocity = around;
  if (point.speed_m_s && point.course_deg) {
    const double course = *point.course_deg * M_PI / 180;
    velocity.east = *point.speed_m_s * std::sin(course);
    velocity.north = *point.speed_m_s * std::cos(course);
  }
  Gps gps;
  gps.time_gps_s = GpsFromUtc(*point.utc_ns, leap_seconds);
  gps.fix_type = 3;
  gps.latitude_deg = point.latitude_deg;
  gps.longitude_deg = point.longitude_deg;
  gps.altitude_m = static_cast<float>(point.altitude_m);
  gps.velocity_east_m_s = static_cast<float>(velocity.east);
  gps.velocity_north_m_s = static_cast<float>(velocity.north);
  gps.velocity_up_m_s = static_cast<float>(velocity.up);
  return gps;
}

Point Mixed(const Point& a, const Point& b, double part) {
  Point mixed = a;
  mixed.latitude_deg += (b.latitude_deg - a.latitude_deg) * part;
  // The short way round, also over the date line.
  mixed.longitude_deg = std::remainder(
      a.longitude_deg + std::remainder(b.longitude_deg - a.longitude_deg, 360) * part, 360);
  mixed.altitude_m += (b.altitude_m - a.altitude_m) * part;
  if (a.utc_ns && b.utc_ns) {
    mixed.utc_ns = *a.utc_ns + std::llround(static_cast<double>(*b.utc_ns - *a.utc_ns) * part);
  }
  if (a.speed_m_s && b.speed_m_s && a.course_deg && b.course_deg) {
    mixed.speed_m_s = *a.speed_m_s + (*b.speed_m_s - *a.speed_m_s) * part;
    mixed.course_deg = *a.course_deg + std::remainder(*b.course_deg - *a.course_deg, 360) * part;
  }
  return mixed;
}

}  // namespace

std::vector<TimedSample> ReadGpx(const std::string& path, const LogOptions& options) {
  const std::vector<Point> points = Parse(path);
  if (points.empty()) throw LogError(path + ": there is no track point");
  std::vector<std::int64_t> times(points.size());
  const std::int64_t first_utc = options.start_unix_ns.value_or(points.front().utc_ns.value_or(0));
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (points[i].utc_ns.has_value() != points.front().utc_ns.has_value()) {
      throw LogError(path + ": some track points have a time and some have not");
    }
    if (__builtin_sub_overflow(
            points[i].utc_ns.value_or(static_cast<std::int64_t>(i) * 1'000'000'000), first_utc,
            &times[i])) {
      throw LogError(path + ": a time is out of range");
    }
  }
  // From here on differences fit.
  const auto [earliest, latest] = std::minmax_element(times.begin(), times.end());
  if (std::int64_t span = 0; __builtin_sub_overflow(*latest, *earliest, &span)) {
    throw LogError(path + ": a time is out of range");
  }
  std::vector<TimedSample> samples;
  if (!(options.rate_hz > 0)) {
    for (std::size_t i = 0; i < points.size(); ++i) {
      const Point& before = points[i > 0 ? i - 1 : i];
      const Point& after = points[i + 1 < points.size() ? i + 1 : i];
      samples.push_back(
          {times[i], ToSample(points[i], Between(before, after), options.leap_seconds)});
    }
    return samples;
  }
  const double interval_ns = 1e9 / options.rate_hz;
  const double length_ns = static_cast<double>(times.back()) - static_cast<double>(times.front());
  if (length_ns / interval_ns > kMostPoints) {
    throw LogError(path + ": that rate gives too many points");
  }
  std::size_t next = 1;  // the first point after the time
  for (std::int64_t i = 0;; ++i) {
    const double behind_first = static_cast<double>(i) * interval_ns;
    if (behind_first > length_ns) break;
    const std::int64_t time = times.front() + std::llround(behind_first);
    while (next + 1 < points.size() && times[next] <= time) ++next;
    const std::size_t last = std::min(next, points.size() - 1);
    const std::size_t first = last > 0 ? last - 1 : 0;
    const auto step = static_cast<double>(times[last] - times[first]);
    const double part =
        step > 0 ? std::clamp(static_cast<double>(time - times[first]) / step, 0.0, 1.0) : 0.0;
    samples.push_back({time, ToSample(Mixed(points[first], points[last], part),
                                      Between(points[first], points[last]), options.leap_seconds)});
  }
  return samples;
}

}  // namespace camm::program
