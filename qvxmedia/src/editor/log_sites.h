// Places that this subsystem's records name. They are part of the log format: log scripts match
// them, so they stay when a statement moves.
#ifndef QVXMEDIA_EDITOR_LOG_SITES_H_
#define QVXMEDIA_EDITOR_LOG_SITES_H_

#include "base/log_message.h"

namespace lum::site {

inline constexpr LogSite kPipeNotReleased{"editor/media_pipe.h", 40};
inline constexpr LogSite kPipeDestroyed{"editor/media_pipe.h", 43};
inline constexpr LogSite kPipeNoSource{"editor/media_pipe.cpp", 57};
inline constexpr LogSite kPipeReleased{"editor/media_pipe.cpp", 92};
inline constexpr LogSite kPipeEndAfterError{"editor/media_pipe.cpp", 166};

inline constexpr LogSite kSrcOnEnd{"editor/file_media_src.cpp", 73};
inline constexpr LogSite kSrcAudioEstimate{"editor/file_media_src.cpp", 112};
inline constexpr LogSite kSrcVideoEstimate{"editor/file_media_src.cpp", 117};
inline constexpr LogSite kSrcCloseTwice{"editor/file_media_src.cpp", 285};
inline constexpr LogSite kSrcClosed{"editor/file_media_src.cpp", 294};
inline constexpr LogSite kSrcReleased{"editor/file_media_src.cpp", 300};
inline constexpr LogSite kSrcStart{"editor/file_media_src.cpp", 306};
inline constexpr LogSite kSrcPerformClose{"editor/file_media_src.cpp", 557};

}  // namespace lum::site

#endif  // QVXMEDIA_EDITOR_LOG_SITES_H_
