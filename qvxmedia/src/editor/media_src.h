// The contract between what reads packets and what consumes them. The names are close: a `MediaSrc`
// reads a container, a `MediaSource` consumes its packets.
#ifndef QVXMEDIA_EDITOR_MEDIA_SRC_H_
#define QVXMEDIA_EDITOR_MEDIA_SRC_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "av_toolbox/packet_util.h"
#include "base/any.h"

namespace lum {

/// What a source tells a consumer about its stream. Owned by the source, one per stream kind,
/// passed by pointer to every consumer call, so that one consumer can serve several streams.
struct MediaInfo {
  int32_t source_id = -1;                     ///< The source's `index`.
  AVStream* stream = nullptr;                 ///< In the open file, or the synthetic audio stream.
  std::shared_ptr<AVCodecParameters> params;  ///< Private copy of the stream's parameters.
  int32_t reserved_code = -1;                 ///< Not written or read by the source.
  /// The stream has reached its end, or the source is being interrupted. Any thread may read it.
  std::atomic<bool> ended{false};
  int32_t error = -1;  ///< A consumer may leave an error code here before it returns false.
};

/// Codes of a `MediaMessage`, and the value that each carries.
enum MediaMessageCode : int32_t {
  kMediaMessageEnd = 0,    ///< The input has ended; no value.
  kMediaMessageStart = 1,  ///< Before the first packet: int64, start position in milliseconds.
  /// Reading jumps: int64, the stream's accumulated offset, in its time base.
  kMediaMessageNewRange = 2,
};

/// What `MediaSource::Notify` carries.
struct MediaMessage {
  int32_t code;  ///< One of `MediaMessageCode`.
  any value;
};

/// How a source's run ended. The first that applies is kept, but a consumer that fails to close
/// turns an end or a cancellation into `kConsumerFailed`.
///
/// The codes that callbacks deliver overlap (1 is a read error's and a cancelled run's, a consumer
/// may fail with 0); these do not.
enum class RunOutcome : uint8_t {
  kNotOver,         ///< Not started, or still under way.
  kEnded,           ///< Read to the end, and every consumer was told.
  kCanceled,        ///< Interrupted, closed or stopped before the end.
  kNotPrepared,     ///< Started without a successful `Prepare`.
  kOpenFailed,      ///< `Prepare`: the input could not be opened.
  kOpenRefused,     ///< `Prepare`: a consumer refused to open.
  kReadFailed,      ///< The input could not be read on.
  kConsumerFailed,  ///< A consumer refused a call, or an exception left it.
  kException,       ///< An exception ended the reading, such as a lack of memory.
};

/// Whether a run that came to this failed.
[[nodiscard]] constexpr bool IsFailure(RunOutcome outcome) {
  return outcome >= RunOutcome::kNotPrepared;
}

/// A consumer of one or more streams' packets (`T` is how a packet is held). What it does not care
/// about it need not implement: by default it accepts everything that it is told.
///
/// Calls come in this order: `Open` once a stream, then `Filter` for each of its packets, in file
/// order, interleaved with `Notify`, then `Close` once. `Interrupt` comes between `Open` and
/// `Close`, if at all.
///
/// Threads: `Open` runs on the thread that prepares the source, and so does `Close` when a later
/// consumer refuses to open; `Notify`, `Filter` and `Close` otherwise on the source's event thread;
/// `Interrupt` on the thread that interrupts the source, so it is not serialised with `Filter`.
/// Ownership: shared by the source and its owner. A packet is never modified after it was
/// passed on; a consumer may keep the shared pointer. `MediaInfo` lives as long as the source.
/// Errors: an exception that leaves a call counts as a refusal and is recorded.
template <typename T>
class MediaSource {
 public:
  MediaSource() = default;
  virtual ~MediaSource() = default;
  MediaSource(const MediaSource&) = delete;
  MediaSource& operator=(const MediaSource&) = delete;

  /// @return false to abort the preparation.
  virtual bool Open(MediaInfo* info) = 0;
  /// @return false to refuse: the run then fails with `info->error`, but at the start, which cannot
  ///   be refused.
  virtual bool Notify(MediaInfo* /*info*/, const MediaMessage& /*message*/) { return true; }
  /// @return false to fail the run with `info->error`.
  virtual bool Filter(MediaInfo* info, const T& packet) = 0;
  /// @return false to fail the run with `info->error`.
  virtual bool Close(MediaInfo* /*info*/) { return true; }
  /// The source is being interrupted.
  virtual void Interrupt(MediaInfo* /*info*/) {}
};

using PacketConsumer = MediaSource<std::shared_ptr<QVXPacket>>;

/// Reads an input and passes its packets on.
///
/// Threads: `Prepare`, `Start`, `Interrupt`, `Close` and `Stop` belong to the owner, one call at a
/// time; `Progress` may be called from any thread. Reports come on the source's event thread.
/// Ownership: shared. The owner's callback must stay valid until `Stop` has returned.
class MediaSrc {
 public:
  enum class MediaSrcState : int32_t {
    kEnded = 0,     ///< Payload: int64, the media's estimated end time in milliseconds.
    kCanceled = 1,  ///< Payload: nullptr.
    kError = 2,     ///< Payload: nullptr; the code is in `error_code`.
  };
  using StateCallback = std::function<void(MediaSrcState, const any&)>;

  MediaSrc() = default;
  virtual ~MediaSrc() = default;
  MediaSrc(const MediaSrc&) = delete;
  MediaSrc& operator=(const MediaSrc&) = delete;

  /// Fraction of the input already read, by time: about 0 to 1.
  [[nodiscard]] virtual double Progress() const = 0;
  /// Opens the input and the consumers.
  virtual bool Prepare() = 0;
  /// Starts reading on the source's own thread.
  virtual void Start() = 0;
  /// Makes the source stop reading, tells the consumers, and has it report `kCanceled`.
  virtual void Interrupt() = 0;
  /// Closes the consumers on the event thread; waits for it. Not from the event thread.
  virtual void Close() = 0;
  /// Ends the event thread and frees the input. Not from the event thread.
  virtual void Stop() = 0;

  StateCallback state_callback;  ///< Set by the owner before `Start`; empty: no reports.
  uint32_t index = 0;            ///< Position in the owner; set by it before `Prepare`.
  /// Code of the last failure: 1 for a read error, else the `error` of the record whose consumer
  /// failed. Read after a `kError` report.
  std::atomic<int32_t> error_code{0};
};

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_MEDIA_SRC_H_
