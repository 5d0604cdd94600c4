#ifndef MOTRACE_SAMPLES_MP4_LAYOUTS_H_
#define MOTRACE_SAMPLES_MP4_LAYOUTS_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "samples/av_encode.h"
#include "samples/bytes.h"
#include "samples/camera.h"

/// A small writer of ISO base media files (ISO/IEC 14496-12; the sample entries of 14496-14 and
/// 14496-15) in the layouts of real cameras, which neither common muxers nor `camm::TrackWriter`
/// make: motion and video interleaved or in fragments, several data tracks, tables that lie. It
/// copies what it is told and checks nothing.
namespace motrace::samples {

/// One entry of an edit list.
struct Mp4Edit {
  std::uint64_t segment_duration = 0;  ///< movie time scale (1000); 0 is written as it is
  std::int64_t media_time = 0;         ///< track time scale; -1 = empty edit (a delay)
  std::int16_t rate = 1;               ///< integer part of the rate; 0 = dwell
};

/// One track: what its header says, and its samples. All payloads lie in one arena, so that
/// millions of small samples cost little more than their bytes.
class Mp4Track {
 public:
  /// H.264; `avcc` is the AVCDecoderConfigurationRecord (libavcodec's extradata in MP4 form).
  static Mp4Track Video(const Bytes& avcc, int width, int height, std::uint32_t timescale);
  /// AAC; `audio_specific_config` goes into the esds box.
  static Mp4Track Audio(const Bytes& audio_specific_config, int channels, std::uint32_t sample_rate,
                        std::uint32_t timescale);
  /// Any other track: `handler` and `sample_entry` are four-character codes. A "tmcd" (timecode)
  /// entry is written whole, anything else gets an entry of 8 bytes after its header.
  static Mp4Track Data(const std::string& handler, const std::string& sample_entry,
                       std::uint32_t timescale);
  /// A Camera Motion Metadata track: handler "camm", sample entry "camm".
  static Mp4Track Camm(std::uint32_t timescale) { return Data("camm", "camm", timescale); }

  /// Appends a sample. `duration` (decode time to the next sample) and `composition_offset` (pts -
  /// dts, may be negative) are in the track's time scale.
  void Add(const Bytes& payload, std::uint32_t duration, std::int32_t composition_offset = 0,
           bool sync = true);
  /// Appends a sample whose bytes are a hole of the file, which reads as zeros: a file of many
  /// gigabytes costs no disk.
  void AddHole(std::uint32_t size, std::uint32_t duration, bool sync = true);

  /// Edit list, written when not empty.
  std::vector<Mp4Edit> edits;
  /// What mdhd says instead of the sum of the durations, e.g. 0.
  std::optional<std::uint64_t> media_duration;
  /// The stts box leaves out this many samples at the end, as some cameras do.
  std::size_t samples_without_time = 0;
  /// Added to the decode time of every fragment (kFragmented only): a recording cut out of a longer
  /// one does not begin at 0.
  std::uint64_t first_decode_time = 0;

  [[nodiscard]] std::uint32_t timescale() const { return timescale_; }
  /// Sum of the samples' durations, track time scale.
  [[nodiscard]] std::uint64_t total_duration() const { return total_duration_; }

 private:
  friend class Mp4FileWriter;
  struct Sample {
    std::uint64_t arena_offset;
    std::uint32_t size;
    std::uint32_t duration;
    std::int32_t composition_offset;
    bool sync;
    bool hole;
  };

  Mp4Track(std::string handler, Bytes sample_entry, std::uint32_t timescale)
      : handler_(std::move(handler)),
        sample_entry_(std::move(sample_entry)),
        timescale_(timescale) {}

  std::string handler_;
  Bytes sample_entry_;  // the whole box
  std::uint32_t timescale_;
  Bytes arena_;
  std::vector<Sample> samples_;
  std::uint64_t total_duration_ = 0;
};

enum class Mp4Order {
  kMoovLast,    ///< ftyp, mdat, moov: what a recorder writes
  kMoovFirst,   ///< ftyp, moov, mdat: "fast start"
  kFragmented,  ///< ftyp, moov without samples, then moof + mdat pairs
};

struct Mp4Layout {
  Mp4Order order = Mp4Order::kMoovLast;
  /// Chunks (and fragments) hold this much of each track, in milliseconds, and alternate between
  /// the tracks; 0 = one track after another, each as a single chunk.
  std::uint32_t interleave_ms = 500;
  /// Bytes of mdat before the first chunk that belong to no sample. They are a hole of the file, so
  /// that offsets beyond 4 GiB can be tested at no cost. Not used by kFragmented.
  std::uint64_t leading_gap = 0;
};

/// Writes the tracks, in that order in the file's track list. Throws std::ios_base::failure when
/// the file cannot be written.
void WriteMp4(const std::filesystem::path& path, const std::vector<Mp4Track>& tracks,
              const Mp4Layout& layout = {});

/// The stream as a track, rescaled to `timescale`. Decode times begin at 0; what lies before time
/// zero (B-frame delay, AAC priming) is cut by an edit list, as common muxers do, unless
/// `with_edit_list` is false.
Mp4Track ToMp4Track(const EncodedStream& stream, std::uint32_t timescale,
                    bool with_edit_list = true);

/// What a camera records, as a track.
Mp4Track CameraTrack(const CameraOptions& options = {});

}  // namespace motrace::samples

#endif  // MOTRACE_SAMPLES_MP4_LAYOUTS_H_
