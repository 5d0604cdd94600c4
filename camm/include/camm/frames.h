// When the frames of a file's video are shown.
#ifndef CAMM_FRAMES_H_
#define CAMM_FRAMES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "camm/recording.h"

namespace camm {

struct FrameTimes {
  Status status = Status::kCannotOpen;  ///< `kNoTrack`: there is no video; `kNoSamples`: no frame
  std::string error;                    ///< why it could not be read; empty otherwise
  /// When each frame is shown, in presentation order, on the container's time line as `Stream`'s
  /// times are (`Origin::kContainer`).
  std::vector<std::int64_t> pts_ns;
};

/// The presentation times of the frames of the file's video, in presentation order. Frames that the
/// edit list leaves out don't count. MP4 and QuickTime files name them in their index; of other
/// containers, and of files in fragments, the video's packets are read. Nothing is decoded.
///
/// Threads: as `Stream`. The byte source of `input` is read from its beginning, and must be able to
/// seek.
FrameTimes ReadFrames(const Input& input);

}  // namespace camm

#endif  // CAMM_FRAMES_H_
