// Reads a media file and hands its packets to the consumers of their streams.
#ifndef QVXMEDIA_EDITOR_FILE_MEDIA_SRC_H_
#define QVXMEDIA_EDITOR_FILE_MEDIA_SRC_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "av_toolbox/demuxer.h"
#include "editor/media_src.h"
#include "eventloop/event_dispatcher.h"

namespace lum {

class Pacer;
class SilentAudio;

/// The kinds of stream that a file source serves; at most one stream of each.
enum class StreamKind : uint8_t { kVideo = 0, kAudio = 1, kData = 2 };

/// A media source that reads one file (or byte source) on an event thread of its own, one packet an
/// event, whole or in ranges.
///
/// Time stamps that consumers see count from the first packet of any stream; across ranges they go
/// on without a jump. Packets of streams without a consumer are dropped.
///
/// Threads: the setters and the `MediaSrc` operations belong to the owner, one call at a time;
/// `Progress` may be called from any thread. `demuxer` may be used by the owner after `Prepare` and
/// before `Start`, or between a report that ended the run and `Stop`.
/// Ownership: created with `std::make_shared`; shares the consumers and the byte source. `Stop`
/// must come before the last reference goes if `Start` was called: anything else is a fatal check.
/// A source serves one run. Until it is started it may be prepared again: consumers that are open
/// are closed first. Afterwards `Prepare` fails, and `Start` of a stopped source reports an error.
/// Errors: see `outcome` and `MediaSrc::error_code`. An exception that leaves a consumer is
/// recorded and counts as a refusal.
class FileMediaSrc : public MediaSrc,
                     public EventHandler,
                     public std::enable_shared_from_this<FileMediaSrc> {
 public:
  /// A part of the file, in milliseconds of its own time line; the end is not included.
  struct Range {
    int64_t start_ms;
    int64_t end_ms;
  };

  /// @param url file to read; also the name of the event thread's dispatcher.
  explicit FileMediaSrc(std::string url);
  ~FileMediaSrc() override;
  FileMediaSrc(const FileMediaSrc&) = delete;
  FileMediaSrc& operator=(const FileMediaSrc&) = delete;

  // All setters: before Prepare.

  /// Attaches the consumer of a stream kind, replacing what was there; empty detaches.
  void SetConsumer(StreamKind kind, std::shared_ptr<PacketConsumer> consumer);
  void SetVideoConsumer(std::shared_ptr<PacketConsumer> consumer) {
    SetConsumer(StreamKind::kVideo, std::move(consumer));
  }
  void SetAudioConsumer(std::shared_ptr<PacketConsumer> consumer) {
    SetConsumer(StreamKind::kAudio, std::move(consumer));
  }
  void SetDataConsumer(std::shared_ptr<PacketConsumer> consumer) {
    SetConsumer(StreamKind::kData, std::move(consumer));
  }
  /// Parts to read, in order; empty reads the whole file.
  void SetRanges(std::vector<Range> ranges) { ranges_ = std::move(ranges); }
  /// Delivers packets no faster than their time stamps.
  void SetPaced(bool paced) { paced_ = paced; }
  /// Makes a silent AAC track where the file has no audio.
  void SetAddSilentAudio(bool add) { add_silent_audio_ = add; }
  /// Reads from `source` instead of the file.
  void SetIOSource(std::shared_ptr<IOSource> source) { io_source_ = std::move(source); }
  /// Reads every stream to the end, also those without a consumer (off by default: where the
  /// container can skip them, their bytes are not read).
  void SetReadAllStreams(bool read_all) { read_all_streams_ = read_all; }

  [[nodiscard]] double Progress() const override {
    return progress_.load(std::memory_order_relaxed);
  }
  bool Prepare() override;
  void Start() override;
  void Interrupt() override;
  void Close() override;
  void Stop() override;

  /// The open input; null before `Prepare` and after `Stop`.
  [[nodiscard]] const Demuxer* demuxer() const { return demuxer_.get(); }
  /// FFmpeg's result of opening the input: 0, or a negative error.
  [[nodiscard]] int open_result() const { return open_result_; }
  /// Whether the last `Prepare` succeeded.
  [[nodiscard]] bool prepared() const { return prepared_; }
  /// How the run ended. Final once the source was closed or stopped. Any thread.
  [[nodiscard]] RunOutcome outcome() const { return outcome_; }
  /// FFmpeg's error that ended the reading; 0 when there was none. When `demuxer` may be used.
  [[nodiscard]] int read_result() const { return read_result_; }

  void HandleEvent(const std::shared_ptr<Event>& event) override;

 private:
  enum SrcEvent : int32_t {
    kSrcEventStart = 0,
    kSrcEventSeek = 1,
    kSrcEventRead = 2,
    kSrcEventInterrupted = 3,
    kSrcEventClose = 4,
    kSrcEventFailed = 5,
    kSrcEventEnd = 6,
  };
  static constexpr size_t kKinds = 3;
  static constexpr int64_t kUnset = INT32_MIN;

  // Where a source stands in its one run. Written by the owner before the event thread starts and
  // after it has ended, by the event thread in between.
  enum class Phase : uint8_t {
    kNew,
    kPrepared,
    kReading,
    kOver,    // the end or a failure was posted: no further reads
    kClosed,  // stopped too, when there is no dispatcher any more
    kStopped,
  };

  // What the source keeps for each kind of stream. Event thread, after Prepare.
  struct Track {
    AVStream* stream = nullptr;
    std::shared_ptr<PacketConsumer> consumer;
    bool open = false;  // the consumer's Open was called, its Close was not
    MediaInfo info;
    int64_t start_offset = kUnset;   // where the current range began, in the stream's time base
    int64_t accumulated_offset = 0;  // joins successive ranges, in the stream's time base
    int64_t last_dts = 0;            // of the last packet passed on, adjusted

    [[nodiscard]] bool active() const { return stream != nullptr && consumer != nullptr; }
  };

  Track& track(StreamKind kind) { return tracks_[static_cast<size_t>(kind)]; }
  [[nodiscard]] bool Released() const { return dispatcher_ == nullptr && phase_ >= Phase::kClosed; }
  bool OpenConsumers();
  // Closes those that are open, but for one; what they answer is recorded only.
  void CloseUnheard(const Track* but = nullptr);
  void ForgetInput();

  // Event thread.
  template <typename Step>
  void FailOnException(Step&& step);
  void PerformStart();
  void PerformSeek();
  void PerformRead();
  void PerformFailed();
  void PerformOnEnd();
  void PerformClose(const Event& event);

  void PostToSelf(SrcEvent what);
  void PostRead();
  void Report(MediaSrcState state, const any& value);
  void FinishReading(SrcEvent outcome);
  void Fail(RunOutcome outcome, int32_t code);
  void FailTrack(const Track& track) { Fail(RunOutcome::kConsumerFailed, track.info.error); }
  // Keeps the first outcome; returns whether this is it.
  bool Settle(RunOutcome outcome);
  [[nodiscard]] bool ReadingIsOver() const;

  Track* TrackOf(const QVXPacket& packet);
  bool NotifyStart();
  void SkipUnusedStreams();
  [[nodiscard]] int64_t LengthToReadMs() const;
  enum class RangeStep : uint8_t { kDeliver, kStop };
  RangeStep UpdateProgress(int64_t position_ms);
  RangeStep NextRange(int64_t position_ms);
  bool Deliver(Track& target, const std::shared_ptr<QVXPacket>& packet);
  bool PassOn(Track& target, const std::shared_ptr<QVXPacket>& packet);
  bool AddSilentAudio(int64_t until_ms);
  int64_t EstimateEndMs();

  std::string url_;
  std::string shown_url_;  // without what is secret in an address
  std::vector<Range> ranges_;
  bool paced_ = false;
  bool add_silent_audio_ = false;
  bool read_all_streams_ = false;
  std::shared_ptr<IOSource> io_source_;

  std::shared_ptr<Demuxer> demuxer_;
  int open_result_ = 0;
  int read_result_ = 0;
  bool prepared_ = false;
  std::array<Track, kKinds> tracks_;
  std::unique_ptr<SilentAudio> silent_audio_;  // null unless it is added
  std::unique_ptr<Pacer> pacer_;               // also what ends the reading
  std::shared_ptr<EventDispatcher> dispatcher_;

  std::shared_ptr<Event> read_event_;

  // Event thread only.
  std::shared_ptr<QVXPacket> packet_;  // the last one read, used again unless a consumer keeps it
  size_t range_index_ = 0;
  int64_t start_position_ = kUnset;  // milliseconds
  int64_t length_ = 0;               // milliseconds to read
  bool skipped_unused_ = false;

  std::atomic<double> progress_{0.0};
  std::atomic<RunOutcome> outcome_{RunOutcome::kNotOver};
  std::atomic<Phase> phase_{Phase::kNew};
};

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_FILE_MEDIA_SRC_H_
