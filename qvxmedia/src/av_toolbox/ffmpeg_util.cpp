#include "av_toolbox/ffmpeg_util.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "av_toolbox/ffmpeg_compat.h"
#include "base/log_sites.h"

namespace lum {
namespace {

// Apart from the callback, which FFmpeg calls for every message of every level: its buffer would be
// guarded each time.
[[gnu::noinline]] void RecordMessage(const char* format, va_list arguments) {
  std::array<char, 1024> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  LUM_LOG_AT(kError, site::kFFmpegMessage) << "FFmpeg:" << text.data();
}

}  // namespace

void InitFFmpeg() {
  static std::once_flag once;
  std::call_once(once, [] {
    LUM_LOG_AT(kInfo, site::kFFmpegInit) << "ffmpeg init";
    compat::RegisterAll();
    avformat_network_init();
    av_log_set_callback(FFmpegLogCallback);
  });
}

void FFmpegLogCallback(void* /*context*/, int level, const char* format, va_list arguments) {
  if (level <= AV_LOG_ERROR) RecordMessage(format, arguments);
}

std::string FFmpegErrorString(int code) {
  std::array<char, 64> text{};
  av_strerror(code, text.data(), text.size());
  return text.data();
}

bool IsMp4(const AVFormatContext& format) {
  return std::strstr(format.iformat->name, "mp4") != nullptr;
}

}  // namespace lum
