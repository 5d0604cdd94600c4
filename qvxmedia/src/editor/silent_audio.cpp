#include "editor/silent_audio.h"

#include "av_toolbox/codec_util.h"
#include "av_toolbox/time_util.h"

namespace lum {
namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;

}  // namespace

int64_t AacFramesMs(int64_t frames, int sample_rate) {
  constexpr int64_t kFrameMsTimesRate = int64_t{1024} * 1000;
  return sample_rate > 0 ? frames * kFrameMsTimesRate / sample_rate : 0;
}

SilentAudio::SilentAudio(int stream_index)
    : stream_(NewAACStream(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, kChannels, kRate, nullptr, 0,
                           {1, kRate})) {
  stream_->index = stream_index;
}

std::shared_ptr<QVXPacket> SilentAudio::NextUpTo(int64_t until_ms) {
  // Counted in frames, so that the truncated milliseconds do not add up to a drift.
  const int64_t time_ms = AacFramesMs(frames_, kRate);
  if (time_ms > until_ms) return nullptr;
  ++frames_;
  return NewAACPacket(nullptr, 0, Rescale(time_ms, kMilliseconds, stream_->time_base),
                      stream_->index);
}

}  // namespace lum
