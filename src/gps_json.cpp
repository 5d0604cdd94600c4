#include "gps_json.h"

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

namespace lum::vela {
namespace {

constexpr int kSignificantDigits = 15;

void AppendNumber(std::string& out, int64_t value) {
  std::array<char, 24> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  out.append(text.data(), end);
}

// As "%.15g" prints in the C locale, whatever the process's locale is.
void AppendNumber(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value,
                                 std::chars_format::general, kSignificantDigits)
                       .ptr;
  const std::string_view printed(text.data(), static_cast<size_t>(end - text.data()));
  out += printed;
  if (printed.find_first_of(".e") == std::string_view::npos) out += ".0";
}

// Writes one object, a member at a time; members must come in ascending order of their keys.
class ObjectWriter {
 public:
  explicit ObjectWriter(std::string& out) : out_(out) { out_ += '{'; }

  template <typename T>
  void Member(std::string_view key, T value) {
    if (!first_) out_ += ',';
    first_ = false;
    out_ += '"';
    out_ += key;
    out_ += "\":";
    AppendNumber(out_, value);
  }

  void End() { out_ += '}'; }

 private:
  std::string& out_;
  bool first_ = true;
};

void AppendRecord(std::string& out, const GpsRecord& record) {
  const auto integer = [](auto value) { return int64_t{value}; };
  const auto real = [](auto value) { return double{value}; };
  ObjectWriter object(out);
  object.Member("altitude", real(record.altitude));
  object.Member("dts", record.dts_ms);
  object.Member("gps_fix_type", integer(record.gps_fix_type));
  object.Member("horizontal_accuracy", real(record.horizontal_accuracy));
  object.Member("latitude", record.latitude);
  object.Member("longitude", record.longitude);
  if (record.has_exposure) {
    object.Member("pixel_exposure_time", integer(record.pixel_exposure_time));
  }
  object.Member("pts", record.pts_ms);
  if (record.has_exposure) {
    object.Member("rolling_shutter_skew_time", integer(record.rolling_shutter_skew_time));
  }
  object.Member("speed_accuracy", real(record.speed_accuracy));
  object.Member("time_gps_epoch", record.time_gps_epoch);
  object.Member("velocity_east", real(record.velocity_east));
  object.Member("velocity_north", real(record.velocity_north));
  object.Member("velocity_up", real(record.velocity_up));
  object.Member("vertical_accuracy", real(record.vertical_accuracy));
  if (record.has_motion) {
    object.Member("x", real(record.x));
    object.Member("y", real(record.y));
    object.Member("z", real(record.z));
  }
  object.End();
}

}  // namespace

std::string GpsJson(const std::deque<GpsRecord>& records) {
  if (records.empty()) return "null";
  std::string out = R"({"extended_gps_info":[)";
  for (const GpsRecord& record : records) {
    if (out.back() == '}') out += ',';
    AppendRecord(out, record);
  }
  out += "]}";
  return out;
}

}  // namespace lum::vela
