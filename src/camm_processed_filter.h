// Decodes a stream of CAMM samples and writes the motion data files.
//
// Sample format: "Camera Motion Metadata Spec", developers.google.com/streetview/publish/camm-spec.
#ifndef MOTRACE_CAMM_PROCESSED_FILTER_H_
#define MOTRACE_CAMM_PROCESSED_FILTER_H_

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "editor/media_src.h"
#include "gps_json.h"
#include "utils/output_file.h"

/// The consumer of a file's data stream: collects its gyroscope, accelerometer, exposure and GPS
/// samples in memory and writes them, when the stream is closed, as `gyro.dat`, `exposure_1.dat` to
/// `exposure_6.dat` and `gps.json`. Angle-axis, position, minimal-GPS and magnetic-field samples
/// are not decoded.
///
/// Threads: as `lum::MediaSource`; it has no lock of its own.
/// Ownership: shared by the driver and the file source.
/// Errors: a file that cannot be created or written whole fails no call but `Open`; see `problems`.
/// Running out of memory leaves `Filter` as an exception; no file counts as whole then.
class CammProcessedFilter : public lum::PacketConsumer {
 public:
  /// An output file that is missing or not whole.
  struct Problem {
    std::string path;
    bool created;  ///< It exists, but lacks data.
    int error;     ///< The `errno` of the first failure.
  };

  /// @param save_dir directory for the outputs; empty means the current one.
  explicit CammProcessedFilter(std::string save_dir);
  ~CammProcessedFilter() override = default;

  /// Creates `gps.json` and `gyro.dat`, empty. Does not read `info`.
  /// @return true when both are open.
  bool Open(lum::MediaInfo* info) override;
  /// Decodes one packet. Reads the time base of `info->stream`. Always true.
  bool Filter(lum::MediaInfo* info, const std::shared_ptr<lum::QVXPacket>& packet) override;
  /// Writes and closes every output. Does not read `info`. Always true.
  bool Close(lum::MediaInfo* info) override;

  /// Output files that are missing or not whole. After `Close`.
  [[nodiscard]] const std::vector<Problem>& problems() const { return problems_; }
  /// Packets seen, and those that the container marked corrupt.
  [[nodiscard]] int64_t packet_count() const { return packet_count_; }
  [[nodiscard]] int64_t corrupt_packet_count() const { return corrupt_packet_count_; }
  [[nodiscard]] size_t gyro_count() const { return gyro_.size(); }
  [[nodiscard]] size_t accelerate_count() const { return accelerate_.size(); }

 private:
  using Vector3 = std::array<float, 3>;
  struct AccelerateRecord {
    int64_t pts_ms;
    Vector3 value;
  };
  struct ExposureRecord {
    int64_t pts_ms;
    int32_t pixel_exposure_time;  // nanoseconds
  };

  void Decode(const lum::QVXPacket& packet, AVRational time_base);
  [[nodiscard]] std::string PathOf(const char* name) const;
  bool OpenOutput(OutputFile& file, const char* name);
  void CloseOutput(OutputFile& file);
  void WriteGps();
  void WriteExposures();
  void WriteMotion();

  std::string save_dir_;
  OutputFile gps_file_;
  OutputFile exposure_file_;
  OutputFile gyro_file_;

  // Deques grow without copying, so that a long stream's peak is no more than its records.
  std::deque<GpsRecord> gps_;
  std::deque<ExposureRecord> exposures_;
  std::deque<Vector3> gyro_;
  std::deque<AccelerateRecord> accelerate_;

  std::vector<Problem> problems_;
  bool out_of_memory_ = false;  // samples were lost
  int64_t packet_count_ = 0;
  int64_t corrupt_packet_count_ = 0;
};

#endif  // MOTRACE_CAMM_PROCESSED_FILTER_H_
