// What FFmpeg is not to be given.
#ifndef QVXMEDIA_AV_TOOLBOX_INPUT_GUARD_H_
#define QVXMEDIA_AV_TOOLBOX_INPUT_GUARD_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "av_toolbox/ffmpeg_compat.h"

namespace lum {

/// Looks at an input's bytes on their way to FFmpeg, and stops at what it must not see.
///
/// - A list of other files (`ListRefusal`).
/// - Fragments of an MP4 with a track that has no number, or one above 2^31 - 1. FFmpeg's reader
///   (libavformat/mov.c) cannot note a fragment's place then and takes the error code, some minus
///   thousand million, for it. Every `trun` box counts from there up to 0, and nothing can
///   interrupt it: a few hundred bytes cost minutes. So no `trun` is handed on while there is such
///   a track.
/// - A compressed MP4 header, which could hide all of that.
///
/// Not thread-safe: one thread at a time.
class InputGuard {
 public:
  /// Why an input of this format is refused, in plain words; empty when it is not, or not known
  /// yet. A playlist, concat script, manifest or session description names files and addresses of
  /// its own, which the user did not name.
  static std::string ListRefusal(const AVFormatContext* format);

  /// `Admit` can judge only what is at least this long, or the input's end.
  static constexpr int kLongestMark = 8;

  /// @param format the context that parses the bytes; must outlive the last `Admit`.
  void Watch(const AVFormatContext* format) { format_ = format; }

  /// Looks at the bytes that come next.
  /// @return how many may be handed on now, 0 for none any more. It stops short of what has to be
  ///   judged when FFmpeg has parsed all that stands before it: those bytes are to be given again.
  size_t Admit(std::string_view bytes);
  /// The next bytes are those at `position`.
  void Moved(int64_t position) { position_ = position; }
  /// The header of an input that can seek was read: if no fragment was seen, none will be parsed.
  void HeaderIsRead() { off_ = !fragmented_; }

  /// Why nothing is handed on any more, in plain words; empty while all is well.
  const std::string& Refusal();

 private:
  [[nodiscard]] bool IsOtherFormat() const;
  [[nodiscard]] bool HasTrackWithoutNumber() const;
  void LookAtBeginning(std::string_view bytes);

  const AVFormatContext* format_ = nullptr;
  std::string refusal_;
  std::string beginning_;  // of the input
  int64_t position_ = 0;   // bytes
  bool fragmented_ = false;
  bool off_ = false;
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_INPUT_GUARD_H_
