// The audio track that is made for a file without one.
#ifndef QVXMEDIA_EDITOR_SILENT_AUDIO_H_
#define QVXMEDIA_EDITOR_SILENT_AUDIO_H_

#include <cstdint>
#include <memory>

#include "av_toolbox/packet_util.h"

namespace lum {

/// Milliseconds that so many AAC frames of 1024 samples last, truncated; 0 without a rate.
[[nodiscard]] int64_t AacFramesMs(int64_t frames, int sample_rate);

/// An AAC stream of empty frames, 48 kHz stereo.
///
/// Not thread-safe: one thread at a time.
class SilentAudio {
 public:
  /// @param stream_index that of no other stream.
  explicit SilentAudio(int stream_index);

  /// Lives as long as this object.
  [[nodiscard]] AVStream* stream() const { return stream_.get(); }

  /// The next frame, each once; null when it begins after `until_ms`, in milliseconds.
  [[nodiscard]] std::shared_ptr<QVXPacket> NextUpTo(int64_t until_ms);

 private:
  std::shared_ptr<AVStream> stream_;
  int64_t frames_ = 0;  // handed out
};

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_SILENT_AUDIO_H_
