#include "editor/file_media_src.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "av_toolbox/codec_util.h"
#include "av_toolbox/time_util.h"
#include "base/log_sites.h"
#include "editor/blocking_post.h"

namespace lum {
namespace {

constexpr int32_t kReadErrorCode = 1;
constexpr int64_t kAacFrameMillis =
    int64_t{1024} * 1000;  // milliseconds a frame, times the sample rate
constexpr int kSilentAudioRate = 48000;
constexpr int kSilentAudioChannels = 2;

int64_t SteadyNanoseconds() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

// A missing time stamp stays missing.
int64_t Shifted(int64_t timestamp, int64_t by) {
  return timestamp == AV_NOPTS_VALUE ? timestamp : WrappingAdd(timestamp, by);
}

// A consumer's answer. An exception is a refusal, since it must not unwind through libevent's C
// frames.
template <typename Call>
bool AnswerOf(Call&& call) {
  try {
    return call();
  } catch (const std::exception& e) {
    LUM_LOG(kError) << "consumer failed: " << e.what();
    return false;
  }
}

// The time stamp that places a packet: decoding time, or presentation time where there is none.
int64_t PlacingTimestamp(const QVXPacket& packet) {
  return packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
}

}  // namespace

FileMediaSrc::FileMediaSrc(std::string url) : url_(std::move(url)) {}

FileMediaSrc::~FileMediaSrc() {
  LUM_CHECK(dispatcher_ == nullptr)
      << "You must call Stop before ~FileMediaSrc if you have called Start.";
  LUM_LOG(kVerbose) << "~FileMediaSrc:";
}

void FileMediaSrc::SetConsumer(StreamKind kind, std::shared_ptr<PacketConsumer> consumer) {
  track(kind).consumer = std::move(consumer);
}

bool FileMediaSrc::Prepare() {
  demuxer_ = std::make_shared<Demuxer>(url_);
  open_result_ = demuxer_->Open(nullptr, io_source_);
  if (open_result_ != 0) {
    error_code = kReadErrorCode;
    outcome_ = RunOutcome::kOpenFailed;
    return false;
  }
  outcome_ = RunOutcome::kNotOver;
  stopping_ = false;
  interrupted_early_ = false;
  finished_ = false;
  track(StreamKind::kVideo).stream = demuxer_->VideoStream();
  track(StreamKind::kAudio).stream = demuxer_->AudioStream();
  track(StreamKind::kData).stream = demuxer_->DataStream();
  if (add_silent_audio_ && track(StreamKind::kAudio).stream == nullptr) {
    synthetic_audio_ = NewAACStream(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, kSilentAudioChannels,
                                    kSilentAudioRate, nullptr, 0, {1, kSilentAudioRate});
    synthetic_audio_->index = static_cast<int>(demuxer_->StreamCount());  // the first free one
    track(StreamKind::kAudio).stream = synthetic_audio_.get();
  }
  prepared_ = OpenConsumers();
  return prepared_;
}

bool FileMediaSrc::OpenConsumers() {
  for (size_t i = 0; i < kKinds; ++i) {
    Track& opening = tracks_[i];
    if (!opening.active()) continue;
    opening.info.params = NewAVCodecParameters();
    avcodec_parameters_copy(opening.info.params.get(), opening.stream->codecpar);
    opening.info.stream = opening.stream;
    opening.info.source_id = static_cast<int32_t>(index);
    if (opening.consumer->Open(&opening.info)) continue;
    error_code = opening.info.error;
    outcome_ = RunOutcome::kOpenRefused;
    for (size_t j = 0; j < i; ++j) {
      if (!tracks_[j].active()) continue;
      tracks_[j].consumer->Close(&tracks_[j].info);
      tracks_[j].closed = true;
    }
    return false;
  }
  return true;
}

void FileMediaSrc::Start() {
  if (dispatcher_ != nullptr || released_) return;
  const auto dispatcher = std::make_shared<EventDispatcher>();
  dispatcher->SetName(url_);
  dispatcher->Run();
  dispatcher_ = dispatcher;
  read_event_ = MakeEvent(kSrcEventRead, shared_from_this(), dispatcher_);
  PostToSelf(kSrcEventStart);
}

void FileMediaSrc::Interrupt() {
  EndReading();
  track(StreamKind::kVideo).info.ended = true;
  track(StreamKind::kAudio).info.ended = true;
  for (Track& t : tracks_) {
    if (t.active()) t.consumer->Interrupt(&t.info);
  }
  if (dispatcher_ == nullptr) interrupted_early_ = true;
  PostToSelf(kSrcEventInterrupted);
}

void FileMediaSrc::Close() {
  if (closed_) {
    LUM_LOG_AT(kVerbose, site::kSrcCloseTwice) << "want to close twice.";
    return;
  }
  if (dispatcher_ == nullptr) return;  // never started, or stopped: no thread to close on
  EndReading();
  PostAndWait(MakeEvent(kSrcEventClose, shared_from_this(), dispatcher_));
  LUM_LOG_AT(kVerbose, site::kSrcClosed) << "file_media_src:" << url_ << " closed.";
}

void FileMediaSrc::Stop() {
  if (released_) return;
  released_ = true;
  EndReading();
  if (dispatcher_ != nullptr) {
    dispatcher_->Stop();
    dispatcher_->Release();
    dispatcher_.reset();
    Settle(RunOutcome::kCanceled);
  }
  packet_.reset();
  demuxer_.reset();
  LUM_LOG_AT(kVerbose, site::kSrcReleased) << "file_media_src:" << url_ << " released.";
}

void FileMediaSrc::EndReading() {
  {
    const std::lock_guard<std::mutex> lock(pace_mutex_);
    stopping_ = true;
  }
  pace_wake_.notify_all();
}

void FileMediaSrc::PostToSelf(SrcEvent what) {
  if (dispatcher_ != nullptr) MakeEvent(what, shared_from_this(), dispatcher_)->Post();
}

// Reading is one event a packet; the event itself serves again and again.
void FileMediaSrc::PostRead() { read_event_->Post(); }

void FileMediaSrc::Report(MediaSrcState state, const any& value) {
  if (state_callback) state_callback(state, value);
}

void FileMediaSrc::FinishReading(SrcEvent outcome) {
  finished_ = true;
  PostToSelf(outcome);
}

void FileMediaSrc::Fail(RunOutcome outcome, int32_t code) {
  Settle(outcome);
  error_code = code;
  FinishReading(kSrcEventFailed);
}

void FileMediaSrc::Settle(RunOutcome outcome) {
  RunOutcome none = RunOutcome::kNotOver;
  outcome_.compare_exchange_strong(none, outcome);
}

void FileMediaSrc::HandleEvent(const std::shared_ptr<Event>& event) {
  switch (event->what()) {
    case kSrcEventStart:
      FailOnException([this] { PerformStart(); });
      break;
    case kSrcEventSeek:
      FailOnException([this] { PerformSeek(); });
      break;
    case kSrcEventRead:
      FailOnException([this] { PerformRead(); });
      break;
    case kSrcEventInterrupted:
      Settle(RunOutcome::kCanceled);
      Report(MediaSrcState::kCanceled, nullptr);
      break;
    case kSrcEventClose:
      PerformClose(*event);
      break;
    case kSrcEventFailed:
      PerformFailed();
      break;
    case kSrcEventEnd:
      FailOnException([this] { PerformOnEnd(); });
      break;
    default:
      break;
  }
}

// A step that ran out of memory ends the reading, not the process.
template <typename Step>
void FileMediaSrc::FailOnException(Step&& step) {
  try {
    step();
  } catch (const std::exception& e) {
    LUM_LOG(kError) << "reading failed: " << e.what();
    Fail(RunOutcome::kException, kReadErrorCode);
  }
}

void FileMediaSrc::PerformStart() {
  LUM_LOG_AT(kVerbose, site::kSrcStart) << "file media src to start.";
  if (!prepared_) {
    finished_ = true;
    Settle(RunOutcome::kNotPrepared);
    PerformFailed();
    return;
  }
  // There was no thread yet to report it on, and whoever waits for the end must hear of it.
  if (interrupted_early_) {
    Settle(RunOutcome::kCanceled);
    Report(MediaSrcState::kCanceled, nullptr);
  }
  if (ReadingIsOver()) return;
  length_ = 0;
  if (ranges_.empty()) {
    const int64_t video_ms = demuxer_->VideoDurationMs();
    const int64_t audio_ms = synthetic_audio_ ? video_ms : demuxer_->AudioDurationMs();
    length_ = std::max(video_ms, audio_ms);
    PostRead();
  } else {
    for (const Range& range : ranges_) {
      length_ = WrappingAdd(length_, WrappingSub(range.end_ms, range.start_ms));
    }
    range_index_ = 0;
    PostToSelf(kSrcEventSeek);
  }
  start_clock_ = SteadyNanoseconds();
}

void FileMediaSrc::PerformSeek() {
  if (ReadingIsOver()) return;
  const int64_t start = Rescale(ranges_[range_index_].start_ms, kMilliseconds, kMicroseconds);
  demuxer_->Seek(-1, start, AVSEEK_FLAG_BACKWARD);
  PostRead();
}

void FileMediaSrc::PerformRead() {
  if (ReadingIsOver()) return;
  const int read = demuxer_->NextPacket(packet_);
  if (read == AVERROR_EOF) return FinishReading(kSrcEventEnd);
  if (read != 0) {
    read_result_ = read;
    return Fail(RunOutcome::kReadFailed, kReadErrorCode);
  }

  const std::shared_ptr<QVXPacket>& packet = packet_;
  Track* const track = TrackOf(*packet);
  const AVStream* const stream = demuxer_->GetStream(static_cast<unsigned>(packet->stream_index));
  if (stream != nullptr && PlacingTimestamp(*packet) != AV_NOPTS_VALUE) {
    const AVRational time_base = stream->time_base;
    // The place in the file counts before any adjustment.
    const int64_t position_ms = Rescale(PlacingTimestamp(*packet), time_base, kMilliseconds);
    if (start_position_ == kUnset) {
      start_position_ = position_ms;
      for (Track& t : tracks_) {
        if (!t.active()) continue;
        const bool told = AnswerOf([&] {
          t.consumer->Notify(&t.info, {kMediaMessageStart, start_position_});
          return true;  // it cannot be refused
        });
        if (!told) return FailTrack(t);
      }
    }
    if (track != nullptr) {
      if (track->start_offset == kUnset) {
        track->start_offset = Rescale(start_position_, kMilliseconds, time_base);
      }
      const int64_t shift = WrappingSub(0, track->start_offset);
      packet->pts = Shifted(packet->pts, shift);
      packet->dts = Shifted(packet->dts, shift);
      if (paced_ && !WaitUntilDue(Rescale(PlacingTimestamp(*packet), time_base, kMilliseconds))) {
        return;
      }
    }
    if (UpdateProgress(position_ms) == RangeStep::kStop) return;
  }
  if (track != nullptr && !Deliver(*track, packet)) return;
  SkipUnusedStreams();
  PostRead();
}

FileMediaSrc::Track* FileMediaSrc::TrackOf(const QVXPacket& packet) {
  for (Track& t : tracks_) {
    if (t.stream != nullptr && t.stream != synthetic_audio_.get() &&
        t.stream->index == packet.stream_index) {
      return &t;
    }
  }
  return nullptr;
}

// Returns false when the wait was ended by an interrupt.
bool FileMediaSrc::WaitUntilDue(int64_t due_ms) {
  const int64_t now_ms = (SteadyNanoseconds() - start_clock_) / 1'000'000;
  std::unique_lock<std::mutex> lock(pace_mutex_);
  if (due_ms > now_ms) {
    // A broken time stamp may lie centuries ahead, which the clock's own unit cannot hold.
    constexpr int64_t kLongestWaitMs = int64_t{1000} * 60 * 60 * 24 * 365;
    const std::chrono::milliseconds wait(std::min(WrappingSub(due_ms, now_ms), kLongestWaitMs));
    pace_wake_.wait_for(lock, wait, [this] { return stopping_.load(); });
  }
  return !stopping_;
}

FileMediaSrc::RangeStep FileMediaSrc::UpdateProgress(int64_t position_ms) {
  const auto show = [this](int64_t elapsed_ms) {
    const double fraction =
        length_ > 0 ? static_cast<double>(elapsed_ms) / static_cast<double>(length_) : 0.0;
    progress_.store(fraction, std::memory_order_relaxed);  // nothing else hangs on it
    return fraction;
  };
  if (ranges_.empty()) {
    show(position_ms);
    return RangeStep::kDeliver;
  }

  const Range& range = ranges_[range_index_];
  int64_t elapsed_ms = std::max<int64_t>(WrappingSub(position_ms, range.start_ms), 0);
  for (size_t i = 0; i < range_index_; ++i) {
    elapsed_ms = WrappingAdd(elapsed_ms, WrappingSub(ranges_[i].end_ms, ranges_[i].start_ms));
  }
  const double progress = show(elapsed_ms);
  if (position_ms < range.end_ms) {
    if (progress < 1.0) return RangeStep::kDeliver;
    FinishReading(kSrcEventEnd);
    return RangeStep::kStop;
  }
  if (range_index_ + 1 == ranges_.size()) {
    FinishReading(kSrcEventEnd);
    return RangeStep::kStop;
  }
  return NextRange(position_ms);
}

FileMediaSrc::RangeStep FileMediaSrc::NextRange(int64_t position_ms) {
  const int64_t read_ms = WrappingSub(position_ms, ranges_[range_index_].start_ms);
  for (Track& t : tracks_) {
    if (!t.active()) continue;
    t.accumulated_offset =
        WrappingAdd(t.accumulated_offset, Rescale(read_ms, kMilliseconds, t.stream->time_base));
    const MediaMessage jump{kMediaMessageNewRange, t.accumulated_offset};
    if (!AnswerOf([&] { return t.consumer->Notify(&t.info, jump); })) {
      FailTrack(t);
      return RangeStep::kStop;
    }
  }
  ++range_index_;
  for (Track& t : tracks_) t.start_offset = kUnset;
  start_position_ = kUnset;
  PostToSelf(kSrcEventSeek);
  return RangeStep::kStop;
}

// Returns false when reading must not go on.
bool FileMediaSrc::Deliver(Track& target, const std::shared_ptr<QVXPacket>& packet) {
  packet->pts = Shifted(packet->pts, target.accumulated_offset);
  packet->dts = Shifted(packet->dts, target.accumulated_offset);
  if (packet->dts != AV_NOPTS_VALUE) target.last_dts = packet->dts;
  const int64_t dts = packet->dts;
  if (target.consumer != nullptr && !PassOn(target, packet)) return false;
  const Track& audio = track(StreamKind::kAudio);
  if (&target == &track(StreamKind::kVideo) && synthetic_audio_ && audio.active() &&
      dts != AV_NOPTS_VALUE) {
    return AddSilentAudio(Rescale(dts, target.stream->time_base, kMilliseconds));
  }
  return true;
}

bool FileMediaSrc::PassOn(Track& target, const std::shared_ptr<QVXPacket>& packet) {
  const bool accepted = AnswerOf([&] { return target.consumer->Filter(&target.info, packet); });
  if (!accepted) FailTrack(target);
  return accepted;
}

bool FileMediaSrc::AddSilentAudio(int64_t until_ms) {
  Track& audio = track(StreamKind::kAudio);
  const int rate = audio.stream->codecpar->sample_rate;
  if (rate <= 0) return true;
  // Counted in frames, so that the truncated milliseconds do not add up to a drift.
  for (int64_t time_ms = 0; !ReadingIsOver(); ++silent_frames_sent_) {
    time_ms = silent_frames_sent_ * kAacFrameMillis / rate;
    if (time_ms > until_ms) break;
    const auto frame = NewAACPacket(
        nullptr, 0, Rescale(time_ms, kMilliseconds, audio.stream->time_base), audio.stream->index);
    audio.last_dts = frame->dts;
    if (!PassOn(audio, frame)) return false;
  }
  return true;
}

// The first packet of any stream sets the start position, so that one is read with every stream on;
// from then on, streams that nobody consumes cost only their entries in the container's index. With
// ranges every packet counts, as any of them may lie behind a range's end.
void FileMediaSrc::SkipUnusedStreams() {
  if (skipped_unused_ || read_all_streams_ || !ranges_.empty() || start_position_ == kUnset) return;
  skipped_unused_ = true;
  const Track& audio = track(StreamKind::kAudio);
  for (unsigned i = 0; i < demuxer_->StreamCount(); ++i) {
    const AVStream* stream = demuxer_->GetStream(i);
    const bool consumed = std::any_of(tracks_.begin(), tracks_.end(), [&](const Track& t) {
      return t.active() && t.stream == stream;
    });
    const bool times_silent_audio =
        synthetic_audio_ && audio.active() && stream == track(StreamKind::kVideo).stream;
    if (!consumed && !times_silent_audio) demuxer_->DiscardStream(i);
  }
}

void FileMediaSrc::PerformFailed() {
  if (closed_) return;
  for (Track& t : tracks_) t.info.ended = true;
  Report(MediaSrcState::kError, nullptr);
}

void FileMediaSrc::PerformOnEnd() {
  if (closed_) return;
  LUM_LOG_AT(kVerbose, site::kSrcOnEnd) << url_ << " on end.";
  for (Track& t : tracks_) {
    if (!t.active()) continue;
    t.info.ended = true;
    const MediaMessage end{kMediaMessageEnd, any()};
    if (!AnswerOf([&] { return t.consumer->Notify(&t.info, end); })) return FailTrack(t);
  }
  Settle(RunOutcome::kEnded);
  if (!state_callback) return;
  Report(MediaSrcState::kEnded, EstimateEndMs());
}

// The end of the last frame of whichever stream lasts longer; -1 without video and audio.
int64_t FileMediaSrc::EstimateEndMs() {
  int64_t estimate = -1;
  const Track& audio = track(StreamKind::kAudio);
  if (audio.active()) {
    const int rate = audio.stream->codecpar->sample_rate;
    const int64_t frame = rate > 0 ? kAacFrameMillis / rate : 0;
    LUM_LOG_AT(kInfo, site::kSrcAudioEstimate) << "estimate audio frame duration:" << frame;
    estimate = WrappingAdd(frame, Rescale(audio.last_dts, audio.stream->time_base, kMilliseconds));
  }
  const Track& video = track(StreamKind::kVideo);
  if (video.active()) {
    const AVRational rate = video.stream->avg_frame_rate;
    const int64_t frame = rate.num > 0 ? int64_t{rate.den} * 1000 / rate.num : 0;
    LUM_LOG_AT(kInfo, site::kSrcVideoEstimate) << "estimate video frame duration:" << frame;
    const int64_t end =
        WrappingAdd(Rescale(video.last_dts, video.stream->time_base, kMilliseconds), frame);
    estimate = std::max(estimate, end);
  }
  return estimate;
}

void FileMediaSrc::PerformClose(const Event& event) {
  LUM_LOG_AT(kVerbose, site::kSrcPerformClose) << "perform close";
  closed_ = true;
  Settle(RunOutcome::kCanceled);
  for (Track& t : tracks_) {
    if (!t.active() || t.closed) continue;
    if (!AnswerOf([&] { return t.consumer->Close(&t.info); })) {
      error_code = t.info.error;
      const RunOutcome before = outcome_;
      if (before == RunOutcome::kEnded || before == RunOutcome::kCanceled) {
        outcome_ = RunOutcome::kConsumerFailed;
      }
      Report(MediaSrcState::kError, nullptr);
    }
  }
  FulfilPromise(event);
}

}  // namespace lum
