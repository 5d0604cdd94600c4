#include "av_toolbox/bsf_filter.h"

#include "av_toolbox/ffmpeg_util.h"
#include "av_toolbox/filter_util.h"
#include "base/log_sites.h"

namespace lum {

int BSFFilter::Open(const std::string& name, const AVStream* st) {
  ctx_ = NewAVBSFContext(name, st);
  if (!ctx_) return -1;
  const int ret = av_bsf_init(ctx_.get());
  if (ret < 0) {
    LUM_LOG_AT(kError, site::kBsfInitFailed) << "bsf_init failed:" << ret << FFmpegErrorString(ret);
  }
  // At ERROR level also for success: log scripts rely on it.
  LUM_LOG_AT(kError, site::kBsfInitResult) << "bsf_init ret:" << ret;
  return ret;
}

int BSFFilter::SendPacket(const std::shared_ptr<QVXPacket>& packet) {
  return ctx_ ? av_bsf_send_packet(ctx_.get(), packet.get()) : AVERROR(EINVAL);
}

int BSFFilter::ReceivePacket(const std::shared_ptr<QVXPacket>& packet) {
  return ctx_ ? av_bsf_receive_packet(ctx_.get(), packet.get()) : AVERROR(EINVAL);
}

}  // namespace lum
