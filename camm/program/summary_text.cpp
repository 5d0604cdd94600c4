#include "camm/program/summary_text.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "camm/gps_time.h"
#include "camm/program/program.h"

namespace camm::program {
namespace {

using nlohmann::ordered_json;

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

template <typename T>
ordered_json Span(const Range<T>& range) {
  if (!range.any) return nullptr;
  return ordered_json::array({range.least, range.most});
}
ordered_json Time(std::int64_t ns) { return ns == kNoTime ? ordered_json() : ordered_json(ns); }
ordered_json NotNegative(std::int64_t value) {
  return value < 0 ? ordered_json() : ordered_json(value);
}

}  // namespace

std::string SummaryText(const std::string& name, const Summary& info) {
  const ReadResult& result = info.result;
  std::string text = fmt::format("{}\n", Printable(name));
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
  const Whereabouts& where = info.where;
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

std::string SummaryJson(const std::string& name, const Summary& info) {
  const ReadResult& result = info.result;
  ordered_json json{{"file", name},
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
  const Whereabouts& where = info.where;
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
  return json.dump(2, ' ', false, ordered_json::error_handler_t::replace);
}

std::string WhyUnread(const ReadResult& result) {
  switch (result.status) {
    case Status::kCannotOpen:
      return "cannot be read: " + result.error;
    case Status::kNoTrack:
      return "no camm track";
    case Status::kNoSamples:
      return "the camm track holds no samples";
    case Status::kPartial:
      return "damaged or cut: what could be read is there";
    case Status::kWhole:
      break;
  }
  return {};
}

}  // namespace camm::program
