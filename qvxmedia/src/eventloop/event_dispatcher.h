// An event loop on a thread of its own.
#ifndef QVXMEDIA_EVENTLOOP_EVENT_DISPATCHER_H_
#define QVXMEDIA_EVENTLOOP_EVENT_DISPATCHER_H_

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "eventloop/event.h"

struct event;
struct event_base;

namespace lum {

/// Delivers posted events to their handlers, one at a time, on a libevent loop's own thread.
///
/// Events without a delay are delivered in the order in which they were posted. Each delayed event
/// waits on a one-shot timer of its own, independent of the queue.
///
/// Posted events come before timers: a handler that posts to itself without end keeps delayed
/// events waiting.
///
/// Threads: construction, `Run` and `Release` belong to the owner's thread; `Register` and `Stop`
/// may be called from any thread. Handlers run on the loop thread, never under the dispatcher's
/// mutex, so a handler may post to its own dispatcher.
/// Ownership: created with `std::make_shared`; events refer to it weakly. The end is, in this
/// order: `Stop`, `Release`, the last reference. Destroying a dispatcher that runs ends the
/// process. Errors: what cannot be delivered is dropped with a log record. libevent failing to make
/// a base is a fatal check. A handler must not throw: its exception would end the process.
///
/// Enabling libevent's thread support and breaking the loop happen inside VERBOSE log statements:
/// with a minimum level above VERBOSE they do not take place, and `Release` waits for ever.
class EventDispatcher {
 public:
  EventDispatcher();
  virtual ~EventDispatcher() = default;
  EventDispatcher(const EventDispatcher&) = delete;
  EventDispatcher& operator=(const EventDispatcher&) = delete;

  /// Sets the name that log records show. Before `Run`.
  void SetName(const std::string& name) { name_ = name; }

  /// Starts the loop and its thread.
  /// @throws std::system_error when there can be no thread; the dispatcher is then not running.
  void Run();

  /// Queues `event`. Refused with an ERROR record unless running. `Event::Post` comes to the
  /// same.
  void Register(const std::shared_ptr<Event>& event);

  /// Asks the loop to end after the handler that runs now; does not wait. Later calls do nothing.
  void Stop();

  /// Waits for the loop to end, then drops what is queued or delayed, unhandled, and frees the
  /// loop. After `Stop`; not on the loop thread.
  void Release();

 private:
  friend class Event;
  struct TimerRecord;
  struct QuitRecord;

  static void OnNotify(int descriptor, short flags, void* dispatcher);
  static void OnTimerEvent(int descriptor, short flags, void* record);
  static void OnQuitEvent(int descriptor, short flags, void* record);
  void FreeLoop();
  void QuitWithoutMemory();
  void Enqueue(std::shared_ptr<Event> event);
  void Drain();
  void AddTimer(const std::shared_ptr<Event>& event);
  void DispatchEvent(const std::shared_ptr<Event>& event);

  std::mutex mutex_;
  std::deque<std::shared_ptr<Event>> queue_;  // guarded by mutex_
  // A pass over the queues is under way. Written on the loop thread with mutex_ held, so that the
  // loop thread reads it without.
  bool draining_ = false;
  // What handlers post during a pass: no other thread touches it, so that it costs no lock. It
  // comes before `queue_`, and is closed while anything waits there: the order of posting holds.
  std::deque<std::shared_ptr<Event>> own_queue_;
  std::atomic<bool> queue_waits_{false};                   // `queue_` is not empty
  std::unordered_map<TimerRecord*, event*> timer_events_;  // guarded by mutex_
  event_base* event_base_ = nullptr;
  // Set by Run before the loop starts; afterwards guarded by mutex_.
  event* notify_event_ = nullptr;
  std::atomic<std::thread::id> loop_id_{};  // loop_ itself may still be being assigned
  std::thread loop_;
  std::atomic<bool> running_{false};
  std::atomic<bool> break_when_notified_{false};
  std::string name_;
};

}  // namespace lum

#endif  // QVXMEDIA_EVENTLOOP_EVENT_DISPATCHER_H_
