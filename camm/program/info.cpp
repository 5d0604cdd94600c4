// camm info: what a recording holds, on one screen.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "camm/gps_time.h"
#include "camm/ground_track.h"
#include "camm/program/program.h"

namespace camm::program {
namespace {

using nlohmann::ordered_json;

struct InfoOptions {
  CommonOptions common;
  std::vector<std::string> files;
  int stream = -1;
};

/// Times of one sample type, in file order, and what follows from them.
struct Timing {
  std::vector<std::int64_t> times;  // without those that are missing
  std::int64_t first_ns = kNoTime, last_ns = kNoTime;
  std::int64_t median_interval_ns = -1, jitter_ns = -1, largest_gap_ns = -1, gap_start_ns = kNoTime;
  std::int64_t out_of_order = 0;

  void Finish() {
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

  [[nodiscard]] double RateHz() const {
    return median_interval_ns > 0 ? 1e9 / static_cast<double>(median_interval_ns) : 0;
  }

 private:
  static std::int64_t Quantile(std::vector<std::int64_t>& values, double part) {
    const auto at =
        values.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
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

/// Everything that `info` says of one file.
struct Info {
  std::string name;
  ReadResult result;
  std::array<Timing, kTypeCount> timing;
  Range<std::int32_t> exposure_ns, skew_ns;
  Series<Gps> gps;
  Series<GpsMin> gps_min;

  // Gyroscope and accelerometer, sample by sample.
  bool pairs_by_position = false;
  std::int64_t pair_distance_ns = -1;  // the largest; -1: none can be compared

  template <typename T>
  void Add(const Timed<T>& sample) {
    if (sample.time_ns != kNoTime) timing[T::kType].times.push_back(sample.time_ns);
    if constexpr (std::is_same_v<T, Exposure>) {
      exposure_ns.Add(sample.value.pixel_exposure_ns);
      skew_ns.Add(sample.value.rolling_shutter_skew_ns);
    } else if constexpr (std::is_same_v<T, Gps>) {
      gps.push_back(sample);
    } else if constexpr (std::is_same_v<T, GpsMin>) {
      gps_min.push_back(sample);
    }
  }

  void Finish() {
    for (Timing& type : timing) type.Finish();
    const auto& gyro = timing[Gyro::kType].times;
    const auto& accel = timing[Accel::kType].times;
    for (std::size_t i = 0; i < std::min(gyro.size(), accel.size()); ++i) {
      const double distance =
          std::abs(static_cast<double>(gyro[i]) - static_cast<double>(accel[i]));
      pair_distance_ns =
          std::max(pair_distance_ns, static_cast<std::int64_t>(std::min(distance, 9e18)));
    }
    // Half an interval: the nearest sample of the other sensor is then the one at its position.
    pairs_by_position = !gyro.empty() && gyro.size() == accel.size() &&
                        pair_distance_ns <= timing[Gyro::kType].median_interval_ns / 2;
  }
};

/// Where the recording went, over both types of position.
struct Whereabouts {
  std::int64_t samples = 0, fixes = 0, points = 0;
  double length_m = 0;
  Range<double> latitude, longitude, altitude;
  Range<std::int64_t> utc;

  void Add(const GroundTrack& track) {
    points += track.points;
    for (const auto& segment : track.segments) {
      for (std::size_t i = 0; i < segment.size(); ++i) {
        const TrackPoint& point = segment[i];
        latitude.Add(point.latitude_deg);
        longitude.Add(point.longitude_deg);
        if (std::isfinite(point.altitude_m)) altitude.Add(point.altitude_m);
        if (i > 0) {
          length_m += DistanceMetres(segment[i - 1].latitude_deg, segment[i - 1].longitude_deg,
                                     point.latitude_deg, point.longitude_deg);
        }
      }
    }
  }
};

/// Type 6 where it has a fix, else type 5: a file with both holds the same way twice.
Whereabouts FindWhereabouts(const Info& info) {
  Whereabouts where;
  where.samples = static_cast<std::int64_t>(info.gps.size());
  for (const Timed<Gps>& sample : info.gps) {
    where.fixes += sample.value.fix_type != 0;
    if (const auto utc = UtcFromGps(sample.value.time_gps_s)) where.utc.Add(*utc);
  }
  where.Add(MakeGroundTrack(info.gps));
  if (where.points == 0) where.Add(MakeGroundTrack(info.gps_min));
  return where;
}

Info ReadInfo(const InfoOptions& options, const std::string& name) {
  Info info;
  info.name = name;
  ReadOptions reading;
  reading.stream_index = options.stream;
  info.result = Stream({name, nullptr}, reading, [&info](const TimedSample& sample) {
    std::visit(
        [&](const auto& value) {
          info.Add(Timed<std::decay_t<decltype(value)>>{sample.time_ns, value});
        },
        sample.sample);
  });
  info.Finish();
  return info;
}

std::string Seconds(std::int64_t ns) {
  return ns == kNoTime ? "-" : fmt::format("{:.3f}", static_cast<double>(ns) * 1e-9);
}
std::string Milliseconds(std::int64_t ns) {
  return ns < 0 ? "-" : fmt::format("{:.3f}", static_cast<double>(ns) * 1e-6);
}
std::string Rate(double hz) { return hz > 0 ? fmt::format("{:.2f}", hz) : "-"; }

const char* Word(Status status) {
  switch (status) {
    case Status::kWhole:
      return "whole";
    case Status::kPartial:
      return "partial";
    case Status::kCannotOpen:
      return "cannot open";
    case Status::kNoTrack:
      return "no track";
    case Status::kNoSamples:
      return "no samples";
  }
  return "";
}

std::string Text(const Info& info) {
  const ReadResult& result = info.result;
  std::string text = fmt::format("{}\n", Printable(info.name));
  const auto line = [&text](std::string_view label, const std::string& value) {
    text += fmt::format("  {:<10} {}\n", label, value);
  };
  line("format", fmt::format("{}, {} s", Printable(result.format),
                             result.duration_ns < 0 ? "-" : Seconds(result.duration_ns)));
  if (const Video& video = result.video; video.stream_index >= 0) {
    line("video", fmt::format("stream {}: {}, {} x {}, {} frames, {} Hz, from {} s",
                              video.stream_index, Printable(video.codec), video.width, video.height,
                              video.frames < 0 ? "?" : std::to_string(video.frames),
                              Rate(video.frame_rate_hz), Seconds(video.start_ns)));
  }
  for (const Track& track : result.tracks) {
    line("track", fmt::format("stream {}: camm, {} packets, time base {}/{}{}", track.stream_index,
                              track.packets < 0 ? "?" : std::to_string(track.packets),
                              track.time_base_num, track.time_base_den,
                              result.tracks.size() < 2 ? ""
                              : track.read             ? ", read"
                                                       : ", not read"));
  }
  text += fmt::format("  {:<10} {:>9} {:>10} {:>10} {:>9} {:>9} {:>9} {:>9}\n", "type", "samples",
                      "first s", "last s", "rate Hz", "jitter ms", "gap ms", "backwards");
  for (std::size_t type = 0; type < kTypeCount; ++type) {
    if (result.counts[type] == 0) continue;
    const Timing& timing = info.timing[type];
    text += fmt::format("  {:<10} {:>9} {:>10} {:>10} {:>9} {:>9} {:>9} {:>9}\n", TypeName(type),
                        result.counts[type], Seconds(timing.first_ns), Seconds(timing.last_ns),
                        Rate(timing.RateHz()), Milliseconds(timing.jitter_ns),
                        Milliseconds(timing.largest_gap_ns), timing.out_of_order);
  }
  if (result.counts[Gyro::kType] > 0 && result.counts[Accel::kType] > 0) {
    line("pairs", fmt::format("gyroscope and accelerometer {} by position (up to {} ms apart)",
                              info.pairs_by_position ? "pair" : "do not pair",
                              Milliseconds(info.pair_distance_ns)));
  }
  if (info.exposure_ns.any) {
    line("exposure", fmt::format("{:.3f} to {:.3f} ms, rolling shutter {:.3f} to {:.3f} ms",
                                 info.exposure_ns.least * 1e-6, info.exposure_ns.most * 1e-6,
                                 info.skew_ns.least * 1e-6, info.skew_ns.most * 1e-6));
  }
  const Whereabouts where = FindWhereabouts(info);
  if (where.samples > 0) {
    line("gps",
         fmt::format("{:.1f} % with a fix{}",
                     100.0 * static_cast<double>(where.fixes) / static_cast<double>(where.samples),
                     where.utc.any
                         ? ", " + FormatUtc(where.utc.least) + " to " + FormatUtc(where.utc.most)
                         : ", no UTC"));
  }
  if (where.points > 0) {
    line(
        "place",
        fmt::format("latitude {:.6f} to {:.6f}, longitude {:.6f} to {:.6f}{}", where.latitude.least,
                    where.latitude.most, where.longitude.least, where.longitude.most,
                    where.altitude.any ? fmt::format(", {:.1f} to {:.1f} m high",
                                                     where.altitude.least, where.altitude.most)
                                       : ""));
    line("way", fmt::format("{:.1f} m over {} points", where.length_m, where.points));
  }
  return text;
}

template <typename T>
ordered_json Span(const Range<T>& range) {
  if (!range.any) return nullptr;
  return ordered_json::array({range.least, range.most});
}
ordered_json Time(std::int64_t ns) { return ns == kNoTime ? ordered_json() : ordered_json(ns); }
ordered_json NotNegative(std::int64_t value) {
  return value < 0 ? ordered_json() : ordered_json(value);
}

ordered_json Json(const Info& info) {
  const ReadResult& result = info.result;
  ordered_json json{{"file", info.name},
                    {"status", Word(result.status)},
                    {"error", result.error},
                    {"format", result.format},
                    {"duration_ns", NotNegative(result.duration_ns)}};
  json["video"] = nullptr;
  if (const Video& video = result.video; video.stream_index >= 0) {
    json["video"] = {{"stream", video.stream_index},
                     {"codec", video.codec},
                     {"width", video.width},
                     {"height", video.height},
                     {"frames", NotNegative(video.frames)},
                     {"frame_rate_hz", video.frame_rate_hz},
                     {"start_ns", Time(video.start_ns)},
                     {"duration_ns", NotNegative(video.duration_ns)}};
  }
  json["tracks"] = ordered_json::array();
  for (const Track& track : result.tracks) {
    json["tracks"].push_back({{"stream", track.stream_index},
                              {"packets", NotNegative(track.packets)},
                              {"time_base", {track.time_base_num, track.time_base_den}},
                              {"start_ns", Time(track.start_ns)},
                              {"duration_ns", NotNegative(track.duration_ns)},
                              {"read", track.read}});
  }
  json["packets"] = result.packets;
  json["types"] = ordered_json::object();
  for (std::size_t type = 0; type < kTypeCount; ++type) {
    if (result.counts[type] == 0) continue;
    const Timing& timing = info.timing[type];
    json["types"][std::string(TypeName(type))] = {
        {"samples", result.counts[type]},
        {"first_ns", Time(timing.first_ns)},
        {"last_ns", Time(timing.last_ns)},
        {"rate_hz", timing.RateHz() > 0 ? ordered_json(timing.RateHz()) : ordered_json()},
        {"jitter_ns", NotNegative(timing.jitter_ns)},
        {"largest_gap_ns", NotNegative(timing.largest_gap_ns)},
        {"largest_gap_at_ns", Time(timing.gap_start_ns)},
        {"out_of_order", timing.out_of_order}};
  }
  json["pairs_by_position"] = info.pairs_by_position;
  json["pair_distance_ns"] = NotNegative(info.pair_distance_ns);
  json["pixel_exposure_ns"] = Span(info.exposure_ns);
  json["rolling_shutter_skew_ns"] = Span(info.skew_ns);
  const Whereabouts where = FindWhereabouts(info);
  json["gps"] = {{"samples", where.samples},
                 {"with_fix", where.fixes},
                 {"points", where.points},
                 {"length_m", where.length_m},
                 {"latitude_deg", Span(where.latitude)},
                 {"longitude_deg", Span(where.longitude)},
                 {"altitude_m", Span(where.altitude)},
                 {"first_utc", nullptr},
                 {"last_utc", nullptr}};
  if (where.utc.any) {
    json["gps"]["first_utc"] = FormatUtc(where.utc.least);
    json["gps"]["last_utc"] = FormatUtc(where.utc.most);
  }
  json["problems"] = ordered_json::array();
  for (const Problem& problem : result.problems) {
    json["problems"].push_back({{"count", problem.count},
                                {"first_time_ns", Time(problem.first_time_ns)},
                                {"text", problem.text}});
  }
  return json;
}

int RunInfo(const InfoOptions& options) {
  OutputFiles output(/*force=*/false);
  formats::TextOut& out = output.StandardOutput();
  ordered_json all = ordered_json::array();
  int worst = kExitWhole;
  for (const std::string& name : options.files) {
    const Info info = ReadInfo(options, name);
    ReportReading(options.common, name, info.result);
    if (options.common.json) {
      all.push_back(Json(info));
    } else if (info.result.status != Status::kCannotOpen) {
      out << Text(info);
    }
    const int code = static_cast<int>(info.result.status);
    if (code != kExitWhole) worst = options.files.size() == 1 ? code : kExitPartial;
  }
  if (options.common.json) {
    const ordered_json& shown = options.files.size() == 1 ? all.front() : all;
    out << shown.dump(2, ' ', false, ordered_json::error_handler_t::replace) << '\n';
  }
  (void)output.Commit();
  return worst;
}

}  // namespace

void AddInfo(CLI::App& app, Run& run) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* verb = AddVerb(app, "info", "Say what a recording holds, on one screen.",
                           "camm info ride.mp4", options->common);
  verb->add_option("FILE", options->files, "Video files")->required();
  verb->add_option(
      "--stream", options->stream,
      "Index of the stream to read (default: the first camm track that holds packets)");
  verb->callback([&run, options] { run = [options] { return RunInfo(*options); }; });
}

}  // namespace camm::program
