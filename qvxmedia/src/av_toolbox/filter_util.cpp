#include "av_toolbox/filter_util.h"

#include "base/log_sites.h"

namespace lum {

std::shared_ptr<AVBSFContext> NewAVBSFContext(const std::string& name, const AVStream* st) {
  const AVBitStreamFilter* filter = av_bsf_get_by_name(name.c_str());
  AVBSFContext* ctx = nullptr;
  if (filter == nullptr || av_bsf_alloc(filter, &ctx) != 0) return nullptr;
  LUM_CHECK_AT(avcodec_parameters_copy(ctx->par_in, st->codecpar) >= 0, site::kBsfParametersCopy);
  ctx->time_base_in = st->time_base;
  return {ctx, [](AVBSFContext* c) { av_bsf_free(&c); }};
}

}  // namespace lum
