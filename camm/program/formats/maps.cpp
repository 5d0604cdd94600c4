// gpx, geojson, kml: the way over ground.
//
// GPX 1.1: https://www.topografix.com/GPX/1/1/; speed and course in Garmin's extension
// https://www8.garmin.com/xmlschemas/TrackPointExtensionv2.xsd
// GeoJSON: RFC 7946; the times beside the coordinates as several tools write and read them.
// KML 2.2 with Google's track: https://developers.google.com/kml/documentation/kmlreference#gxtrack

#include <cmath>
#include <string>

#include "camm/gps_time.h"
#include "camm/program/formats/formats.h"

namespace camm::formats {
namespace {

/// One sample type's way.
struct Way {
  std::string_view name;
  GroundTrack track;
};

/// The types that have points: each is a track of its own.
std::vector<Way> Ways(const Source& source, Report& report) {
  const Recording& recording = source.recording;
  std::vector<Way> ways;
  if (recording.Of<Gps>().empty() && recording.Of<GpsMin>().empty()) {
    report.notes.emplace_back("no GPS samples");
  }
  for (Way way :
       {Way{Gps::kName, MakeGroundTrack(recording.Of<Gps>(), source.options.track)},
        Way{GpsMin::kName, MakeGroundTrack(recording.Of<GpsMin>(), source.options.track)}}) {
    NoteCount(report, way.track.without_fix, "points without a fix");
    NoteCount(report, way.track.without_place, "points that are nowhere on Earth");
    NoteCount(report, way.track.thinned, "points above the rate");
    if (way.track.points > 0) ways.push_back(std::move(way));
  }
  return ways;
}

std::string JsonText(std::string_view text) {
  std::string escaped;
  for (const char character : Printable(text)) {
    if (character == '"' || character == '\\') escaped += '\\';
    escaped += character;
  }
  return escaped;
}

/// Without an exponent, and with no more digits than common readers of XML take (libxml2: 24).
template <typename T>
TextOut& WriteDecimal(TextOut& out, T number) {
  if (std::abs(number) >= static_cast<T>(1e-6)) return out.Plain(number);
  return out.Plain(std::round(static_cast<double>(number) * 1e15) / 1e15);
}

void WriteVelocity(TextOut& out, const Gps& gps) {
  const float speed = std::hypot(gps.velocity_east_m_s, gps.velocity_north_m_s);
  if (!std::isfinite(speed)) return;
  out << "<extensions><gpxtpx:TrackPointExtension><gpxtpx:speed>";
  out.Plain(speed) << "</gpxtpx:speed>";
  if (speed > 0) {
    constexpr double kDegrees = 180 / 3.14159265358979323846;
    auto course =
        static_cast<float>(std::atan2(gps.velocity_east_m_s, gps.velocity_north_m_s) * kDegrees);
    if (course < 0) course += 360;
    if (course >= 360) course = 0;
    out << "<gpxtpx:course>";
    WriteDecimal(out, course) << "</gpxtpx:course>";
  }
  out << "</gpxtpx:TrackPointExtension></extensions>";
}

/// Whether the way from one to the other leads over the 180th meridian, which a line must not.
bool CrossesDateLine(const TrackPoint& from, const TrackPoint& to) {
  return std::abs(to.longitude_deg - from.longitude_deg) > 180;
}

/// The segment's parts between date line crossings.
std::vector<std::vector<TrackPoint>> Parts(const std::vector<TrackPoint>& segment) {
  std::vector<std::vector<TrackPoint>> parts;
  for (const TrackPoint& point : segment) {
    if (parts.empty() || CrossesDateLine(parts.back().back(), point)) parts.emplace_back();
    parts.back().push_back(point);
  }
  return parts;
}

bool AllHaveUtc(const std::vector<TrackPoint>& points) {
  for (const TrackPoint& point : points) {
    if (!point.utc_ns) return false;
  }
  return true;
}

bool HasAltitude(const TrackPoint& point) {
  return std::abs(point.altitude_m) < 1e9;  // what is higher was not measured
}

/// With the digits that the sample's own type has.
void WriteAltitude(TextOut& out, const TrackPoint& point) {
  if (point.gps != nullptr) {
    WriteDecimal(out, point.gps->altitude_m);
  } else {
    WriteDecimal(out, point.altitude_m);
  }
}

void WriteFeature(TextOut& out, const Source& source, const Way& way,
                  const std::vector<TrackPoint>& points) {
  const auto each = [&](auto&& write) {
    for (std::size_t i = 0; i < points.size(); ++i) {
      if (i > 0) out << ',';
      write(points[i]);
    }
  };
  out << R"({"type":"Feature","properties":{"name":")" << JsonText(source.options.name)
      << R"(","sample_type":")" << way.name << R"(","time_ns":[)";
  each([&](const TrackPoint& point) {
    if (point.time_ns == kNoTime) {
      out << "null";
    } else {
      out << point.time_ns;
    }
  });
  out << ']';
  if (AllHaveUtc(points)) {
    out << R"(,"coordTimes":[)";
    each([&](const TrackPoint& point) { out << '"' << FormatUtc(*point.utc_ns) << '"'; });
    out << ']';
  }
  // A line has two points or more.
  const bool line = points.size() > 1;
  out << R"(},"geometry":{"type":")" << (line ? "LineString" : "Point") << R"(","coordinates":)"
      << (line ? "[" : "");
  each([&](const TrackPoint& point) {
    out << '[' << point.longitude_deg << ',' << point.latitude_deg;
    if (HasAltitude(point)) {
      out << ',';
      WriteAltitude(out, point);
    }
    out << ']';
  });
  out << (line ? "]" : "") << "}}";
}

void WriteCoordinates(TextOut& out, const TrackPoint& point, char between) {
  WriteDecimal(out, point.longitude_deg) << between;
  WriteDecimal(out, point.latitude_deg);
  if (!HasAltitude(point)) return;
  out << between;
  WriteAltitude(out, point);
}

}  // namespace

Report WriteGpx(const Source& source, Files& files) {
  Report report;
  const std::vector<Way> ways = Ways(source, report);
  if (ways.empty()) return report;
  TextOut& out = files.Create(source.options.name + ".gpx");
  out << R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx version="1.1" creator="camm" xmlns="http://www.topografix.com/GPX/1/1" xmlns:gpxtpx="http://www.garmin.com/xmlschemas/TrackPointExtension/v2">
)";
  for (const Way& way : ways) {
    out << "<trk><name>" << Escaped(Printable(source.options.name)) << "</name><src>camm "
        << way.name << "</src>\n";
    for (const auto& segment : way.track.segments) {
      out << "<trkseg>\n";
      for (const TrackPoint& point : segment) {
        out << "<trkpt lat=\"";
        WriteDecimal(out, point.latitude_deg) << "\" lon=\"";
        WriteDecimal(out, point.longitude_deg) << "\">";
        if (HasAltitude(point)) {
          out << "<ele>";
          WriteAltitude(out, point);
          out << "</ele>";
        }
        if (point.utc_ns) out << "<time>" << FormatUtc(*point.utc_ns) << "</time>";
        if (point.gps != nullptr) {
          const int fix = point.gps->fix_type;
          if (fix == 2 || fix == 3) out << "<fix>" << fix << "d</fix>";
          WriteVelocity(out, *point.gps);
        }
        out << "</trkpt>\n";
      }
      out << "</trkseg>\n";
    }
    out << "</trk>\n";
  }
  out << "</gpx>\n";
  report.written = true;
  return report;
}

Report WriteGeoJson(const Source& source, Files& files) {
  Report report;
  const std::vector<Way> ways = Ways(source, report);
  if (ways.empty()) return report;
  TextOut& out = files.Create(source.options.name + ".geojson");
  out << R"({"type":"FeatureCollection","features":[)";
  const char* between = "\n";
  for (const Way& way : ways) {
    for (const auto& segment : way.track.segments) {
      for (const auto& part : Parts(segment)) {
        out << between;
        WriteFeature(out, source, way, part);
        between = ",\n";
      }
    }
  }
  out << "\n]}\n";
  report.written = true;
  return report;
}

Report WriteKml(const Source& source, Files& files) {
  Report report;
  const std::vector<Way> ways = Ways(source, report);
  if (ways.empty()) return report;
  TextOut& out = files.Create(source.options.name + ".kml");
  out << R"(<?xml version="1.0" encoding="UTF-8"?>
<kml xmlns="http://www.opengis.net/kml/2.2" xmlns:gx="http://www.google.com/kml/ext/2.2">
<Document><name>)"
      << Escaped(Printable(source.options.name)) << "</name>\n";
  for (const Way& way : ways) {
    for (const auto& segment : way.track.segments) {
      out << "<Placemark><name>" << way.name << "</name>";
      if (AllHaveUtc(segment)) {
        out << "<gx:Track>\n";
        for (const TrackPoint& point : segment) {
          out << "<when>" << FormatUtc(*point.utc_ns) << "</when>\n";
        }
        for (const TrackPoint& point : segment) {
          out << "<gx:coord>";
          WriteCoordinates(out, point, ' ');
          out << "</gx:coord>\n";
        }
        out << "</gx:Track>";
      } else {
        const bool line = segment.size() > 1;
        out << (line ? "<LineString><coordinates>\n" : "<Point><coordinates>\n");
        for (const TrackPoint& point : segment) {
          WriteCoordinates(out, point, ',');
          out << '\n';
        }
        out << (line ? "</coordinates></LineString>" : "</coordinates></Point>");
      }
      out << "</Placemark>\n";
    }
  }
  out << "</Document>\n</kml>\n";
  report.written = true;
  return report;
}

}  // namespace camm::formats
