// Decodes a stream of CAMM samples and writes the motion data files.
//
// Sample format: "Camera Motion Metadata Spec", developers.google.com/streetview/publish/camm-spec.
#ifndef MOTRACE_CAMM_PROCESSED_FILTER_H_
#define MOTRACE_CAMM_PROCESSED_FILTER_H_

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "editor/media_src.h"
#include "gps_json.h"
#include "output_file.h"
#include "pair_times.h"

/// The consumer of a file's data stream: collects its gyroscope, accelerometer, exposure and GPS
/// samples in memory and writes them, when the stream is closed, as `gyro.dat`, `exposure_1.dat` to
/// `exposure_6.dat` and `gps.json`. Angle-axis, position, minimal-GPS and magnetic-field samples
/// are not decoded.
///
/// Threads: as `lum::MediaSource`; it has no lock of its own.
/// Ownership: shared by the driver and the file source.
/// Errors: a file that cannot be created or written whole fails no call but `Open`; see `problems`.
/// Running out of memory leaves `Filter` as an exception or makes it refuse packets; no
/// file counts as whole then.
class CammProcessedFilter : public lum::PacketConsumer {
 public:
  /// An output file that is missing or not whole.
  struct Problem {
    std::string path;
    bool created;  ///< It exists, but lacks data.
    int error;     ///< As `lum::vela::OutputFile::error`.
  };

  /// Number of sample types that the format knows: 0 to 7.
  static constexpr size_t kTypes = 8;

  /// What the packets held.
  struct Tally {
    int64_t packets = 0;
    int64_t corrupt_packets = 0;  ///< that the container marked so
    /// Samples whose header alone was read, by type: the types that are not decoded.
    std::array<int64_t, kTypes> left_out{};
    int64_t unknown = 0;  ///< Likewise, of types that the format does not know.
    int64_t cut = 0;      ///< Likewise, of decoded types: the packet ends within the payload.
    /// Samples decoded out of bytes that belong to one of those.
    int64_t reread = 0;
  };

  /// @param save_dir directory for the outputs; empty means the current one.
  explicit CammProcessedFilter(std::string save_dir);
  ~CammProcessedFilter() override = default;

  /// Names a file that no output may replace: the recording itself, which a link in the directory
  /// may lead to. Before `Open`.
  void Keep(const std::string& path) { kept_file_ = lum::vela::FileId::Of(path); }

  /// Creates `gps.json` and `gyro.dat`, empty. Does not read `info`.
  /// @return true when both are open.
  bool Open(lum::MediaInfo* info) override;
  /// Decodes one packet. Reads the time base of `info->stream`. True unless memory ran out.
  bool Filter(lum::MediaInfo* info, const std::shared_ptr<lum::QVXPacket>& packet) override;
  /// Writes and closes every output. Does not read `info`. Always true.
  bool Close(lum::MediaInfo* info) override;

  /// Output files that are missing or not whole. After `Close`.
  [[nodiscard]] const std::vector<Problem>& problems() const { return problems_; }
  [[nodiscard]] const Tally& tally() const { return tally_; }
  [[nodiscard]] const lum::vela::PairTimes& pair_times() const { return pair_times_; }
  /// Samples decoded.
  [[nodiscard]] size_t gyro_count() const { return gyro_.size(); }
  [[nodiscard]] size_t accelerate_count() const { return accelerate_.size(); }
  [[nodiscard]] size_t exposure_count() const { return exposures_.size(); }
  [[nodiscard]] size_t gps_count() const { return gps_.size(); }

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
  int SkipPayload(unsigned type, int remaining);
  [[nodiscard]] std::string PathOf(const char* name) const;
  bool OpenOutput(lum::vela::OutputFile& file, const char* name);
  void CloseOutput(lum::vela::OutputFile& file, bool lost = false);
  void WriteGps();
  void WriteExposures();
  void WriteMotion();

  std::string save_dir_;
  std::optional<lum::vela::FileId> kept_file_;
  lum::vela::OutputFile gps_file_;
  lum::vela::OutputFile exposure_file_;
  lum::vela::OutputFile gyro_file_;

  // Deques grow without copying, so that a long stream's peak is no more than its records.
  std::deque<lum::vela::GpsRecord> gps_;
  std::deque<ExposureRecord> exposures_;
  std::deque<Vector3> gyro_;
  std::deque<AccelerateRecord> accelerate_;

  lum::vela::PairTimes pair_times_;
  Tally tally_;
  std::vector<Problem> problems_;
  bool out_of_memory_ = false;  // samples were lost
};

#endif  // MOTRACE_CAMM_PROCESSED_FILTER_H_
