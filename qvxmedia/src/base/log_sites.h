// Places that records name. They are part of the log format: log scripts match them, so they stay
// when a statement moves.
#ifndef QVXMEDIA_BASE_LOG_SITES_H_
#define QVXMEDIA_BASE_LOG_SITES_H_

#include "base/log_message.h"

namespace lum::site {

// The event loop.
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

// FFmpeg.
inline constexpr LogSite kBsfInitFailed{"av_toolbox/bsf_filter.cpp", 16};
inline constexpr LogSite kBsfInitResult{"av_toolbox/bsf_filter.cpp", 18};

inline constexpr LogSite kCodecParametersAlloc{"av_toolbox/codec_util.cpp", 34};

inline constexpr LogSite kDemuxCustomSource{"av_toolbox/demuxer.cpp", 118};
inline constexpr LogSite kDemuxNeedsAnnexB{"av_toolbox/demuxer.cpp", 148};
inline constexpr LogSite kDemuxOpenFailed{"av_toolbox/demuxer.cpp", 156};
inline constexpr LogSite kDemuxReadEof{"av_toolbox/demuxer.cpp", 224};
inline constexpr LogSite kDemuxSendFailed{"av_toolbox/demuxer.cpp", 227};
inline constexpr LogSite kDemuxFilterEof{"av_toolbox/demuxer.cpp", 237};
inline constexpr LogSite kDemuxReceiveFailed{"av_toolbox/demuxer.cpp", 241};

inline constexpr LogSite kFFmpegMessage{"av_toolbox/ffmpeg_util.cpp", 14};
inline constexpr LogSite kFFmpegInit{"av_toolbox/ffmpeg_util.cpp", 22};

inline constexpr LogSite kBsfParametersCopy{"av_toolbox/filter_util.cpp", 15};

inline constexpr LogSite kPacketAlloc{"av_toolbox/packet_util.cpp", 34};
inline constexpr LogSite kAacPacketAlloc{"av_toolbox/packet_util.cpp", 63};
inline constexpr LogSite kAacBufferAlloc{"av_toolbox/packet_util.cpp", 67};

// Pipe and source.
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

// The tool.
inline constexpr LogSite kUsage{"main.cpp", 21};
inline constexpr LogSite kRunCanceled{"utils/vela_util.h", 34};
inline constexpr LogSite kRunOver{"utils/vela_util.h", 41};
inline constexpr LogSite kRunError{"utils/vela_util.h", 47};

}  // namespace lum::site

#endif  // QVXMEDIA_BASE_LOG_SITES_H_
