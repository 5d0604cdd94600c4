// Places that the tool's records name. They are part of the log format: log scripts match them, so
// they stay when a statement moves.
#ifndef MOTRACE_LOG_SITES_H_
#define MOTRACE_LOG_SITES_H_

#include "base/log_message.h"

namespace lum::site {

inline constexpr LogSite kUsage{"main.cpp", 21};
inline constexpr LogSite kRunCanceled{"utils/vela_util.h", 34};
inline constexpr LogSite kRunOver{"utils/vela_util.h", 41};
inline constexpr LogSite kRunError{"utils/vela_util.h", 47};

}  // namespace lum::site

#endif  // MOTRACE_LOG_SITES_H_
