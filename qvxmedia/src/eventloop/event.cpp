#include "eventloop/event.h"

#include <chrono>

#include "base/log_sites.h"
#include "eventloop/event_dispatcher.h"

namespace lum {

std::shared_ptr<Event> MakeEvent(int32_t what, const std::shared_ptr<EventHandler>& handler,
                                 const std::shared_ptr<EventDispatcher>& dispatcher) {
  return std::make_shared<Event>(what)->SetHandler(handler)->SetDispatcher(dispatcher);
}

std::shared_ptr<Event> Event::SetHandler(const std::shared_ptr<EventHandler>& handler) {
  handler_ = handler;
  return shared_from_this();
}

std::shared_ptr<Event> Event::SetDispatcher(const std::shared_ptr<EventDispatcher>& dispatcher) {
  dispatcher_ = dispatcher;
  return shared_from_this();
}

const any* Event::Find(const std::string& key) const {
  const auto found = data_.find(key);
  if (found != data_.end()) return &found->second;
  LUM_LOG_AT(kInfo, site::kEventKeyMissing) << "unable to find key: " << key;
  return nullptr;
}

void Event::Post() { PostWithDelay(0); }

void Event::PostWithDelay(int32_t delay_ms) {
  delay_ms_ = delay_ms;
  if (delay_ms > 0) {  // without a delay the due time is not read
    due_ns_ =
        std::chrono::steady_clock::now().time_since_epoch().count() + int64_t{delay_ms} * 1'000'000;
  }
  if (const auto dispatcher = dispatcher_.lock()) {
    dispatcher->Enqueue(shared_from_this());
    return;
  }
  LUM_LOG_AT(kInfo, site::kEventNoDispatcher) << "weak dispatcher is invalid now";
}

}  // namespace lum
