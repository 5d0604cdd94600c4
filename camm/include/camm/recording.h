// Reading the motion track of a video file: sample by sample, or as one series a type.
#ifndef CAMM_RECORDING_H_
#define CAMM_RECORDING_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "camm/samples.h"

namespace lum {
class IOSource;
}

namespace camm {

/// The time of a sample whose packet has none.
inline constexpr std::int64_t kNoTime = std::numeric_limits<std::int64_t>::min();

/// How reading went. The numbers are the program's exit codes.
enum class [[nodiscard]] Status{
    kWhole = 0,       ///< everything was read
    kPartial = 1,     ///< the file is damaged or cut: `ReadResult::problems` names what is missing
    kCannotOpen = 3,  ///< not there, or no container that can be read
    kNoTrack = 4,     ///< the file holds no `camm` track, or not the one that was asked for
    kNoSamples = 5,   ///< the track holds no sample
};

/// Where times start.
enum class Origin {
  kContainer,    ///< the container's own time line, edit lists applied: FFmpeg's `pts`
  kFirstPacket,  ///< the first packet of any stream in the file, by decoding time, as `motrace`
                 ///< counts
};

/// A file, or a byte source that is read in its place (`path` is then only its name in messages).
struct Input {
  std::string path;
  std::shared_ptr<lum::IOSource> io;
};

struct ReadOptions {
  /// Stream index of the track to read; -1: the first stream tagged `camm` that holds packets, as
  /// far as the container counts them.
  int stream_index = -1;
  Origin origin = Origin::kContainer;
  /// Called once, before the first packet is read, with all that is known by then: format, tracks,
  /// video. Not called where there is no track to read. May be empty.
  std::function<void(const struct ReadResult&)> on_open;
};

/// One `camm` track of the file.
struct Track {
  int stream_index = -1;
  std::int64_t packets = -1;  ///< as the container's index counts them; -1: it has no index
  std::int64_t time_base_num = 0, time_base_den = 1;
  std::int64_t start_ns = kNoTime, duration_ns = -1;  ///< as the container states them
  bool read = false;                                  ///< whether this is the track that was read
};

/// The file's video stream, as far as it has one.
struct Video {
  int stream_index = -1;  ///< -1: none
  std::string codec;
  int width = 0, height = 0;
  std::int64_t frames = -1;  ///< as the container's index counts them; -1: unknown
  double frame_rate_hz = 0;  ///< average; 0: unknown
  std::int64_t start_ns = kNoTime, duration_ns = -1;
};

enum class ProblemKind {
  kUnknownType,
  kCutSample,
  kReservedBytes,
  kMissingTime,    ///< packets without a presentation time
  kTruncatedFile,  ///< the file ends before bytes that its index names
  kReadError,      ///< reading stopped early
  kSeveralTracks,  ///< more than one `camm` track: all are named in `ReadResult::tracks`
};

/// Something wrong, once for each kind and type: how often, where first, and in words.
struct Problem {
  ProblemKind kind;
  std::int64_t count = 0;
  std::int64_t first_time_ns = kNoTime;
  std::string text;  ///< a plain sentence without full stop, for people
};

/// What is known of a file after reading it.
struct ReadResult {
  Status status = Status::kCannotOpen;
  std::string error;   ///< why it could not be opened or read; empty otherwise
  std::string format;  ///< the container's name
  std::int64_t duration_ns = -1;
  std::vector<Track> tracks;
  Video video;
  std::int64_t packets = 0;                       ///< of the track that was read
  std::array<std::int64_t, kTypeCount> counts{};  ///< samples of each type
  std::vector<Problem> problems;
};

/// A sample and its packet's presentation time. Samples of one packet share it.
struct TimedSample {
  std::int64_t time_ns;  ///< `kNoTime` where the packet has none
  Sample sample;
};

/// Keeps FFmpeg and the media pipeline from writing messages anywhere, in the whole process: what
/// went wrong is in the results. For programs whose standard output holds data; call it first.
void SilenceMessages();

/// One packet of the track as it is stored. The bytes live as long as the call they come with.
struct Packet {
  std::int64_t time_ns;  ///< `kNoTime` where it has none
  const std::uint8_t* data;
  std::size_t size;
};

/// Reads the file's `camm` track and calls `on_packet` for each packet, in file order, without
/// looking into them: of the result, `counts` stay 0, and only what concerns the file is a problem.
/// Everything else as for `Stream`.
ReadResult StreamPackets(const Input& input, const ReadOptions& options,
                         const std::function<void(const Packet&)>& on_packet);

/// Reads the file's `camm` track and calls `on_sample` for each sample, in file order. Only that
/// stream's bytes are read where the container lets them be found; memory does not grow with the
/// length beyond FFmpeg's own index.
///
/// A path is a file's name, whatever it looks like. Only where no file has it, "http://…" and
/// "https://…" are addresses, of which the server must give parts; give "./" and the path to rule
/// that out.
///
/// Times convert exactly from the track's time base, rounded to the nearest nanosecond where the
/// time base is not a divisor of one. Threads: reads on the calling thread, which `on_sample` runs
/// on. Several files may be read on several threads. Errors: in the result; what `on_sample` throws
/// passes through.
ReadResult Stream(const Input& input, const ReadOptions& options,
                  const std::function<void(const TimedSample&)>& on_sample);

/// Reads a track as `Stream` does, for callers that would rather ask than be called.
/// Not thread-safe: one thread at a time.
class SampleReader {
 public:
  SampleReader(const Input& input, const ReadOptions& options);
  ~SampleReader();
  SampleReader(const SampleReader&) = delete;
  SampleReader& operator=(const SampleReader&) = delete;

  /// Replaces what `batch` holds by the samples of the next packets, `at_least` of them unless the
  /// end comes first.
  /// @return false when there are none left, or nothing could be opened: `Finish` tells.
  [[nodiscard]] bool Next(std::vector<TimedSample>& batch, std::size_t at_least = 1);

  /// What is known of the file and of what was read. Once, after the last `Next`.
  ReadResult Finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// A sample of one type with its time.
template <typename T>
struct Timed {
  std::int64_t time_ns = kNoTime;
  T value;
};

/// All samples of one type, in file order.
template <typename T>
using Series = std::vector<Timed<T>>;

/// A whole track in memory: a series for each type.
struct Recording {
  ReadResult result;
  std::tuple<Series<AngleAxis>, Series<Exposure>, Series<Gyro>, Series<Accel>, Series<Position>,
             Series<GpsMin>, Series<Gps>, Series<Magnetic>>
      series;

  template <typename T>
  [[nodiscard]] const Series<T>& Of() const {
    return std::get<T::kType>(series);
  }
  template <typename T>
  [[nodiscard]] Series<T>& Of() {
    return std::get<T::kType>(series);
  }
};

/// `Stream` into series.
Recording Read(const Input& input, const ReadOptions& options = {});

}  // namespace camm

#endif  // CAMM_RECORDING_H_
