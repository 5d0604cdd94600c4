#include "editor/file_media_src.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "av_toolbox/address.h"
#include "av_toolbox/codec_util.h"
#include "av_toolbox/time_util.h"
#include "base/log_sites.h"
#include "editor/blocking_post.h"
#include "editor/exception_text.h"
#include "editor/pacer.h"
#include "editor/silent_audio.h"

namespace lum {
namespace {

constexpr int32_t kReadErrorCode = 1;

// A missing time stamp stays missing.
int64_t Shifted(int64_t timestamp, int64_t by) {
  return timestamp == AV_NOPTS_VALUE ? timestamp : WrappingAdd(timestamp, by);
}

// A consumer's answer. An exception of whatever type is a refusal, since it must not unwind through
// libevent's C frames.
template <typename Call>
bool AnswerOf(Call&& call) {
  try {
    return call();
  } catch (...) {
    LUM_LOG(kError) << "consumer failed: " << CurrentExceptionText();
    return false;
  }
}

// The time stamp that places a packet: decoding time, or presentation time where there is none.
int64_t PlacingTimestamp(const QVXPacket& packet) {
  return packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
}

int64_t StreamDurationMs(const AVStream& stream) {
  return stream.duration > 0 ? Rescale(stream.duration, stream.time_base, kMilliseconds) : -1;
}

}  // namespace

FileMediaSrc::FileMediaSrc(std::string url)
    : url_(std::move(url)), shown_url_(ShownName(url_)), pacer_(std::make_unique<Pacer>()) {}

FileMediaSrc::~FileMediaSrc() {
  LUM_CHECK(dispatcher_ == nullptr)
      << "You must call Stop before ~FileMediaSrc if you have called Start.";
  LUM_LOG(kVerbose) << "~FileMediaSrc:";
}

void FileMediaSrc::SetConsumer(StreamKind kind, std::shared_ptr<PacketConsumer> consumer) {
  track(kind).consumer = std::move(consumer);
}

bool FileMediaSrc::Prepare() {
  if (dispatcher_ != nullptr || phase_ > Phase::kPrepared) return false;
  CloseUnheard();
  ForgetInput();
  phase_ = Phase::kNew;
  prepared_ = false;
  outcome_ = RunOutcome::kNotOver;
  for (Track& t : tracks_) {
    t.info.ended = false;
    t.info.error = -1;
  }
  demuxer_ = std::make_shared<Demuxer>(url_);
  open_result_ = demuxer_->Open(nullptr, io_source_);
  if (open_result_ != 0) {
    error_code = kReadErrorCode;
    outcome_ = RunOutcome::kOpenFailed;
    return false;
  }
  pacer_->Reset();
  track(StreamKind::kVideo).stream = demuxer_->VideoStream();
  track(StreamKind::kAudio).stream = demuxer_->AudioStream();
  track(StreamKind::kData).stream = demuxer_->DataStream();
  if (add_silent_audio_ && track(StreamKind::kAudio).stream == nullptr) {
    const auto first_free = static_cast<int>(demuxer_->StreamCount());
    silent_audio_ = std::make_unique<SilentAudio>(first_free);
    track(StreamKind::kAudio).stream = silent_audio_->stream();
  }
  prepared_ = OpenConsumers();
  if (prepared_) phase_ = Phase::kPrepared;
  return prepared_;
}

bool FileMediaSrc::OpenConsumers() {
  for (Track& opening : tracks_) {
    if (!opening.active()) continue;
    MediaInfo& info = opening.info;
    info.params = NewAVCodecParameters();
    avcodec_parameters_copy(info.params.get(), opening.stream->codecpar);
    info.stream = opening.stream;
    info.source_id = static_cast<int32_t>(index);
    opening.open = true;
    if (AnswerOf([&] { return opening.consumer->Open(&info); })) continue;
    error_code = info.error;
    outcome_ = RunOutcome::kOpenRefused;
    CloseUnheard(&opening);  // it may hold what it opened first: closed with the source
    return false;
  }
  return true;
}

void FileMediaSrc::CloseUnheard(const Track* but) {
  for (Track& t : tracks_) {
    if (!t.open || &t == but) continue;
    t.open = false;
    AnswerOf([&] { return t.consumer->Close(&t.info); });
  }
}

void FileMediaSrc::ForgetInput() {
  for (Track& t : tracks_) t.stream = t.info.stream = nullptr;
  silent_audio_.reset();
  demuxer_.reset();
}

void FileMediaSrc::Start() {
  if (dispatcher_ != nullptr) return;
  if (Released()) phase_ = Phase::kNew;  // reported as not prepared
  const auto dispatcher = std::make_shared<EventDispatcher>();
  dispatcher->SetName(shown_url_);
  dispatcher->Run();
  dispatcher_ = dispatcher;
  read_event_ = MakeEvent(kSrcEventRead, shared_from_this(), dispatcher_);
  // An interrupt that came before there was a thread to report it on. Asked before the start is
  // posted: from then on the phase is the event thread's.
  const bool interrupted = phase_ == Phase::kPrepared && pacer_->ended();
  PostToSelf(kSrcEventStart);
  if (interrupted) PostToSelf(kSrcEventInterrupted);
}

void FileMediaSrc::Interrupt() {
  pacer_->End();
  track(StreamKind::kVideo).info.ended = true;
  track(StreamKind::kAudio).info.ended = true;
  for (Track& t : tracks_) {
    if (!t.open) continue;
    const bool told = AnswerOf([&] {
      t.consumer->Interrupt(&t.info);
      return true;
    });
    if (told || !Settle(RunOutcome::kConsumerFailed)) continue;
    error_code = t.info.error;
    if (dispatcher_ == nullptr) phase_ = Phase::kNew;  // fails when it is started
    PostToSelf(kSrcEventFailed);
  }
  PostToSelf(kSrcEventInterrupted);
}

void FileMediaSrc::Close() {
  if (phase_ == Phase::kClosed) {
    LUM_LOG_AT(kVerbose, site::kSrcCloseTwice) << "want to close twice.";
    return;
  }
  if (dispatcher_ == nullptr) return;  // never started, or stopped: no thread to close on
  pacer_->End();
  PostAndWait(MakeEvent(kSrcEventClose, shared_from_this(), dispatcher_));
  LUM_LOG_AT(kVerbose, site::kSrcClosed) << "file_media_src:" << shown_url_ << " closed.";
}

void FileMediaSrc::Stop() {
  if (Released()) return;
  pacer_->End();
  if (dispatcher_ != nullptr) {
    dispatcher_->Stop();
    dispatcher_->Release();
    dispatcher_.reset();
    Settle(RunOutcome::kCanceled);
  }
  if (phase_ != Phase::kClosed) phase_ = Phase::kStopped;
  for (Track& t : tracks_) t.open = false;  // no consumer is called any more
  packet_.reset();
  ForgetInput();
  LUM_LOG_AT(kVerbose, site::kSrcReleased) << "file_media_src:" << shown_url_ << " released.";
}

void FileMediaSrc::PostToSelf(SrcEvent what) {
  if (dispatcher_ != nullptr) MakeEvent(what, shared_from_this(), dispatcher_)->Post();
}

// Reading is one event a packet; the event itself serves again and again.
void FileMediaSrc::PostRead() { dispatcher_->Register(read_event_); }

void FileMediaSrc::Report(MediaSrcState state, const any& value) {
  if (state_callback) state_callback(state, value);
}

void FileMediaSrc::FinishReading(SrcEvent outcome) {
  if (phase_ != Phase::kClosed) phase_ = Phase::kOver;
  PostToSelf(outcome);
}

void FileMediaSrc::Fail(RunOutcome outcome, int32_t code) {
  Settle(outcome);
  error_code = code;
  FinishReading(kSrcEventFailed);
}

bool FileMediaSrc::Settle(RunOutcome outcome) {
  RunOutcome none = RunOutcome::kNotOver;
  return outcome_.compare_exchange_strong(none, outcome);
}

bool FileMediaSrc::ReadingIsOver() const { return phase_ != Phase::kReading || pacer_->ended(); }

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
  } catch (...) {
    LUM_LOG(kError) << "reading failed: " << CurrentExceptionText();
    Fail(RunOutcome::kException, kReadErrorCode);
  }
}

void FileMediaSrc::PerformStart() {
  LUM_LOG_AT(kVerbose, site::kSrcStart) << "file media src to start.";
  if (phase_ == Phase::kNew) {
    if (!IsFailure(outcome_)) {
      outcome_ = RunOutcome::kNotPrepared;
      error_code = kReadErrorCode;
    }
    phase_ = Phase::kOver;
    PerformFailed();
  }
  if (phase_ != Phase::kPrepared) return;
  phase_ = Phase::kReading;
  if (ReadingIsOver()) return;  // interrupted before
  length_ = LengthToReadMs();
  if (ranges_.empty()) {
    PostRead();
  } else {
    PostToSelf(kSrcEventSeek);
  }
  pacer_->Start();
}

// The longer of video and audio; where neither has a duration, what is consumed counts.
int64_t FileMediaSrc::LengthToReadMs() const {
  int64_t length = 0;
  for (const Range& range : ranges_) {
    length = WrappingAdd(length, WrappingSub(range.end_ms, range.start_ms));
  }
  if (!ranges_.empty()) return length;
  length = std::max(demuxer_->VideoDurationMs(), demuxer_->AudioDurationMs());
  if (length > 0) return length;
  for (const Track& t : tracks_) {
    if (t.active()) length = std::max(length, StreamDurationMs(*t.stream));
  }
  return length;
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
      if (!NotifyStart()) return;
    }
    if (track != nullptr) {
      if (track->start_offset == kUnset) {
        track->start_offset = Rescale(start_position_, kMilliseconds, time_base);
      }
      const int64_t shift = WrappingSub(0, track->start_offset);
      packet->pts = Shifted(packet->pts, shift);
      packet->dts = Shifted(packet->dts, shift);
      if (paced_ &&
          !pacer_->WaitUntil(Rescale(PlacingTimestamp(*packet), time_base, kMilliseconds))) {
        return;
      }
    }
    if (UpdateProgress(position_ms) == RangeStep::kStop) return;
  }
  if (track != nullptr && !Deliver(*track, packet)) return;
  SkipUnusedStreams();
  PostRead();
}

// Returns false when a consumer threw: the start cannot be refused.
bool FileMediaSrc::NotifyStart() {
  for (Track& t : tracks_) {
    if (!t.active()) continue;
    const bool told = AnswerOf([&] {
      t.consumer->Notify(&t.info, {kMediaMessageStart, start_position_});
      return true;
    });
    if (told) continue;
    FailTrack(t);
    return false;
  }
  return true;
}

FileMediaSrc::Track* FileMediaSrc::TrackOf(const QVXPacket& packet) {
  for (Track& t : tracks_) {
    const bool silent = silent_audio_ && t.stream == silent_audio_->stream();
    if (t.stream != nullptr && !silent && t.stream->index == packet.stream_index) return &t;
  }
  return nullptr;
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
  if (&target == &track(StreamKind::kVideo) && silent_audio_ && audio.active() &&
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
  while (!ReadingIsOver()) {
    const auto frame = silent_audio_->NextUpTo(until_ms);
    if (frame == nullptr) break;
    audio.last_dts = frame->dts;
    if (!PassOn(audio, frame)) return false;
  }
  return true;
}

// The first packet of any stream sets the start position, so that one is read with every stream on;
// from then on, streams without a consumer cost only their entries in the container's index. With
// ranges every packet counts, as any of them may lie after a range's end.
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
        silent_audio_ && audio.active() && stream == track(StreamKind::kVideo).stream;
    if (!consumed && !times_silent_audio) demuxer_->DiscardStream(i);
  }
}

void FileMediaSrc::PerformFailed() {
  if (phase_ == Phase::kClosed) return;
  for (Track& t : tracks_) t.info.ended = true;
  Report(MediaSrcState::kError, nullptr);
}

void FileMediaSrc::PerformOnEnd() {
  if (phase_ == Phase::kClosed) return;
  LUM_LOG_AT(kVerbose, site::kSrcOnEnd) << shown_url_ << " on end.";
  for (Track& t : tracks_) {
    if (!t.active()) continue;
    t.info.ended = true;
    const MediaMessage end{kMediaMessageEnd, any()};
    if (!AnswerOf([&] { return t.consumer->Notify(&t.info, end); })) return FailTrack(t);
  }
  // False where an interrupt came first; one that a consumer threw from is a failure to report.
  if (!Settle(RunOutcome::kEnded) && outcome_ == RunOutcome::kConsumerFailed) return;
  if (!state_callback) return;
  Report(MediaSrcState::kEnded, EstimateEndMs());
}

// The end of the last frame of whichever stream lasts longer; -1 without video and audio.
int64_t FileMediaSrc::EstimateEndMs() {
  int64_t estimate = -1;
  const Track& audio = track(StreamKind::kAudio);
  if (audio.active()) {
    const int rate = audio.stream->codecpar->sample_rate;
    const int64_t frame = AacFramesMs(1, rate);
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
  phase_ = Phase::kClosed;
  Settle(RunOutcome::kCanceled);
  for (Track& t : tracks_) {
    if (!t.open) continue;
    t.open = false;
    if (AnswerOf([&] { return t.consumer->Close(&t.info); })) continue;
    error_code = t.info.error;
    if (!IsFailure(outcome_)) outcome_ = RunOutcome::kConsumerFailed;
    Report(MediaSrcState::kError, nullptr);
  }
  FulfilPromise(event);
}

}  // namespace lum
