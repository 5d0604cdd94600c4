#include "camm/program/track_output.h"

#include <fmt/format.h>

#include <charconv>
#include <nlohmann/json.hpp>

namespace camm::program {
namespace {

constexpr int kPlaces = 9;  // nanoseconds

/// Digits as a number; nothing where there is anything else.
std::optional<std::int64_t> Digits(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace

std::int64_t ParseSeconds(std::string_view text) {
  std::string_view rest = text;
  const bool negative = !rest.empty() && rest.front() == '-';
  if (!rest.empty() && (rest.front() == '-' || rest.front() == '+')) rest.remove_prefix(1);
  const std::size_t point = rest.find('.');
  std::string digits(rest.substr(0, point));
  std::string places(point == std::string_view::npos ? "" : rest.substr(point + 1));
  if (places.size() > kPlaces) places.resize(kPlaces);
  const bool empty = digits.empty() && places.empty();
  places.resize(kPlaces, '0');
  const auto nanoseconds = Digits(digits + places);
  if (empty || !nanoseconds) throw UsageError(fmt::format("'{}' is no time in seconds", text));
  return negative ? -*nanoseconds : *nanoseconds;
}

TimeRange ParseRange(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    throw UsageError(fmt::format("'{}' is no range START:END in seconds", text));
  }
  TimeRange range;
  if (colon > 0) range.start_ns = ParseSeconds(text.substr(0, colon));
  if (colon + 1 < text.size()) range.end_ns = ParseSeconds(text.substr(colon + 1));
  if (range.start_ns && range.end_ns && *range.end_ns <= *range.start_ns) {
    throw UsageError(fmt::format("the range '{}' is empty", text));
  }
  return range;
}

std::int64_t Moved(std::int64_t time_ns, std::int64_t by_ns) {
  if (time_ns == kNoTime) return time_ns;
  std::int64_t moved = 0;
  if (__builtin_add_overflow(time_ns, by_ns, &moved) || moved == kNoTime) {
    throw UsageError("the offset moves times out of range");
  }
  return moved;
}

void FinishTrack(const CommonOptions& common, const std::string& path, TrackWriter& writer,
                 TrackOutcome& outcome) {
  WriteResult& written = outcome.written;
  written = writer.Finish();
  outcome.exit_code = static_cast<int>(written.status);
  if (written.status != Status::kWhole) {
    Message(written.error);
    outcome.error = written.error;
    return;
  }
  if (written.rounding_ns > 0) {
    Note(common, fmt::format("{}: times are rounded by up to {} ns", path, written.rounding_ns));
  }
  Note(common,
       fmt::format("{}: {} packets, {} ticks a second", path, written.packets, written.time_scale));
}

int RunTrackVerb(const CommonOptions& common, const std::string& path,
                 const std::function<void(TrackOutcome&)>& work) {
  TrackOutcome outcome;
  {
    const Progress line(common, [&path] { return "writing " + path; });
    work(outcome);
  }
  if (common.json) {
    const nlohmann::ordered_json shown{{"file", path},
                                       {"exit_code", outcome.exit_code},
                                       {"error", outcome.error},
                                       {"packets", outcome.written.packets},
                                       {"left_out", outcome.left_out},
                                       {"time_scale", outcome.written.time_scale},
                                       {"rounding_ns", outcome.written.rounding_ns}};
    OutputFiles output(/*force=*/false);
    output.StandardOutput() << shown.dump(2, ' ', false,
                                          nlohmann::ordered_json::error_handler_t::replace)
                            << '\n';
    (void)output.Commit();
  }
  return outcome.exit_code;
}

}  // namespace camm::program
