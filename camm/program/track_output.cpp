#include "camm/program/track_output.h"

#include <fmt/format.h>

#include <charconv>

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

int FinishTrack(const CommonOptions& common, const std::string& path, TrackWriter& writer) {
  const WriteResult result = writer.Finish();
  if (result.status != Status::kWhole) {
    Message(result.error);
    return static_cast<int>(result.status);
  }
  if (result.rounding_ns > 0) {
    Note(common, fmt::format("{}: times are rounded by up to {} ns", path, result.rounding_ns));
  }
  Note(common,
       fmt::format("{}: {} packets, {} ticks a second", path, result.packets, result.time_scale));
  return kExitWhole;
}

}  // namespace camm::program
