// Bitstream filter contexts under shared ownership.
#ifndef QVXMEDIA_AV_TOOLBOX_FILTER_UTIL_H_
#define QVXMEDIA_AV_TOOLBOX_FILTER_UTIL_H_

#include <memory>
#include <string>

#include "av_toolbox/ffmpeg_compat.h"

namespace lum {

/// A context of the bitstream filter `name` with the stream's parameters and time base as its
/// input; not initialised yet. Empty when there is no such filter or no memory; failing to copy the
/// parameters is a fatal check. Any thread.
std::shared_ptr<AVBSFContext> NewAVBSFContext(const std::string& name, const AVStream* st);

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_FILTER_UTIL_H_
