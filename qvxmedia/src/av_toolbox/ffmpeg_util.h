// FFmpeg's process-wide set-up, the bridge of its log into ours, and its error texts.
#ifndef QVXMEDIA_AV_TOOLBOX_FFMPEG_UTIL_H_
#define QVXMEDIA_AV_TOOLBOX_FFMPEG_UTIL_H_

#include <cstdarg>
#include <string>

struct AVFormatContext;

namespace lum {

/// Sets FFmpeg up, once per process: components, network, log bridge. Any thread, any number of
/// times.
void InitFFmpeg();

/// The callback for `av_log_set_callback`: messages of FFmpeg's levels up to AV_LOG_ERROR become
/// ERROR records ("FFmpeg:" and the message, cut at 1023 bytes); the rest is dropped. Any thread.
void FFmpegLogCallback(void* context, int level, const char* format, va_list arguments);

/// FFmpeg's description of an error code, at most 63 characters. Any thread.
std::string FFmpegErrorString(int code);

/// Whether FFmpeg's reader of MP4 and its kin has the input, once it is chosen. Any thread.
bool IsMp4(const AVFormatContext& format);

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_FFMPEG_UTIL_H_
