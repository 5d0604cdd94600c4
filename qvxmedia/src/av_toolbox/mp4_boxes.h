// What the boxes of an MP4 say about one of its tracks.
#ifndef QVXMEDIA_AV_TOOLBOX_MP4_BOXES_H_
#define QVXMEDIA_AV_TOOLBOX_MP4_BOXES_H_

#include <cstdint>

#include "av_toolbox/byte_input.h"

namespace lum {

/// Whether the samples of a track are what its sample table lists and nothing else: one `moov` box,
/// no fragments, one sample description without boxes of its own (so, no encryption), and of the
/// tables only `stts`, `stsz`, `stsc` and `stco` or `co64`; an edit list is allowed. What is odd,
/// unknown or too large to look at makes it false.
///
/// The boxes are those of ISO/IEC 14496-12 and the QuickTime File Format.
/// @param input one that can be read by place.
/// @param size of the input, bytes.
/// @param track_id as the track's header gives it.
bool IsPlainTrack(const ByteInput& input, int64_t size, uint32_t track_id);

/// Has the `moov` box of an MP4 fetched, wherever it stands, since that is what will be read first.
/// Nothing happens where the input's beginning is not a row of an MP4's usual boxes.
void PrefetchMovie(const ByteInput& input, int64_t size);

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_MP4_BOXES_H_
