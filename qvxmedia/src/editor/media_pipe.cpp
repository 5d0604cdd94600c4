#include "editor/media_pipe.h"

#include <stdexcept>

#include "base/log_sites.h"
#include "editor/blocking_post.h"
#include "editor/exception_text.h"

namespace lum {

MediaPipe::~MediaPipe() {
  // It counts as started from Start on, also while the event is still to be handled.
  if (state_ == kMediaPipeUnknown && dispatcher_ != nullptr) state_ = kMediaPipeStarted;
  LUM_CHECK_AT(state_ == kMediaPipeReleased || state_ == kMediaPipeUnknown, site::kPipeNotReleased)
      << "You must call Release before ~MediaPipe if you have called Start.";
  LUM_LOG_AT(kVerbose, site::kPipeDestroyed) << "~MediaPipe";
}

void MediaPipe::AddSrc(const std::shared_ptr<MediaSrc>& src) {
  const auto index = static_cast<uint32_t>(srcs_.size());
  src->index = index;
  srcs_.push_back(src);
  src->state_callback = [this, index](MediaSrc::MediaSrcState src_state, const any& /*value*/) {
    OnSrcReport(src_state, index);
  };
}

bool MediaPipe::Prepare() {
  if (srcs_.empty()) {
    LUM_LOG_AT(kVerbose, site::kPipeNoSource) << "there should at least one src.";
    return false;
  }
  canceled_srcs_ = std::make_shared<DynamicBitset>(srcs_.size());
  ended_srcs_ = std::make_shared<DynamicBitset>(srcs_.size());
  for (const auto& src : srcs_) {
    if (!src->Prepare()) return false;
  }
  return true;
}

void MediaPipe::Start() {
  const auto dispatcher = std::make_shared<EventDispatcher>();
  dispatcher->SetName("pipe");
  dispatcher->Run();
  // Under the mutex, so that no Cancel comes before the start: a source that is not started yet
  // could not report it, and nothing would end the run.
  const std::lock_guard<std::mutex> lock(dispatcher_mutex_);
  dispatcher_ = dispatcher;
  MakeEvent(kPipeEventStart, shared_from_this(), dispatcher)->Post();
}

void MediaPipe::Cancel() { NewEvent(kPipeEventCancel)->Post(); }

void MediaPipe::Release() {
  if (const auto running = dispatcher()) {
    PostAndWait(NewEvent(kPipeEventRelease));
    running->Release();
    {
      const std::lock_guard<std::mutex> lock(dispatcher_mutex_);
      dispatcher_.reset();
    }
    LUM_LOG_AT(kVerbose, site::kPipeReleased) << "MediaPipe Released.";
  }
  state_ = kMediaPipeReleased;
}

void MediaPipe::OnSrcReport(MediaSrc::MediaSrcState src_state, uint32_t index) {
  PipeEvent what{};
  switch (src_state) {
    case MediaSrc::MediaSrcState::kEnded:
      what = kPipeEventSrcEnd;
      break;
    case MediaSrc::MediaSrcState::kCanceled:
      what = kPipeEventSrcCancel;
      break;
    case MediaSrc::MediaSrcState::kError:
      if (index >= srcs_.size()) throw std::out_of_range("invalid vector<T> subscript");
      error_code_ = srcs_[index]->error_code.load();
      has_error_ = true;
      what = kPipeEventSrcError;
      break;
    default:
      return;
  }
  NewEvent(what)->SetData("index", static_cast<int>(index))->Post();
}

std::shared_ptr<EventDispatcher> MediaPipe::dispatcher() {
  const std::lock_guard<std::mutex> lock(dispatcher_mutex_);
  return dispatcher_;
}

std::shared_ptr<Event> MediaPipe::NewEvent(PipeEvent what) {
  return MakeEvent(what, shared_from_this(), dispatcher());
}

void MediaPipe::HandleEvent(const std::shared_ptr<Event>& event) {
  switch (event->what()) {
    case kPipeEventStart:
      PerformStart();
      break;
    case kPipeEventCancel:
      for (const auto& src : srcs_) src->Interrupt();
      break;
    case kPipeEventSrcEnd:
      PerformOnEnd(*event);
      break;
    case kPipeEventSrcCancel:
      PerformOnCancel(*event);
      break;
    case kPipeEventSrcError:
      if (!Reported()) Cancel();
      break;
    case kPipeEventRelease:
      PerformRelease(*event);
      break;
    default:
      break;
  }
}

void MediaPipe::PerformStart() {
  try {
    for (const auto& src : srcs_) src->Start();
    state_ = kMediaPipeStarted;
  } catch (...) {  // no thread for a source: it could not report a cancellation
    LUM_LOG(kError) << "a source could not be started: " << CurrentExceptionText();
    CloseSrcs();
    state_ = kMediaPipeError;
    if (on_error_) on_error_(error_code_);
  }
}

// Ends and cancellations are tallied apart: a run of which some sources ended and others were
// cancelled reports nothing until all of one kind have arrived. The first outcome is final.
void MediaPipe::PerformOnEnd(const Event& event) {
  if (Reported()) return;
  const size_t index = SrcIndex(event);
  ended_srcs_->Set(index, /*value=*/true);
  if (!ended_srcs_->All()) return;
  CloseSrcs();
  if (has_error_) {
    LUM_LOG_AT(kVerbose, site::kPipeEndAfterError)
        << "close src check error, won't perform end callback.";
    return;
  }
  state_ = kMediaPipeEnded;
  if (on_end_) on_end_();
}

void MediaPipe::PerformOnCancel(const Event& event) {
  if (Reported()) return;
  const size_t index = SrcIndex(event);
  canceled_srcs_->Set(index, /*value=*/true);
  if (!canceled_srcs_->All()) return;
  CloseSrcs();
  if (has_error_) {
    state_ = kMediaPipeError;
    if (on_error_) on_error_(error_code_);
  } else {
    state_ = kMediaPipeCanceled;
    if (on_cancel_) on_cancel_();
  }
}

void MediaPipe::PerformRelease(const Event& event) {
  for (const auto& src : srcs_) src->Stop();
  FulfilPromise(event);
  if (const auto running = dispatcher()) running->Stop();
}

size_t MediaPipe::SrcIndex(const Event& event) const {
  LUM_CHECK(ended_srcs_ != nullptr) << "Prepare must precede Start.";
  int index = -1;
  event.GetDataCopy("index", &index);
  LUM_CHECK(index >= 0 && static_cast<size_t>(index) < srcs_.size());
  return static_cast<size_t>(index);
}

void MediaPipe::CloseSrcs() {
  for (const auto& src : srcs_) src->Close();
}

}  // namespace lum
