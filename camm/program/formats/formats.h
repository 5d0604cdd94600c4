// The formats that a motion track can be exported in.
#ifndef CAMM_PROGRAM_FORMATS_FORMATS_H_
#define CAMM_PROGRAM_FORMATS_FORMATS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "camm/frames.h"
#include "camm/ground_track.h"
#include "camm/program/formats/text_out.h"
#include "camm/recording.h"

namespace camm::formats {

/// What the formats can be told. Each uses its part.
struct Options {
  std::string name;    ///< of files that carry the video's: without folder and extension
  std::string video;   ///< the video's file name, for formats that hold it
  TrackOptions track;  ///< maps, frames
  std::string orientation = "XYZ";              ///< gcsv: where the axes point
  std::optional<std::int64_t> epoch_offset_ns;  ///< euroc (0), kalibr (10^18): added to every time
  std::int64_t tolerance_ns = -1;  ///< frames: how far an exposure may be; -1: half a frame
  bool interpolate = false;        ///< frames: with position, orientation and rates
  double every_metres = 0;         ///< frames, odm, colmap: only frames that far apart; 0: all
  std::string images = "frame_%06d.jpg";  ///< odm, colmap: the frames' names, counted from 1
};

/// What became of a format.
struct Report {
  bool written = false;            ///< false: the recording holds nothing for it
  std::vector<std::string> notes;  ///< what was left out, or why nothing was written
};

/// A format that takes the samples as they come, whatever the recording's length.
class StreamWriter {
 public:
  StreamWriter() = default;
  virtual ~StreamWriter() = default;
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;

  virtual void Add(const TimedSample& sample) = 0;
};

/// What a format is made from when the reading is done.
struct Source {
  const Recording& recording;  ///< the format's types
  const FrameTimes& frames;    ///< empty for formats that don't ask for them
  const Options& options;
};

/// One format: either streaming, or written from series.
struct Format {
  std::string_view name;
  std::string_view summary;                                                 ///< for the help
  std::unique_ptr<StreamWriter> (*stream)(const Options& options, Files&);  ///< or null
  Report (*write)(const Source& source, Files&);                            ///< or null
  unsigned types;  ///< sample types that `write` needs, a bit each
  bool frames;     ///< needs the video's frame times
};

/// All formats. A name that is none of theirs: null.
const std::vector<Format>& AllFormats();
const Format* FindFormat(std::string_view name);

std::unique_ptr<StreamWriter> MakeCsv(const Options& options, Files& files);
std::unique_ptr<StreamWriter> MakeJsonl(const Options& options, Files& files);
Report WriteGcsv(const Source& source, Files& files);
Report WriteEuroc(const Source& source, Files& files);
Report WriteKalibr(const Source& source, Files& files);
Report WriteGpx(const Source& source, Files& files);
Report WriteGeoJson(const Source& source, Files& files);
Report WriteKml(const Source& source, Files& files);
Report WriteFrames(const Source& source, Files& files);
Report WriteOdm(const Source& source, Files& files);
Report WriteColmap(const Source& source, Files& files);
Report WriteNpz(const Source& source, Files& files);

/// Adds "N WHAT left out" if there are any.
void NoteCount(Report& report, std::int64_t count, std::string_view what);

}  // namespace camm::formats

#endif  // CAMM_PROGRAM_FORMATS_FORMATS_H_
