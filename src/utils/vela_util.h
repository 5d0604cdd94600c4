// Running a media pipe as one blocking call.
#ifndef MOTRACE_UTILS_VELA_UTIL_H_
#define MOTRACE_UTILS_VELA_UTIL_H_

#include <cstdint>
#include <memory>

#include "editor/media_pipe.h"

namespace lum::vela {

/// Starts a prepared pipe and blocks until it reports how its run ended.
///
/// Owner's thread of the pipe. Replaces the pipe's three callbacks, which stay installed. The
/// caller releases the pipe afterwards.
/// @param count not used.
/// @param factor not used.
/// @param timeout_seconds cancels the pipe once the run has lasted so long, checked every 500 ms; 0
///   or less means no limit.
/// @return 0 when the pipe ended, 1 when it was cancelled, else the pipe's error code.
/// @throws std::system_error when a thread cannot be started.
[[nodiscard]] int32_t RunPipe(const std::shared_ptr<MediaPipe>& pipe, uint32_t count, float factor,
                              int32_t timeout_seconds);

}  // namespace lum::vela

#endif  // MOTRACE_UTILS_VELA_UTIL_H_
