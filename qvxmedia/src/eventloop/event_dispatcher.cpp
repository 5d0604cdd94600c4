#include "eventloop/event_dispatcher.h"

#include <event2/event.h>
#include <event2/thread.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <system_error>

#include "base/log_sites.h"

namespace lum {

// Keeps a delayed event alive until its timer fires or the dispatcher is released.
struct EventDispatcher::TimerRecord {
  EventDispatcher* dispatcher;
  std::shared_ptr<Event> event;
};

struct EventDispatcher::QuitRecord {
  EventDispatcher* dispatcher;
  struct event* quit_event;
};

namespace {

constexpr int kNoDescriptor = -1;
constexpr int kPreciseTimer = EVENT_BASE_FLAG_PRECISE_TIMER;
static_assert(kPreciseTimer == 0x20);

int EnableThreadSupport() { return evthread_use_pthreads(); }

}  // namespace

EventDispatcher::EventDispatcher() {
  static std::once_flag thread_support;
  std::call_once(thread_support, [] {
    LUM_LOG_AT(kVerbose, site::kThreadSupport) << "libevent use phreads:" << EnableThreadSupport();
  });
}

void EventDispatcher::Run() {
  if (event_config* config = event_config_new()) {
    event_config_set_flag(config, kPreciseTimer);
    event_base_ = event_base_new_with_config(config);
    event_config_free(config);
  }
  LUM_CHECK_AT(event_base_ != nullptr, site::kBaseMissing) << "event base new failure";

  // Without a descriptor it is never ready by itself: it keeps the loop alive while idle, and
  // activating it wakes the loop.
  notify_event_ = event_new(event_base_, kNoDescriptor, EV_READ | EV_PERSIST, &OnNotify, this);
  LUM_CHECK(notify_event_ != nullptr && event_add(notify_event_, nullptr) == 0)
      << "no memory for the notify event";

  running_.exchange(true);
  try {
    loop_ = std::thread([this] {
      loop_id_ = std::this_thread::get_id();
      event_base_dispatch(event_base_);
      LUM_LOG_AT(kVerbose, site::kThreadExit) << '[' << name_ << ']' << " thread exit ...";
    });
  } catch (const std::system_error&) {
    running_ = false;
    FreeLoop();
    throw;
  }
}

void EventDispatcher::FreeLoop() {
  if (event_base_ == nullptr) return;
  event_free(notify_event_);
  notify_event_ = nullptr;
  event_base_free(event_base_);
  event_base_ = nullptr;
}

void EventDispatcher::Register(const std::shared_ptr<Event>& event) { Enqueue(event); }

void EventDispatcher::Enqueue(std::shared_ptr<Event> event) {
  if (running_) {
    if (loop_id_ == std::this_thread::get_id() && draining_ && !queue_waits_) {
      own_queue_.push_back(std::move(event));
      return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (notify_event_ != nullptr) {  // null when Stop and Release came in between
      queue_.push_back(std::move(event));
      queue_waits_ = true;
      // A pass that drains the queue takes this one too: only an idle loop needs to be woken.
      if (!draining_) event_active(notify_event_, EV_READ, 0);
      return;
    }
  }
  LUM_LOG_AT(kError, site::kRegisterRefused)
      << "try to regsiter when not runnig:" << name_ << " what:" << event->what();
}

void EventDispatcher::Stop() {
  if (!running_) return;
  LUM_LOG_AT(kVerbose, site::kWantStop) << name_ << " want to stop.";
  if (!running_.exchange(false)) return;  // another thread stopped it meanwhile
  if (loop_id_ == std::this_thread::get_id()) {
    LUM_LOG_AT(kVerbose, site::kStopBreak)
        << '[' << name_ << ']' << " event break event:" << event_base_loopbreak(event_base_);
    return;
  }
  // A break asked for before the loop has started would be lost; an event due at once is not.
  std::unique_ptr<QuitRecord> record(new (std::nothrow) QuitRecord{this, nullptr});
  if (record != nullptr) {
    record->quit_event = event_new(event_base_, kNoDescriptor, 0, &OnQuitEvent, record.get());
  }
  if (record == nullptr || record->quit_event == nullptr) return QuitWithoutMemory();
  // Refused, as the base keeps libevent's single priority; said all the same.
  event_priority_set(record->quit_event, 100);
  const timeval at_once{0, 0};
  if (event_add(record->quit_event, &at_once) != 0) {
    event_free(record->quit_event);
    return QuitWithoutMemory();
  }
  static_cast<void>(record.release());  // OnQuitEvent's now
}

// Lets the notify event, which exists already, break the loop, so that Release
// does not wait for ever.
void EventDispatcher::QuitWithoutMemory() {
  break_when_notified_ = true;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (notify_event_ != nullptr) event_active(notify_event_, EV_READ, 0);
}

void EventDispatcher::Release() {
  if (loop_.joinable()) loop_.join();
  std::deque<std::shared_ptr<Event>> dropped;  // destroyed unlocked: events own foreign values
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    dropped.swap(queue_);
    dropped.insert(dropped.end(), own_queue_.begin(), own_queue_.end());
    own_queue_.clear();
    queue_waits_ = draining_ = false;
    for (const auto& [record, timer] : timer_events_) {
      record->event->timer_record_ = nullptr;
      event_free(timer);
      dropped.push_back(std::move(record->event));
      delete record;
    }
    timer_events_.clear();
    FreeLoop();
  }
  dropped.clear();
  LUM_LOG_AT(kVerbose, site::kReleased) << '[' << name_ << ']' << " dispatcher release";
}

void EventDispatcher::OnNotify(int /*descriptor*/, short /*flags*/, void* dispatcher) {
  auto* self = static_cast<EventDispatcher*>(dispatcher);
  self->Drain();
  if (self->break_when_notified_) event_base_loopbreak(self->event_base_);
}

void EventDispatcher::Drain() {
  while (running_) {
    std::shared_ptr<Event> event;  // outlives the lock: it owns foreign values
    std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
    const bool own = !own_queue_.empty();
    if (!own) {
      lock.lock();
      draining_ = !queue_.empty();
      if (!draining_) return;
    }
    auto& queue = own ? own_queue_ : queue_;
    event = std::move(queue.front());
    queue.pop_front();
    if (!own) queue_waits_ = !queue_.empty();
    if (event->delay_ms_ > 0) {
      if (own) lock.lock();
      AddTimer(event);
      continue;
    }
    if (!own) lock.unlock();
    DispatchEvent(event);
  }
}

// Called with the mutex held.
void EventDispatcher::AddTimer(const std::shared_ptr<Event>& event) {
  const int64_t now_ns = std::chrono::steady_clock::now().time_since_epoch().count();
  const int64_t remaining_us = std::max<int64_t>((event->due_ns_ - now_ns) / 1000, 0);
  timeval timeout{};
  timeout.tv_sec = remaining_us / 1'000'000;
  timeout.tv_usec = remaining_us % 1'000'000;

  // A time-out counts from the base's cached time, which is that of the turn's begin (libevent 2.1
  // and later can bring it up to date).
  event_base_update_cache_time(event_base_);
  auto record = std::make_unique<TimerRecord>(TimerRecord{this, event});
  struct event* timer = event_new(event_base_, kNoDescriptor, 0, &OnTimerEvent, record.get());
  if (timer == nullptr || event_add(timer, &timeout) != 0) {
    if (timer != nullptr) event_free(timer);
    LUM_LOG(kError) << "no memory for a timer, dropped what:" << event->what();
    return;
  }
  timer_events_.emplace(record.get(), timer);
  event_priority_set(timer, 1);  // refused, see Stop
  event->timer_record_ = record.release();
}

void EventDispatcher::OnTimerEvent(int /*descriptor*/, short /*flags*/, void* record_ptr) {
  auto* record = static_cast<TimerRecord*>(record_ptr);
  EventDispatcher* dispatcher = record->dispatcher;
  const std::shared_ptr<Event> event = record->event;
  {
    const std::lock_guard<std::mutex> lock(dispatcher->mutex_);
    event->timer_record_ = nullptr;
    const auto itr = dispatcher->timer_events_.find(record);
    LUM_CHECK_AT(itr != dispatcher->timer_events_.end(), site::kTimerUnknown);
    event_free(itr->second);
    dispatcher->timer_events_.erase(itr);
    delete record;
  }
  dispatcher->DispatchEvent(event);
}

void EventDispatcher::OnQuitEvent(int /*descriptor*/, short /*flags*/, void* record_ptr) {
  const std::unique_ptr<QuitRecord> record(static_cast<QuitRecord*>(record_ptr));
  EventDispatcher* dispatcher = record->dispatcher;
  event_free(record->quit_event);
  LUM_LOG_AT(kVerbose, site::kQuitBreak)
      << '[' << dispatcher->name_ << ']'
      << "event_base_loopbreak: " << event_base_loopbreak(dispatcher->event_base_);
}

void EventDispatcher::DispatchEvent(const std::shared_ptr<Event>& event) {
  if (const auto handler = event->handler_.lock()) {
    handler->HandleEvent(event);
    return;
  }
  LUM_LOG_AT(kVerbose, site::kHandlerGone) << "invalid handler session ";
}

}  // namespace lum
