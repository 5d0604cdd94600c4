// Places that this subsystem's records name. They are part of the log format: log scripts match
// them, so they stay when a statement moves.
#ifndef QVXMEDIA_EVENTLOOP_LOG_SITES_H_
#define QVXMEDIA_EVENTLOOP_LOG_SITES_H_

#include "base/log_message.h"

namespace lum::site {

inline constexpr LogSite kEventNoDispatcher{"eventloop/event.cpp", 37};
inline constexpr LogSite kEventKeyMissing{"eventloop/event.h", 63};

inline constexpr LogSite kTimerUnknown{"eventloop/event_dispatcher.cpp", 66};
inline constexpr LogSite kQuitBreak{"eventloop/event_dispatcher.cpp", 81};
inline constexpr LogSite kHandlerGone{"eventloop/event_dispatcher.cpp", 92};
inline constexpr LogSite kThreadSupport{"eventloop/event_dispatcher.cpp", 100};
inline constexpr LogSite kBaseMissing{"eventloop/event_dispatcher.cpp", 115};
inline constexpr LogSite kThreadExit{"eventloop/event_dispatcher.cpp", 118};
inline constexpr LogSite kWantStop{"eventloop/event_dispatcher.cpp", 127};
inline constexpr LogSite kStopBreak{"eventloop/event_dispatcher.cpp", 130};
inline constexpr LogSite kReleased{"eventloop/event_dispatcher.cpp", 160};
inline constexpr LogSite kRegisterRefused{"eventloop/event_dispatcher.cpp", 165};

}  // namespace lum::site

#endif  // QVXMEDIA_EVENTLOOP_LOG_SITES_H_
