// Places that this subsystem's records name. They are part of the log format: log scripts match
// them, so they stay when a statement moves.
#ifndef QVXMEDIA_AV_TOOLBOX_LOG_SITES_H_
#define QVXMEDIA_AV_TOOLBOX_LOG_SITES_H_

#include "base/log_message.h"

namespace lum::site {

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

}  // namespace lum::site

#endif  // QVXMEDIA_AV_TOOLBOX_LOG_SITES_H_
