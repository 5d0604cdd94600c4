// FFmpeg's headers, and what differs between its versions under one name each. The rest of the code
// has no version checks.
#ifndef QVXMEDIA_AV_TOOLBOX_FFMPEG_COMPAT_H_
#define QVXMEDIA_AV_TOOLBOX_FFMPEG_COMPAT_H_

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
#include <libavutil/version.h>
}

#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(58, 91, 100)
// Moved out of avcodec.h along the way.
extern "C" {
#include <libavcodec/bsf.h>
}
#endif

namespace lum::compat {

/// Keeps packet side data apart from the payload. The value outlived its name in FFmpeg's headers;
/// where nothing reads it any more, side data is kept apart always.
inline constexpr int kFormatFlagKeepSideData = 0x40000;

/// Registers every component, where FFmpeg does not do so by itself (before 4.0).
inline void RegisterAll() {
#if LIBAVFORMAT_VERSION_INT < AV_VERSION_INT(58, 9, 100)
  av_register_all();
#endif
}

/// The name that the input was opened under.
inline const char* InputName(const AVFormatContext& context) {
#if LIBAVFORMAT_VERSION_INT < AV_VERSION_INT(58, 7, 100)
  return context.filename;
#else
  return context.url;
#endif
}

/// Sets layout (a mask of `AV_CH_*`) and number of channels, in every form that this version has.
inline void SetChannelLayout(AVCodecParameters* parameters, uint64_t layout, int channels) {
#if LIBAVUTIL_VERSION_INT < AV_VERSION_INT(57, 24, 100) || FF_API_OLD_CHANNEL_LAYOUT
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  parameters->channel_layout = layout;
  parameters->channels = channels;
#pragma GCC diagnostic pop
#endif
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)
  if (av_channel_layout_from_mask(&parameters->ch_layout, layout) < 0 ||
      parameters->ch_layout.nb_channels != channels) {
    av_channel_layout_uninit(&parameters->ch_layout);
    parameters->ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
    parameters->ch_layout.nb_channels = channels;
  }
#endif
}

/// Number of samples that the container's index lists for a stream; 0 where it has no index.
inline int IndexEntryCount(const AVStream* stream) {
#if LIBAVFORMAT_VERSION_INT >= AV_VERSION_INT(58, 76, 100)
  return avformat_index_get_entries_count(stream);
#else
  return stream->nb_index_entries;
#endif
}

/// One sample of that index, from 0.
inline const AVIndexEntry& IndexEntry(AVStream* stream, int sample) {
#if LIBAVFORMAT_VERSION_INT >= AV_VERSION_INT(58, 76, 100)
  return *avformat_index_get_entry(stream, sample);
#else
  return stream->index_entries[sample];
#endif
}

/// Where the last sample that the container's index lists for a stream ends, in bytes of the file;
/// 0 where there is no index. Both parts come from the file: the sum may wrap.
inline int64_t LastIndexedByte(AVStream* stream) {
  const int count = IndexEntryCount(stream);
  if (count == 0) return 0;
  const AVIndexEntry& last = IndexEntry(stream, count - 1);
  return static_cast<int64_t>(static_cast<uint64_t>(last.pos) + static_cast<uint64_t>(last.size));
}

}  // namespace lum::compat

#endif  // QVXMEDIA_AV_TOOLBOX_FFMPEG_COMPAT_H_
