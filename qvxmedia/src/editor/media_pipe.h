// Drives media sources as a unit and reports once how their run ended.
#ifndef QVXMEDIA_EDITOR_MEDIA_PIPE_H_
#define QVXMEDIA_EDITOR_MEDIA_PIPE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "editor/dynamic_bitset.h"
#include "editor/media_src.h"
#include "eventloop/event_dispatcher.h"

namespace lum {

/// Prepares, starts, cancels and closes one or more sources together, and calls exactly one of
/// three callbacks when all of them have ended or all were cancelled. A source's error cancels
/// every source.
///
/// The owner's sequence: construct, `AddSrc`, `Prepare`, set the callbacks, `Start`, wait for one
/// callback, `Release`, drop the last reference.
///
/// Threads: `Cancel` and `state` may be called from any thread, everything else from the owner's.
/// After `Start` all work runs on the pipe's own loop thread, the callbacks included; they must not
/// block it for long, call `Release` or throw.
/// Ownership: created with `std::make_shared`; shares the sources. `Release` must come before the
/// last reference goes if `Start` was called: anything else is a fatal check.
class MediaPipe : public EventHandler, public std::enable_shared_from_this<MediaPipe> {
 public:
  enum State : int32_t {
    kMediaPipeUnknown = 0,
    kMediaPipeStarted = 1,
    kMediaPipeReleased = 2,
    kMediaPipeEnded = 100,
    kMediaPipeCanceled = 101,
    kMediaPipeError = 102,
  };

  MediaPipe() = default;
  ~MediaPipe() override;
  MediaPipe(const MediaPipe&) = delete;
  MediaPipe& operator=(const MediaPipe&) = delete;

  /// Appends a source and gives it the next index. Before `Prepare`.
  void AddSrc(const std::shared_ptr<MediaSrc>& src);

  /// Prepares every source, in order, up to the first that fails.
  /// @return false when there is no source or one failed to prepare.
  bool Prepare();

  /// Starts the sources on the pipe's own thread. After `Prepare`, whatever it returned.
  void Start();

  /// Asks every source to stop reading. May be called repeatedly. Any thread.
  void Cancel();

  /// Stops the sources and ends the pipe's thread; waits for both. Not from a callback.
  void Release();

  /// The callbacks, set before `Start`. Only one is called, once a run.
  void SetEndCallback(std::function<void()> callback) { on_end_.swap(callback); }
  void SetCancelCallback(std::function<void()> callback) { on_cancel_.swap(callback); }
  /// The callback is given the `error_code` of the source that failed last.
  void SetErrorCallback(std::function<void(int)> callback) { on_error_.swap(callback); }

  [[nodiscard]] int32_t state() const { return state_; }

  void HandleEvent(const std::shared_ptr<Event>& event) override;

 private:
  enum PipeEvent : int32_t {
    kPipeEventStart = 0,
    kPipeEventCancel = 1,
    kPipeEventSrcEnd = 2,
    kPipeEventSrcCancel = 3,
    kPipeEventSrcError = 4,
    kPipeEventRelease = 5,
  };

  // Runs on the reporting source's thread.
  void OnSrcReport(MediaSrc::MediaSrcState src_state, uint32_t index);
  [[nodiscard]] std::shared_ptr<Event> NewEvent(PipeEvent what);
  [[nodiscard]] std::shared_ptr<EventDispatcher> dispatcher();

  void PerformStart();
  void PerformOnEnd(const Event& event);
  void PerformOnCancel(const Event& event);
  void PerformRelease(const Event& event);
  [[nodiscard]] bool Reported() const { return state_ >= kMediaPipeEnded; }
  [[nodiscard]] size_t SrcIndex(const Event& event) const;
  void CloseSrcs();

  std::atomic<int32_t> state_{kMediaPipeUnknown};
  std::atomic<bool> has_error_{false};
  std::shared_ptr<DynamicBitset> canceled_srcs_;
  std::shared_ptr<DynamicBitset> ended_srcs_;
  std::mutex dispatcher_mutex_;  // Cancel may come while the owner starts or releases
  std::shared_ptr<EventDispatcher> dispatcher_;  // guarded by dispatcher_mutex_
  std::vector<std::shared_ptr<MediaSrc>> srcs_;  // fixed once Start was called
  std::function<void()> on_end_;
  std::function<void()> on_cancel_;
  std::function<void(int)> on_error_;
  std::atomic<int32_t> error_code_{-1};
};

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_MEDIA_PIPE_H_
