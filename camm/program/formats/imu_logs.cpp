// gcsv, euroc, kalibr: gyroscope and accelerometer in one table.
//
// gcsv: https://docs.gyroflow.xyz/app/technical-details/gcsv-format
// EuRoC: M. Burri et al., The EuRoC micro aerial vehicle datasets, 2016.
// Kalibr: https://github.com/ethz-asl/kalibr/wiki/bag-format

#include <algorithm>
#include <cstdio>

#include "camm/imu.h"
#include "camm/interpolation.h"
#include "camm/program/formats/formats.h"

namespace camm::formats {
namespace {

/// The merged series, and in the report what it lacks.
ImuSeries Merge(const Recording& recording, Report& report) {
  if (recording.Of<Gyro>().empty() || recording.Of<Accel>().empty()) {
    report.notes.emplace_back(recording.Of<Gyro>().empty() ? "no gyroscope samples"
                                                           : "no accelerometer samples");
    return {};
  }
  ImuSeries imu = MergeImu(recording.Of<Gyro>(), recording.Of<Accel>());
  NoteCount(report, imu.gyro_without_time, "gyroscope samples without a time");
  NoteCount(report, imu.gyro_repeated, "gyroscope samples with the time of another");
  NoteCount(report, imu.gyro_outside_accel, "gyroscope samples outside the accelerometer's times");
  NoteCount(report, imu.accel_without_time, "accelerometer samples without a time");
  NoteCount(report, imu.accel_repeated, "accelerometer samples with the time of another");
  if (imu.samples.empty()) report.notes.emplace_back("gyroscope and accelerometer do not overlap");
  return imu;
}

/// The median; 0 without one above it.
std::int32_t MedianSkew(const Series<Exposure>& exposures) {
  std::vector<std::int32_t> skews;
  for (const auto& exposure : exposures) {
    if (exposure.value.rolling_shutter_skew_ns > 0) {
      skews.push_back(exposure.value.rolling_shutter_skew_ns);
    }
  }
  if (skews.empty()) return 0;
  const auto middle = skews.begin() + static_cast<std::ptrdiff_t>(skews.size() / 2);
  std::nth_element(skews.begin(), middle, skews.end());
  return *middle;
}

/// A header's value: one line, one cell.
std::string Cell(const std::string& text) {
  std::string cell = Printable(text);
  std::replace(cell.begin(), cell.end(), ',', ';');
  return cell;
}

void WriteImuRow(TextOut& out, const ImuSample& sample) {
  out << ',' << sample.gyro.x_rad_s << ',' << sample.gyro.y_rad_s << ',' << sample.gyro.z_rad_s
      << ',' << sample.accel.x_m_s2 << ',' << sample.accel.y_m_s2 << ',' << sample.accel.z_m_s2;
}

/// The time moved by the offset, for formats whose stamps count from 0 up.
class Stamps {
 public:
  explicit Stamps(std::int64_t offset_ns) : offset_ns_(offset_ns) {}
  bool Move(std::int64_t time_ns, std::int64_t& stamp) {
    const bool good = !__builtin_add_overflow(time_ns, offset_ns_, &stamp) && stamp >= 0;
    below_zero_ += !good;
    return good;
  }
  [[nodiscard]] std::int64_t BelowZero() const { return below_zero_; }

 private:
  std::int64_t offset_ns_;
  std::int64_t below_zero_ = 0;
};

}  // namespace

Report WriteGcsv(const Source& source, Files& files) {
  Report report;
  const Recording& recording = source.recording;
  const bool with_accel = !recording.Of<Accel>().empty();
  ImuSeries imu;
  if (with_accel || recording.Of<Gyro>().empty()) {
    imu = Merge(recording, report);
  } else {
    // Stabilisers do with the gyroscope alone.
    const SortedSeries<Gyro> rates = Sorted(recording.Of<Gyro>());
    NoteCount(report, rates.without_time, "gyroscope samples without a time");
    NoteCount(report, rates.repeated, "gyroscope samples with the time of another");
    for (const auto& rate : rates.samples) imu.samples.push_back({rate.time_ns, rate.value, {}});
  }
  if (imu.samples.empty()) return report;

  const SortedSeries<Magnetic> fields = Sorted(recording.Of<Magnetic>());
  NoteCount(report, fields.without_time, "magnetometer samples without a time");
  NoteCount(report, fields.repeated, "magnetometer samples with the time of another");
  const bool with_field = with_accel && !fields.samples.empty();
  const std::int32_t skew_ns = MedianSkew(recording.Of<Exposure>());
  TextOut& out = files.Create(source.options.name + ".gcsv");
  out << "GYROFLOW IMU LOG\nversion,1.3\nid,camm\norientation," << source.options.orientation
      << "\nvideofilename," << Cell(source.options.video) << '\n';
  if (skew_ns > 0) out << "frame_readout_time," << skew_ns * 1e-6 << '\n';
  out << "tscale,0.000000001\ngscale,1\n";
  if (with_accel) out << "ascale,0.10197162129779283\n";  // 1 / 9.80665
  if (with_field) out << "mscale,0.01\n";
  out << "t,gx,gy,gz" << (with_accel ? ",ax,ay,az" : "") << (with_field ? ",mx,my,mz\n" : "\n");

  Interpolator<Magnetic> field(fields.samples);
  for (const ImuSample& sample : imu.samples) {
    out << sample.time_ns;
    if (with_accel) {
      WriteImuRow(out, sample);
    } else {
      out << ',' << sample.gyro.x_rad_s << ',' << sample.gyro.y_rad_s << ',' << sample.gyro.z_rad_s;
    }
    if (with_field) {
      // Every row has every column: the field is held before its first and after its last sample.
      const std::int64_t time =
          std::clamp(sample.time_ns, fields.samples.front().time_ns, fields.samples.back().time_ns);
      const Magnetic value = field.At(time).value_or(Magnetic{});
      out << ',' << value.x_ut << ',' << value.y_ut << ',' << value.z_ut;
    }
    out << '\n';
  }
  report.written = true;
  return report;
}

Report WriteEuroc(const Source& source, Files& files) {
  Report report;
  const ImuSeries imu = Merge(source.recording, report);
  if (imu.samples.empty()) return report;
  Stamps stamps(source.options.epoch_offset_ns.value_or(0));
  std::int64_t stamp = 0;
  TextOut& rows = files.Create("mav0/imu0/data.csv");
  rows << "#timestamp [ns],w_RS_S_x [rad s^-1],w_RS_S_y [rad s^-1],w_RS_S_z [rad s^-1],"
          "a_RS_S_x [m s^-2],a_RS_S_y [m s^-2],a_RS_S_z [m s^-2]\n";
  for (const ImuSample& sample : imu.samples) {
    if (!stamps.Move(sample.time_ns, stamp)) continue;
    rows << stamp;
    WriteImuRow(rows, sample);
    rows << '\n';
  }
  if (source.frames.pts_ns.empty()) {
    report.notes.emplace_back("no video frames: no mav0/cam0");
  } else {
    TextOut& images = files.Create("mav0/cam0/data.csv");
    images << "#timestamp [ns],filename\n";
    std::int64_t last = -1;
    for (const std::int64_t pts : source.frames.pts_ns) {
      if (!stamps.Move(pts, stamp) || stamp == last) continue;
      images << stamp << ',' << stamp << ".png\n";
      last = stamp;
    }
  }
  NoteCount(report, stamps.BelowZero(), "times below zero (--epoch-offset moves them)");
  report.written = true;
  return report;
}

Report WriteKalibr(const Source& source, Files& files) {
  Report report;
  const ImuSeries imu = Merge(source.recording, report);
  if (imu.samples.empty()) return report;
  // Its tools cut seconds and nanoseconds out of the text: 19 digits always.
  Stamps stamps(source.options.epoch_offset_ns.value_or(1'000'000'000'000'000'000));
  std::int64_t stamp = 0;
  TextOut& rows = files.Create("imu0.csv");
  rows << "timestamp,omega_x,omega_y,omega_z,alpha_x,alpha_y,alpha_z\n";
  for (const ImuSample& sample : imu.samples) {
    if (!stamps.Move(sample.time_ns, stamp)) continue;
    const std::string digits = std::to_string(stamp);
    rows << std::string_view("0000000000000000000").substr(digits.size()) << digits;
    WriteImuRow(rows, sample);
    rows << '\n';
  }
  NoteCount(report, stamps.BelowZero(), "times below zero (--epoch-offset moves them)");
  report.written = true;
  return report;
}

}  // namespace camm::formats
