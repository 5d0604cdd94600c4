#include "camm/program/formats/formats.h"

#include <algorithm>

namespace camm::formats {
namespace {

template <typename... Types>
constexpr unsigned kBits = ((1U << Types::kType) | ...);

}  // namespace

const std::vector<Format>& AllFormats() {
  constexpr unsigned kMap = kBits<Gps, GpsMin>;
  constexpr unsigned kPlace = kBits<Gps, GpsMin, Position, Exposure>;
  static const std::vector<Format> kFormats{
      {"csv", "a table a sample type", MakeCsv, nullptr, 0, false},
      {"jsonl", "a JSON object a sample, in file order", MakeJsonl, nullptr, 0, false},
      {"npz", "NumPy arrays", nullptr, WriteNpz, ~0U, false},
      {"gpx", "GPS track", nullptr, WriteGpx, kMap, false},
      {"geojson", "GPS track", nullptr, WriteGeoJson, kMap, false},
      {"kml", "GPS track", nullptr, WriteKml, kMap, false},
      {"gcsv", "IMU log for stabilisers", nullptr, WriteGcsv,
       kBits<Gyro, Accel, Magnetic, Exposure>, false},
      {"euroc", "IMU and frame times as in the EuRoC data sets", nullptr, WriteEuroc,
       kBits<Gyro, Accel>, true},
      {"kalibr", "IMU table for Kalibr", nullptr, WriteKalibr, kBits<Gyro, Accel>, false},
      {"frames", "a row a video frame", nullptr, WriteFrames,
       kPlace | kBits<AngleAxis, Gyro, Accel>, true},
      {"odm", "geo.txt for OpenDroneMap", nullptr, WriteOdm, kPlace, true},
      {"colmap", "image positions for COLMAP", nullptr, WriteColmap, kPlace, true},
  };
  return kFormats;
}

const Format* FindFormat(std::string_view name) {
  const auto& all = AllFormats();
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const Format& f) { return f.name == name; });
  return found == all.end() ? nullptr : &*found;
}

void NoteCount(Report& report, std::int64_t count, std::string_view what) {
  if (count > 0)
    report.notes.push_back(std::to_string(count) + " " + std::string(what) + " left out");
}

}  // namespace camm::formats
