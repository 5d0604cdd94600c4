#include "support/plain_extraction.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "support/samples.h"

namespace motrace::testing {
namespace {

/// A field at a place, as a little-endian host holds it.
template <typename T>
T At(const Bytes& bytes, std::size_t at) {
  T value{};
  std::memcpy(&value, &bytes.at(at + sizeof value - 1) - (sizeof value - 1), sizeof value);
  return value;
}

/// Milliseconds to microseconds; overflow wraps.
std::uint64_t Microseconds(std::int64_t milliseconds) {
  return static_cast<std::uint64_t>(milliseconds) * 1000U;
}

/// A time in milliseconds, and three components or an exposure time in seconds.
struct Sample {
  std::int64_t pts_ms;
  std::vector<double> values;
};

/// A record as gps.json shows it: std::map keeps the keys in ascending byte order.
using TextRecord = std::map<std::string, std::string>;

std::string ToText(const TextRecord& record) {
  std::string text;
  for (const auto& [key, value] : record) {
    text.append(text.empty() ? "{\"" : ",\"").append(key).append("\":").append(value);
  }
  return text + "}";
}

}  // namespace

std::string JsonNumber(double value) {
  if (std::isnan(value) || std::isinf(value)) return "null";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.15g", value);
  std::string text = buffer;
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

std::map<std::string, Bytes> ExtractPlainly(const std::vector<TimedPayload>& packets) {
  std::vector<Sample> gyro;
  std::vector<Sample> acceleration;
  std::vector<Sample> exposure;
  std::string gps;

  for (const TimedPayload& packet : packets) {
    const Bytes& data = packet.payload;
    // Keys stay set until the end of the packet: later records of the packet carry them too.
    TextRecord record;
    record["pts"] = std::to_string(packet.pts_ms);
    record["dts"] = std::to_string(packet.dts_ms);
    std::size_t pos = 0;
    while (pos + 2 < data.size()) {
      if (data.size() - pos == 3) break;  // the type is cut in two
      const auto type = At<std::uint16_t>(data, pos + 2);
      pos += 4;
      const std::size_t remaining = data.size() - pos;
      if (type == 1 && remaining >= 8) {
        record["pixel_exposure_time"] = std::to_string(At<std::int32_t>(data, pos));
        record["rolling_shutter_skew_time"] = std::to_string(At<std::int32_t>(data, pos + 4));
        exposure.push_back({packet.pts_ms, {At<std::int32_t>(data, pos) * 1e-9}});
        pos += 8;
      } else if ((type == 2 || type == 3) && remaining >= 12) {
        Sample sample{packet.pts_ms, {}};
        for (const char* key : {"x", "y", "z"}) {
          sample.values.push_back(At<float>(data, pos + 4 * sample.values.size()));
          record[key] = JsonNumber(sample.values.back());
        }
        (type == 2 ? gyro : acceleration).push_back(sample);
        pos += 12;
      } else if (type == 6 && remaining >= 56) {
        record["time_gps_epoch"] = JsonNumber(At<double>(data, pos));
        record["gps_fix_type"] = std::to_string(At<std::int32_t>(data, pos + 8));
        record["latitude"] = JsonNumber(At<double>(data, pos + 12));
        record["longitude"] = JsonNumber(At<double>(data, pos + 20));
        std::size_t at = pos + 28;
        for (const char* key :
             {"altitude", "horizontal_accuracy", "vertical_accuracy", "velocity_east",
              "velocity_north", "velocity_up", "speed_accuracy"}) {
          record[key] = JsonNumber(At<float>(data, at));
          at += 4;
        }
        gps.append(gps.empty() ? "{\"extended_gps_info\":[" : ",").append(ToText(record));
        pos += 56;
      }
      // Anything else: only its header is skipped.
    }
  }

  std::map<std::string, Bytes> files{{"gyro.dat", {}}};
  const auto append = [&files](const std::string& name, const Bytes& bytes) {
    files[name].insert(files[name].end(), bytes.begin(), bytes.end());
  };
  const std::size_t pairs = std::min(gyro.size(), acceleration.size());
  for (std::size_t i = 0; i < pairs; ++i) {
    const std::vector<double>& a = acceleration[i].values;
    const std::vector<double>& g = gyro[i].values;
    append("gyro.dat",
           Packed(Microseconds(acceleration[i].pts_ms), a[0], a[1], a[2], g[0], g[1], g[2]));
  }
  for (std::size_t k = 0; k < 6; ++k) {
    const std::string name = "exposure_" + std::to_string(k + 1) + ".dat";
    append(name, {});
    for (std::size_t i = k; i < exposure.size(); i += 6) {
      append(name, Packed(Microseconds(exposure[i].pts_ms), exposure[i].values[0]));
    }
  }
  gps += gps.empty() ? "null" : "]}";
  append("gps.json", Bytes(gps.begin(), gps.end()));
  return files;
}

std::optional<std::vector<TimedPayload>> ReadDataStream(const std::filesystem::path& path) {
  // 0x40000 alone: side data stays with the packet, every default flag is off.
  constexpr int kKeepSideDataOnly = 0x40000;
  AVFormatContext* opened = avformat_alloc_context();
  opened->flags = kKeepSideDataOnly;
  if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) {
    throw std::runtime_error("libavformat can't open " + path.string());
  }
  const std::unique_ptr<AVFormatContext, Freer<avformat_close_input>> input(opened);
  avformat_find_stream_info(input.get(), nullptr);
  const int data_stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_DATA, -1, -1, nullptr, 0);

  constexpr AVRational kMilliseconds{1, 1000};
  std::optional<std::int64_t> start_ms;  // where the first packet of any stream stands
  std::vector<TimedPayload> packets;
  const std::unique_ptr<AVPacket, Freer<av_packet_free>> packet(av_packet_alloc());
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    const AVRational time_base = input->streams[packet->stream_index]->time_base;
    const std::int64_t position = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    const bool timed = position != AV_NOPTS_VALUE;
    if (timed && !start_ms) start_ms = av_rescale_q(position, time_base, kMilliseconds);
    if (packet->stream_index == data_stream) {
      std::int64_t offset = 0;
      if (timed) offset = av_rescale_q(*start_ms, kMilliseconds, time_base);
      const auto relative_ms = [&](std::int64_t stamp) {
        // A missing stamp is not moved; it becomes a number all the same.
        if (stamp == AV_NOPTS_VALUE) return av_rescale_q(stamp, time_base, kMilliseconds);
        const std::uint64_t moved =
            static_cast<std::uint64_t>(stamp) - static_cast<std::uint64_t>(offset);
        return av_rescale_q(static_cast<std::int64_t>(moved), time_base, kMilliseconds);
      };
      packets.push_back({relative_ms(packet->pts), relative_ms(packet->dts),
                         Bytes(packet->data, packet->data + packet->size)});
    }
    av_packet_unref(packet.get());
  }
  if (data_stream < 0) return std::nullopt;
  return packets;
}

}  // namespace motrace::testing
