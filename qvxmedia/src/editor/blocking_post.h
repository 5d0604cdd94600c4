// Posting an event and waiting until it was handled.
#ifndef QVXMEDIA_EDITOR_BLOCKING_POST_H_
#define QVXMEDIA_EDITOR_BLOCKING_POST_H_

#include <future>
#include <memory>

#include "eventloop/event.h"

namespace lum {

/// Posts `event` and waits until its handler has fulfilled the promise that it finds under "pr", or
/// until the event was dropped unhandled. Not from the event's own dispatcher thread.
inline void PostAndWait(std::shared_ptr<Event> event) {
  // The event owns the promise: if it is dropped, the promise breaks and the wait ends.
  auto promise = std::make_shared<std::promise<void>>();
  const std::future<void> handled = promise->get_future();
  event->SetData("pr", promise.get())->SetData("promise_owner", promise);
  promise.reset();
  event->Post();
  event.reset();
  handled.wait();
}

/// Fulfils the promise of an event that `PostAndWait` has posted.
inline void FulfilPromise(const Event& event) {
  std::promise<void>* promise = nullptr;
  if (event.GetDataCopy("pr", &promise)) promise->set_value();
}

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_BLOCKING_POST_H_
