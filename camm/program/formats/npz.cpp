// npz: an archive of NumPy arrays, two or more a sample type.
//
// https://numpy.org/doc/stable/reference/generated/numpy.lib.format.html in an uncompressed archive
// (PKWARE's .ZIP application note, APPNOTE.TXT).

#include <cstring>
#include <limits>
#include <stdexcept>
#include <type_traits>

extern "C" {
#include <libavutil/crc.h>
}

#include "camm/program/formats/formats.h"

namespace camm::formats {
namespace {

template <typename T>
void Append(std::string& bytes, T value) {
  static_assert(std::is_trivially_copyable_v<T>);
  char raw[sizeof value];
  std::memcpy(raw, &value, sizeof value);
  bytes.append(raw, sizeof value);
}

/// Members without compression, one after another, and the directory of them.
class Archive {
 public:
  explicit Archive(TextOut& out) : out_(out) {}

  void Add(const std::string& name, const std::string& content) {
    std::string entry;                        // what local header and directory have in common
    Append<std::uint16_t>(entry, 20);         // version needed
    Append<std::uint16_t>(entry, 0);          // flags
    Append<std::uint16_t>(entry, 0);          // stored
    Append<std::uint32_t>(entry, 0x21'0000);  // 1980-01-01 00:00
    Append<std::uint32_t>(entry, Crc(content));
    Append<std::uint32_t>(entry, Size(content.size()));
    Append<std::uint32_t>(entry, Size(content.size()));
    Append<std::uint16_t>(entry, static_cast<std::uint16_t>(name.size()));
    Append<std::uint16_t>(entry, 0);  // no extra field

    directory_ += "PK\x01\x02";
    Append<std::uint16_t>(directory_, 20);  // version made by
    directory_ += entry;
    directory_.append(2 + 2 + 2 + 4, '\0');  // comment, disk, attributes
    Append<std::uint32_t>(directory_, Size(offset_));
    directory_ += name;

    const std::string header = "PK\x03\x04" + entry + name;
    out_ << header << content;
    offset_ += header.size() + content.size();
    ++members_;
  }

  void Finish() {
    std::string end = "PK\x05\x06";
    end.append(4, '\0');  // disks
    Append<std::uint16_t>(end, members_);
    Append<std::uint16_t>(end, members_);
    Append<std::uint32_t>(end, Size(directory_.size()));
    Append<std::uint32_t>(end, Size(offset_));
    Append<std::uint16_t>(end, 0);  // no comment
    out_ << directory_ << end;
  }

 private:
  static std::uint32_t Size(std::size_t size) {
    if (size >= std::numeric_limits<std::uint32_t>::max()) {
      throw std::runtime_error("more than 4 GiB do not fit an .npz archive");
    }
    return static_cast<std::uint32_t>(size);
  }

  static std::uint32_t Crc(const std::string& content) {
    const AVCRC* table = av_crc_get_table(AV_CRC_32_IEEE_LE);
    return av_crc(table, 0xFFFFFFFFU, reinterpret_cast<const std::uint8_t*>(content.data()),
                  content.size()) ^
           0xFFFFFFFFU;
  }

  TextOut& out_;
  std::string directory_;
  std::size_t offset_ = 0;
  std::uint16_t members_ = 0;
};

template <typename T>
constexpr const char* kDescription = std::is_same_v<T, float>          ? "<f4"
                                     : std::is_same_v<T, double>       ? "<f8"
                                     : std::is_same_v<T, std::int32_t> ? "<i4"
                                                                       : "<i8";

/// An array's header, padded so that the data is aligned.
std::string Header(const char* description, std::size_t rows, int columns) {
  std::string header = "{'descr': '" + std::string(description) +
                       "', 'fortran_order': False, 'shape': (" + std::to_string(rows) + "," +
                       (columns > 1 ? " " + std::to_string(columns) : "") + "), }";
  constexpr std::size_t kPrefix = 10;
  constexpr std::size_t kAlignment = 64;
  header.append(kAlignment - (kPrefix + header.size() + 1) % kAlignment, ' ');
  header += '\n';
  std::string prefix = "\x93NUMPY";
  prefix.append({'\x01', '\0'});
  Append<std::uint16_t>(prefix, static_cast<std::uint16_t>(header.size()));
  return prefix + header;
}

/// The three components `x_…`, `y_…`, `z_…` make one array; any other field one of its own.
int GroupSize(std::string_view name) { return name.substr(0, 2) == "x_" ? 3 : 1; }

template <typename T>
void AddSeries(Archive& archive, const Series<T>& series) {
  if (series.empty()) return;
  const std::string type(T::kName);
  std::string times = Header(kDescription<std::int64_t>, series.size(), 1);
  for (const Timed<T>& sample : series) Append(times, sample.time_ns);
  archive.Add(type + "_time_ns.npy", times);

  // The fields by number: a group is collected over all samples.
  int first = 0;
  T::Fields(series.front().value, [&](std::string_view name, const auto& field) {
    using Field = std::decay_t<decltype(field)>;
    const int columns = GroupSize(name);
    const int number = first++;
    if (columns == 1 && (name.substr(0, 2) == "y_" || name.substr(0, 2) == "z_")) return;
    std::string data = Header(kDescription<Field>, series.size(), columns);
    data.reserve(data.size() + series.size() * sizeof(Field) * static_cast<std::size_t>(columns));
    for (const Timed<T>& sample : series) {
      int at = 0;
      T::Fields(sample.value, [&](std::string_view, const auto& value) {
        if (at >= number && at < number + columns) Append(data, value);
        ++at;
      });
    }
    const std::string group =
        columns == 3 ? "xyz" + std::string(name.substr(1)) : std::string(name);
    archive.Add(type + "_" + group + ".npy", data);
  });
}

}  // namespace

Report WriteNpz(const Source& source, Files& files) {
  Report report;
  Archive archive(files.Create(source.options.name + ".npz"));
  std::apply([&archive](const auto&... series) { (AddSeries(archive, series), ...); },
             source.recording.series);
  archive.Finish();
  report.written = true;
  return report;
}

}  // namespace camm::formats
