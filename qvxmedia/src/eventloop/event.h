// A message for one handler, carried by one dispatcher.
#ifndef QVXMEDIA_EVENTLOOP_EVENT_H_
#define QVXMEDIA_EVENTLOOP_EVENT_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "base/any.h"

namespace lum {

class Event;
class EventDispatcher;

/// Receives the events that are addressed to it.
///
/// Threads: `HandleEvent` is always called on the thread of the dispatcher that carries the event.
/// Ownership: handlers are owned through `std::shared_ptr`; events and dispatchers refer to them
/// weakly, and an event whose handler is gone is dropped.
class EventHandler {
 public:
  EventHandler() = default;
  virtual ~EventHandler() = default;
  EventHandler(const EventHandler&) = delete;
  EventHandler& operator=(const EventHandler&) = delete;

  virtual void HandleEvent(const std::shared_ptr<Event>& event) = 0;
};

/// A code, named values, and weak links to a handler and a dispatcher. Made with `MakeEvent`.
///
/// Threads: filled in by its creator before it is posted, read on the dispatcher's thread
/// afterwards; it has no lock of its own. `Post` and `PostWithDelay` may be called from any thread.
/// Ownership: shared. A posted event is held by the dispatcher until it was handled or dropped.
class Event : public std::enable_shared_from_this<Event> {
 public:
  explicit Event(int32_t what) : what_(what) {}

  /// The event's code; its meaning is the handler's.
  [[nodiscard]] int32_t what() const { return what_; }

  /// Replaces the weak link. Returns the event itself, for chaining.
  std::shared_ptr<Event> SetHandler(const std::shared_ptr<EventHandler>& handler);
  /// Replaces the weak link. Returns the event itself, for chaining.
  std::shared_ptr<Event> SetDispatcher(const std::shared_ptr<EventDispatcher>& dispatcher);

  /// Stores a copy of `value` under `key`, replacing what was there. Returns the event itself.
  template <typename T>
  std::shared_ptr<Event> SetData(const std::string& key, const T& value) {
    data_[key] = any(value);
    return shared_from_this();
  }

  /// Copies the value stored under `key` to `*out`.
  /// @return false, with an INFO record and `*out` untouched, when there is no such key.
  /// @throws bad_any_cast when the value is stored under another type.
  template <typename T>
  bool GetDataCopy(const std::string& key, T* out) const {
    const any* value = Find(key);
    if (value != nullptr) *out = any_cast<T>(*value);
    return value != nullptr;
  }

  /// Hands the event to its dispatcher, to be dispatched at once. Any thread.
  void Post();
  /// Hands the event to its dispatcher, to be dispatched `delay_ms` milliseconds from now (0 or
  /// less: at once). Dropped with an INFO record when the dispatcher is gone. Any thread.
  void PostWithDelay(int32_t delay_ms);

 private:
  friend class EventDispatcher;

  // Null, with an INFO record, when there is no such key.
  [[nodiscard]] const any* Find(const std::string& key) const;

  // Set by the dispatcher while a delay timer holds the event; for a debugger, nothing reads it.
  void* timer_record_ = nullptr;
  int32_t what_;
  // Atomic, as an event may be posted again while it is still queued.
  std::atomic<int32_t> delay_ms_{0};
  std::atomic<int64_t> due_ns_{0};  // monotonic clock; of the last post with a delay
  std::weak_ptr<EventHandler> handler_;
  std::weak_ptr<EventDispatcher> dispatcher_;
  std::unordered_map<std::string, any> data_;
};

/// A new event with code `what`, addressed to `handler` and carried by `dispatcher`.
std::shared_ptr<Event> MakeEvent(int32_t what, const std::shared_ptr<EventHandler>& handler,
                                 const std::shared_ptr<EventDispatcher>& dispatcher);

}  // namespace lum

#endif  // QVXMEDIA_EVENTLOOP_EVENT_H_
