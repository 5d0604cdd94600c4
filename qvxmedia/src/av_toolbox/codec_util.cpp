#include "av_toolbox/codec_util.h"

#include <algorithm>

#include "base/log_sites.h"

namespace lum {
namespace {

// FFmpeg's readers may look past the end, how far depends on the version.
constexpr int kExtradataPadding = std::max(32, AV_INPUT_BUFFER_PADDING_SIZE);
constexpr int kAacFrameSize = 1024;  // samples

void FreeStream(AVStream* stream) {
  avcodec_parameters_free(&stream->codecpar);
  av_freep(static_cast<void*>(&stream));
}

}  // namespace

std::shared_ptr<AVCodecParameters> NewAVCodecParameters() {
  AVCodecParameters* par = avcodec_parameters_alloc();
  LUM_CHECK_AT(par != nullptr, site::kCodecParametersAlloc);
  return {par, [](AVCodecParameters* p) { avcodec_parameters_free(&p); }};
}

std::shared_ptr<AVStream> NewAVStream() {
  // Zeroed, so that a field that was not set has the same value in every run.
  auto* st = static_cast<AVStream*>(av_mallocz(sizeof(AVStream)));
  LUM_CHECK(st != nullptr);
  st->codecpar = avcodec_parameters_alloc();
  LUM_CHECK(st->codecpar != nullptr);
  return {st, FreeStream};
}

std::shared_ptr<AVStream> NewAACStream(int sample_format, uint64_t channel_layout, int channels,
                                       int sample_rate, const uint8_t* extradata,
                                       int extradata_size, AVRational time_base) {
  std::shared_ptr<AVStream> s = NewAVStream();
  AVCodecParameters* par = s->codecpar;
  par->format = sample_format;
  compat::SetChannelLayout(par, channel_layout, channels);
  par->sample_rate = sample_rate;
  par->codec_type = AVMEDIA_TYPE_AUDIO;
  par->codec_id = AV_CODEC_ID_AAC;
  par->extradata =
      static_cast<uint8_t*>(av_mallocz(static_cast<size_t>(extradata_size) + kExtradataPadding));
  LUM_CHECK(par->extradata != nullptr);
  par->extradata_size = extradata_size;
  par->frame_size = kAacFrameSize;
  s->time_base = time_base;
  if (extradata_size > 0) std::copy_n(extradata, extradata_size, par->extradata);
  return s;
}

}  // namespace lum
