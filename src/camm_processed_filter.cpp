#include "camm_processed_filter.h"

#include <algorithm>
#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "av_toolbox/time_util.h"
#include "process_guard.h"

using lum::vela::OutputFile;

namespace {

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "CAMM samples and the output files are little-endian; this host is not."
#endif

enum CammType : uint16_t {
  kCammExposure = 1,
  kCammGyro = 2,
  kCammAcceleration = 3,
  kCammGps = 6,
};

// Bytes: two reserved, two of type.
constexpr int kHeaderSize = 4;
constexpr int kExposureSize = 8;
constexpr int kVector3Size = 12;
constexpr int kGpsSize = 56;

// Of every type that the format knows, also of those that are not decoded.
constexpr std::array<int, CammProcessedFilter::kTypes> kPayloadSizes = {
    12, kExposureSize, kVector3Size, kVector3Size, 12, 24, kGpsSize, 12};

constexpr size_t kExposureFiles = 6;

// Reads fields one after the other, byte-wise: they are not aligned.
class FieldReader {
 public:
  explicit FieldReader(const uint8_t* at) : at_(at) {}

  template <typename T>
  T Next() {
    T value;
    std::memcpy(&value, at_, sizeof(T));
    at_ += sizeof(T);
    return value;
  }

 private:
  const uint8_t* at_;
};

// A record of exposure_%d.dat.
struct ExposureOut {
  int64_t time_us;
  double exposure_s;
};
static_assert(sizeof(ExposureOut) == 16);

// A record of gyro.dat: accelerometer x, y, z, gyroscope x, y, z.
struct MotionOut {
  int64_t time_us;
  std::array<double, 6> values;
};
static_assert(sizeof(MotionOut) == 56);

bool IsDecoded(unsigned type) {
  return type == kCammExposure || type == kCammGyro || type == kCammAcceleration ||
         type == kCammGps;
}

int64_t MicrosecondsOf(int64_t milliseconds) { return lum::WrappingMul(milliseconds, 1000); }

}  // namespace

CammProcessedFilter::CammProcessedFilter(std::string save_dir) : save_dir_(std::move(save_dir)) {}

std::string CammProcessedFilter::PathOf(const char* name) const {
  return (boost::filesystem::path(save_dir_) / name).string();
}

bool CammProcessedFilter::OpenOutput(OutputFile& file, const char* name) {
  if (file.Open(PathOf(name), kept_file_)) return true;
  problems_.push_back({file.path(), /*created=*/false, file.error()});
  return false;
}

// What was lost to a lack of memory makes a file incomplete even where all of the rest is written.
void CammProcessedFilter::CloseOutput(OutputFile& file, bool lost) {
  const bool written = file.Close();
  if (written && !lost && !out_of_memory_) return;
  problems_.push_back({file.path(), /*created=*/true, written ? ENOMEM : file.error()});
}

bool CammProcessedFilter::Open(lum::MediaInfo* /*info*/) {
  const bool gps_open = OpenOutput(gps_file_, "gps.json");
  const bool gyro_open = OpenOutput(gyro_file_, "gyro.dat");
  return gps_open && gyro_open;
}

bool CammProcessedFilter::Filter(lum::MediaInfo* info,
                                 const std::shared_ptr<lum::QVXPacket>& packet) {
  ++tally_.packets;
  if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) ++tally_.corrupt_packets;
  // Memory that ran out anywhere: what is left of it is for writing what there is.
  out_of_memory_ = out_of_memory_ || lum::vela::ProcessGuard::OutOfMemory();
  if (out_of_memory_) return false;
  try {
    Decode(*packet, info->stream->time_base);
  } catch (const std::bad_alloc&) {
    out_of_memory_ = true;
    throw;
  }
  return true;
}

void CammProcessedFilter::Decode(const lum::QVXPacket& packet, AVRational time_base) {
  // One record serves the whole packet: a GPS sample carries what motion and exposure samples
  // before it in the same packet have set.
  lum::vela::GpsRecord record{};
  record.pts_ms = lum::Rescale(packet.pts, time_base, lum::kMilliseconds);
  record.dts_ms = packet.dts == packet.pts
                      ? record.pts_ms
                      : lum::Rescale(packet.dts, time_base, lum::kMilliseconds);

  const int size = packet.size;
  int pos = 0;
  int payload_end = 0;  // of the last sample of which only the header was skipped
  // Samples of other types, and those whose payload is cut, are passed over by their header alone:
  // what follows it is read as headers again until one fits. A header needs all of its bytes.
  while (size - pos >= kHeaderSize) {
    const bool rereading = pos < payload_end;
    FieldReader fields(packet.data + pos);
    fields.Next<uint16_t>();  // reserved
    const auto type = fields.Next<uint16_t>();
    pos += kHeaderSize;
    const int remaining = size - pos;

    if (type == kCammExposure && remaining >= kExposureSize) {
      record.pixel_exposure_time = fields.Next<int32_t>();
      record.rolling_shutter_skew_time = fields.Next<int32_t>();
      record.has_exposure = true;
      exposures_.push_back({record.pts_ms, record.pixel_exposure_time});
      pos += kExposureSize;
    } else if ((type == kCammGyro || type == kCammAcceleration) && remaining >= kVector3Size) {
      record.x = fields.Next<float>();
      record.y = fields.Next<float>();
      record.z = fields.Next<float>();
      record.has_motion = true;
      const Vector3 value{record.x, record.y, record.z};
      if (type == kCammGyro) {
        pair_times_.AddGyro(packet.pts);
        gyro_.push_back(value);
      } else {
        pair_times_.AddAccelerate(packet.pts);
        accelerate_.push_back({record.pts_ms, value});
      }
      pos += kVector3Size;
    } else if (type == kCammGps && remaining >= kGpsSize) {
      record.time_gps_epoch = fields.Next<double>();
      record.gps_fix_type = fields.Next<int32_t>();
      record.latitude = fields.Next<double>();
      record.longitude = fields.Next<double>();
      record.altitude = fields.Next<float>();
      record.horizontal_accuracy = fields.Next<float>();
      record.vertical_accuracy = fields.Next<float>();
      record.velocity_east = fields.Next<float>();
      record.velocity_north = fields.Next<float>();
      record.velocity_up = fields.Next<float>();
      record.speed_accuracy = fields.Next<float>();
      gps_.push_back(record);
      pos += kGpsSize;
    } else {
      if (!rereading) payload_end = pos + SkipPayload(type, remaining);
      continue;
    }

    if (rereading) {
      ++tally_.reread;
      if (pos > payload_end) payload_end = size;  // out of step with the samples after it, too
    }
  }
}

// Counts a sample that is not decoded; returns how many bytes belong to it after its header.
int CammProcessedFilter::SkipPayload(unsigned type, int remaining) {
  if (type >= kTypes) {
    ++tally_.unknown;
    return remaining;
  }
  ++(IsDecoded(type) ? tally_.cut : tally_.left_out[type]);
  return std::min(kPayloadSizes[type], remaining);
}

bool CammProcessedFilter::Close(lum::MediaInfo* /*info*/) {
  WriteGps();
  WriteExposures();
  WriteMotion();
  return true;
}

void CammProcessedFilter::WriteGps() {
  if (!gps_file_.is_open()) return;
  bool lost = false;
  try {
    const std::string text = lum::vela::GpsJson(gps_);
    gps_file_.Write(text.data(), text.size());
  } catch (const std::bad_alloc&) {
    lost = true;  // the other files need no such text
  }
  CloseOutput(gps_file_, lost);
}

// Exposures are dealt out in turn over the files.
void CammProcessedFilter::WriteExposures() {
  for (size_t k = 0; k < kExposureFiles; ++k) {
    std::array<char, 1024> name{};
    std::snprintf(name.data(), name.size(), "exposure_%d.dat", static_cast<int>(k + 1));
    if (!OpenOutput(exposure_file_, name.data())) continue;
    for (size_t i = k; i < exposures_.size(); i += kExposureFiles) {
      const ExposureOut out{MicrosecondsOf(exposures_[i].pts_ms),
                            exposures_[i].pixel_exposure_time * 1e-9};
      exposure_file_.Write(&out, sizeof out);
    }
    CloseOutput(exposure_file_);
  }
}

// The j-th accelerometer sample goes with the j-th gyroscope sample, whatever their packets, and
// gives the time stamp. Accelerometer values come first.
void CammProcessedFilter::WriteMotion() {
  if (!gyro_file_.is_open()) return;
  auto gyro = gyro_.cbegin();
  for (const AccelerateRecord& accelerate : accelerate_) {
    if (gyro == gyro_.cend()) break;
    const Vector3& a = accelerate.value;
    const Vector3& g = *gyro++;
    const MotionOut out{MicrosecondsOf(accelerate.pts_ms), {a[0], a[1], a[2], g[0], g[1], g[2]}};
    gyro_file_.Write(&out, sizeof out);
  }
  CloseOutput(gyro_file_);
}
