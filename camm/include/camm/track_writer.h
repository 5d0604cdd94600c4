// Writing a motion track: into a copy of an MP4 or QuickTime file, or as a file of its own.
#ifndef CAMM_TRACK_WRITER_H_
#define CAMM_TRACK_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "camm/recording.h"
#include "camm/samples.h"

namespace camm {

/// What to do where the video already holds `camm` tracks.
enum class ExistingTrack {
  kRefuse,   ///< write nothing
  kReplace,  ///< the new track takes the place of the first; the others go as well. Their samples'
             ///< bytes stay in the file, where nothing refers to them any more
  kKeep,     ///< the new track is one more
};

struct WriterOptions {
  /// The file whose tracks the new file holds as well; empty: the motion track is alone.
  std::string video;
  ExistingTrack existing = ExistingTrack::kRefuse;
  /// Replace a file that has the output's name.
  bool overwrite = false;
  /// The time scale to use if it keeps all times exact (see `TrackWriter`); 0: none in particular.
  std::uint32_t time_scale = 0;
};

/// What was written.
struct WriteResult {
  /// `kWhole`; `kCannotOpen`: the video can't be read or is unsuitable, or the output can't be
  /// written; `kNoSamples`: nothing was added. Nothing is left behind unless `kWhole`.
  Status status = Status::kCannotOpen;
  std::string error;             ///< why; empty otherwise
  std::int64_t packets = 0;      ///< that were added
  std::uint32_t time_scale = 0;  ///< ticks a second of the track
  /// The largest difference between a time that was given and the one that reads back.
  std::int64_t rounding_ns = 0;
};

/// Writes one `camm` track (handler `meta`, sample entry `camm`), packet by packet.
///
/// The video's bytes are copied as they are, to where they were, so that its tracks' tables stay
/// valid; the motion samples and a new index are appended and the old index, where it is not the
/// file's end, becomes free space. Bytes after the last box (some cameras' trailers) stay the
/// file's end. Not for files in fragments.
///
/// Times are on the container's time line, as `Stream` gives them. The time scale is the first of
/// these that reads every time back to the nanosecond: `WriterOptions::time_scale`, the usual ones
/// in ascending order, the divisor of 10^9 that fits, up to 10^9. Where that scale can't hold the
/// times (more than 2.1 * 10^9 ticks from one packet to the next, a thousand times over, or more
/// than 2.6 * 10^8 before zero or backwards), the largest power of ten that can is taken, and times
/// are rounded to it. A track starts at time zero: gaps that one duration can't
/// hold, and the time up to a first packet that is later than zero, are bridged by packets without
/// a byte. Times before zero, and those that run backwards, are kept by composition offsets. A
/// packet without a time gets that of the one before it.
///
/// The file is written beside `path` and renamed at the end: it appears whole or not at all.
/// Memory: twelve bytes a packet, and the video's index.
///
/// Threads: one at a time. Errors: the first one is kept, later calls do nothing, `Finish` tells.
class TrackWriter {
 public:
  TrackWriter(const std::string& path, const WriterOptions& options);
  /// Removes what was not finished.
  ~TrackWriter();
  TrackWriter(const TrackWriter&) = delete;
  TrackWriter& operator=(const TrackWriter&) = delete;

  /// Whether nothing has failed so far.
  [[nodiscard]] bool ok() const;

  /// Appends a packet that holds this sample.
  void Add(std::int64_t time_ns, const Sample& sample);
  /// Appends a packet of these bytes as they are. Empty ones are left out.
  void AddPacket(std::int64_t time_ns, const std::uint8_t* data, std::size_t size);

  /// Writes the index and gives the file its name. Once, at the end.
  WriteResult Finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace camm

#endif  // CAMM_TRACK_WRITER_H_
