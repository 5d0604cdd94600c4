#include "camm/program/motion_log.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "camm/program/gpx_points.h"

namespace camm::program {
namespace {

namespace fs = std::filesystem;

constexpr double kStandardGravity = 9.80665;  // m/s^2
constexpr double kMicroteslaPerGauss = 100;

/// The next sample of a file, in the file's order; false at the end.
using Source = std::function<bool(TimedSample&)>;

/// A text file, line by line.
class Lines {
 public:
  explicit Lines(std::string path) : path_(std::move(path)), file_(path_, std::ios::binary) {
    if (!file_) throw LogError(path_ + ": cannot be opened");
  }
  /// Without the line's end; empty lines are left out.
  bool Next(std::string_view& line) {
    while (std::getline(file_, text_)) {
      ++number_;
      if (!text_.empty() && text_.back() == '\r') text_.pop_back();
      if (text_.empty()) continue;
      line = text_;
      return true;
    }
    if (file_.bad()) throw LogError(path_ + ": cannot be read");
    return false;
  }
  [[noreturn]] void Fail(const std::string& what) const {
    throw LogError(path_ + ":" + std::to_string(number_) + ": " + what);
  }

 private:
  std::string path_;
  std::ifstream file_;
  std::string text_;
  std::int64_t number_ = 0;
};

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

void Split(std::string_view line, std::vector<std::string_view>& cells) {
  cells.clear();
  for (;;) {
    const std::size_t comma = line.find(',');
    cells.push_back(Trimmed(line.substr(0, comma)));
    if (comma == std::string_view::npos) return;
    line.remove_prefix(comma + 1);
  }
}

/// The nearest number of the field's own type, so that text which was made from one gives it back.
template <typename T>
bool Parse(std::string_view text, T& value) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

template <typename T>
T Number(const Lines& lines, std::string_view text) {
  T value{};
  if (!Parse(text, value)) lines.Fail("'" + std::string(text) + "' is no number that fits here");
  return value;
}

/// No text stands for no time.
std::int64_t Time(const Lines& lines, std::string_view text) {
  return text.empty() ? kNoTime : Number<std::int64_t>(lines, text);
}

/// Nanoseconds of a number in other units; no overflow.
std::int64_t ScaledTime(const Lines& lines, double nanoseconds) {
  if (!(std::abs(nanoseconds) < 9.2e18)) lines.Fail("a time is out of range");
  return std::llround(nanoseconds);
}

/// Calls `use` with a default sample of the type that has this name.
template <typename Use, std::size_t... kTypes>
bool WithType(std::string_view name, Use&& use, std::index_sequence<kTypes...>) {
  return ((std::variant_alternative_t<kTypes, Sample>::kName == name
               ? (use(std::variant_alternative_t<kTypes, Sample>()), true)
               : false) ||
          ...);
}

/// Where each of a type's fields stands among the columns, `time_ns` first.
template <typename T>
bool FindColumns(const std::vector<std::string_view>& header, std::vector<std::size_t>& columns) {
  std::vector<std::string_view> names{"time_ns"};
  T sample;
  T::Fields(sample, [&names](std::string_view name, const auto&) { names.push_back(name); });
  columns.clear();
  for (const std::string_view name : names) {
    const auto found = std::find(header.begin(), header.end(), name);
    if (found == header.end()) return false;
    columns.push_back(static_cast<std::size_t>(found - header.begin()));
  }
  return true;
}

template <typename T>
Source TypedCsv(std::shared_ptr<Lines> lines, std::vector<std::size_t> columns,
                std::size_t cell_count) {
  return [lines = std::move(lines), columns = std::move(columns), cell_count,
          cells = std::vector<std::string_view>()](TimedSample& out) mutable {
    std::string_view line;
    if (!lines->Next(line)) return false;
    Split(line, cells);
    if (cells.size() != cell_count) {
      lines->Fail("there are " + std::to_string(cells.size()) + " columns in place of " +
                  std::to_string(cell_count));
    }
    out.time_ns = Time(*lines, cells[columns[0]]);
    T sample;
    std::size_t field = 1;
    T::Fields(sample, [&](std::string_view, auto& value) {
      value = Number<std::decay_t<decltype(value)>>(*lines, cells[columns[field++]]);
    });
    out.sample = sample;
    return true;
  };
}

/// Rows that hold several samples each: `fill` turns the cells into samples, last one first.
template <typename Fill>
Source Rows(std::shared_ptr<Lines> lines, std::size_t least_cells, Fill fill) {
  return [lines = std::move(lines), least_cells, fill, cells = std::vector<std::string_view>(),
          waiting = std::vector<TimedSample>()](TimedSample& out) mutable {
    while (waiting.empty()) {
      std::string_view line;
      if (!lines->Next(line)) return false;
      Split(line, cells);
      if (cells.size() < least_cells) lines->Fail("there are too few columns");
      fill(*lines, cells, waiting);
    }
    out = waiting.back();
    waiting.pop_back();
    return true;
  };
}

template <typename T>
T Vector(const Lines& lines, const std::vector<std::string_view>& cells, std::size_t first,
         double scale) {
  T sample;
  T::Fields(sample, [&](std::string_view, auto& value) {
    value = static_cast<float>(Number<double>(lines, cells[first++]) * scale);
  });
  return sample;
}

/// EuRoC's and Kalibr's rows: a stamp in nanoseconds, the rates, the accelerations.
Source ImuRows(std::shared_ptr<Lines> lines) {
  return Rows(std::move(lines), 7,
              [](const Lines& at, const std::vector<std::string_view>& cells,
                 std::vector<TimedSample>& out) {
                const std::int64_t time_ns = Time(at, cells[0]);
                out.push_back({time_ns, Vector<Accel>(at, cells, 4, 1)});
                out.push_back({time_ns, Vector<Gyro>(at, cells, 1, 1)});
              });
}

/// A CSV file, by its header.
Source Csv(const std::string& path) {
  auto lines = std::make_shared<Lines>(path);
  std::string_view line;
  if (!lines->Next(line)) throw LogError(path + ": the file is empty");
  std::vector<std::string_view> header;
  Split(line, header);
  if (header[0] == "#timestamp [ns]" || header[0] == "#timestamp" || header[0] == "timestamp") {
    return ImuRows(std::move(lines));
  }
  Source source;
  std::size_t most = 0;  // one type's columns are part of another's
  const auto try_type = [&](auto sample) {
    using T = decltype(sample);
    std::vector<std::size_t> columns;
    if (!FindColumns<T>(header, columns) || columns.size() <= most) return;
    most = columns.size();
    source = TypedCsv<T>(lines, columns, header.size());
  };
  const auto try_all = [&](auto... samples) { (try_type(samples), ...); };
  try_all(AngleAxis(), Exposure(), Gyro(), Accel(), Position(), GpsMin(), Gps(), Magnetic());
  if (!source) lines->Fail("these are no columns of a known sample type");
  return source;
}

/// Collects the names and values of one flat object, numbers as they are written.
class FlatObject : public nlohmann::json_sax<nlohmann::json> {
 public:
  std::vector<std::pair<std::string, std::string>> members;

  [[nodiscard]] const std::string* Find(std::string_view name) const {
    for (const auto& [key, value] : members) {
      if (key == name) return &value;
    }
    return nullptr;
  }

  bool null() override { return Value("nan"); }
  bool boolean(bool /*value*/) override { return Value("boolean"); }
  bool number_integer(number_integer_t value) override { return Value(std::to_string(value)); }
  bool number_unsigned(number_unsigned_t value) override { return Value(std::to_string(value)); }
  bool number_float(number_float_t /*value*/, const string_t& text) override { return Value(text); }
  bool string(string_t& value) override { return Value(value); }
  bool binary(binary_t& /*value*/) override { return false; }
  bool start_object(std::size_t /*size*/) override { return depth_++ == 0; }
  bool key(string_t& name) override {
    members.emplace_back(name, "");
    return true;
  }
  bool end_object() override { return true; }
  bool start_array(std::size_t /*size*/) override { return false; }
  bool end_array() override { return false; }
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return false;
  }

 private:
  bool Value(std::string text) {
    if (members.empty()) return false;
    members.back().second = std::move(text);
    return true;
  }
  int depth_ = 0;
};

Source Jsonl(const std::string& path) {
  return [lines = std::make_shared<Lines>(path)](TimedSample& out) {
    std::string_view line;
    if (!lines->Next(line)) return false;
    FlatObject object;
    if (!nlohmann::json::sax_parse(line, &object)) lines->Fail("this is no flat JSON object");
    const std::string* type = object.Find("type");
    const std::string* time = object.Find("time_ns");
    if (type == nullptr || time == nullptr) lines->Fail("'type' or 'time_ns' is missing");
    const bool known = WithType(
        *type,
        [&](auto sample) {
          decltype(sample)::Fields(sample, [&](std::string_view name, auto& value) {
            const std::string* text = object.Find(name);
            if (text == nullptr) lines->Fail("'" + std::string(name) + "' is missing");
            value = Number<std::decay_t<decltype(value)>>(*lines, *text);
          });
          out.sample = sample;
        },
        std::make_index_sequence<kTypeCount>());
    if (!known) lines->Fail("'" + *type + "' is no sample type");
    out.time_ns = *time == "nan" ? kNoTime : Time(*lines, *time);
    return true;
  };
}

Source Gcsv(const std::string& path, std::vector<std::string>& remarks) {
  auto lines = std::make_shared<Lines>(path);
  double time_scale = 0.001;
  double gyro_scale = 1;
  double accel_scale = 1;
  double field_scale = 1;
  std::vector<std::string_view> cells;
  for (std::string_view line;;) {
    if (!lines->Next(line)) lines->Fail("the log has no table");
    Split(line, cells);
    if (cells[0] == "t" || cells[0] == "time") break;
    if (cells.size() < 2) continue;
    for (const auto& [key, scale] : {std::pair{"tscale", &time_scale},
                                     {"gscale", &gyro_scale},
                                     {"ascale", &accel_scale},
                                     {"mscale", &field_scale}}) {
      if (cells[0] == key) *scale = Number<double>(*lines, cells[1]);
    }
    if (cells[0] == "orientation" && cells[1] != "XYZ") {
      remarks.push_back(path + ": the axes are taken as they are, not turned by orientation " +
                        std::string(cells[1]));
    }
  }
  const auto column = [&cells](std::string_view name) {
    const auto found = std::find(cells.begin(), cells.end(), name);
    return found != cells.end() ? static_cast<std::size_t>(found - cells.begin()) : std::size_t{0};
  };
  // Column 0 is the time: it stands for none.
  const std::size_t gyro = column("gx");
  const std::size_t accel = column("ax");
  const std::size_t field = column("mx");
  if (gyro == 0 && accel == 0 && field == 0) lines->Fail("the table has no column gx, ax or mx");
  return Rows(
      std::move(lines), std::max({gyro, accel, field}) + 3,
      [=](const Lines& at, const std::vector<std::string_view>& row,
          std::vector<TimedSample>& out) {
        const std::int64_t time_ns =
            ScaledTime(at, Number<double>(at, row[0]) * (time_scale * 1e9));
        if (field != 0) {
          out.push_back(
              {time_ns, Vector<Magnetic>(at, row, field, field_scale * kMicroteslaPerGauss)});
        }
        if (accel != 0) {
          out.push_back({time_ns, Vector<Accel>(at, row, accel, accel_scale * kStandardGravity)});
        }
        if (gyro != 0) out.push_back({time_ns, Vector<Gyro>(at, row, gyro, gyro_scale)});
      });
}

Source Gpx(const std::string& path, const LogOptions& options) {
  auto points = std::make_shared<std::vector<TimedSample>>(ReadGpx(path, options));
  return [points = std::move(points), next = std::size_t{0}](TimedSample& out) mutable {
    if (next == points->size()) return false;
    out = (*points)[next++];
    return true;
  };
}

std::vector<Source> Open(const std::string& path, const LogOptions& options,
                         std::vector<std::string>& remarks) {
  std::vector<Source> sources;
  std::error_code ignored;
  if (fs::is_directory(path, ignored)) {
    for (const char* imu : {"mav0/imu0/data.csv", "imu0/data.csv", "data.csv"}) {
      const fs::path file = fs::path(path) / imu;
      if (sources.empty() && fs::exists(file, ignored)) sources.push_back(Csv(file.string()));
    }
    if (!sources.empty()) return sources;
    for (std::size_t type = 0; type < kTypeCount; ++type) {
      const fs::path file = fs::path(path) / (std::string(TypeName(type)) + ".csv");
      if (fs::exists(file, ignored)) sources.push_back(Csv(file.string()));
    }
    if (sources.empty()) throw LogError(path + ": the folder holds no file that camm export names");
    return sources;
  }
  std::string extension = fs::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  if (extension == ".jsonl" || extension == ".ndjson") {
    sources.push_back(Jsonl(path));
  } else if (extension == ".gcsv") {
    sources.push_back(Gcsv(path, remarks));
  } else if (extension == ".gpx") {
    sources.push_back(Gpx(path, options));
  } else {
    sources.push_back(Csv(path));
  }
  return sources;
}

}  // namespace

std::vector<std::string> ReadMotionLog(const std::string& path, const LogOptions& options,
                                       const std::function<void(const TimedSample&)>& on_sample) {
  std::vector<std::string> remarks;
  struct Head {
    Source next;
    TimedSample sample;
  };
  std::vector<Head> heads;
  for (Source& source : Open(path, options, remarks)) {
    Head head{std::move(source), {}};
    if (head.next(head.sample)) heads.push_back(std::move(head));
  }
  while (!heads.empty()) {
    // The earliest; of equal ones the first, so that types keep their order.
    const auto first = std::min_element(
        heads.begin(), heads.end(),
        [](const Head& a, const Head& b) { return a.sample.time_ns < b.sample.time_ns; });
    on_sample(first->sample);
    if (!first->next(first->sample)) heads.erase(first);
  }
  return remarks;
}

}  // namespace camm::program
