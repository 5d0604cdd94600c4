// Reads a track by its container's index.
#ifndef QVXMEDIA_AV_TOOLBOX_READING_PLAN_H_
#define QVXMEDIA_AV_TOOLBOX_READING_PLAN_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "av_toolbox/byte_input.h"
#include "av_toolbox/ffmpeg_compat.h"

namespace lum {

/// Hands out the packets of an MP4's data track as `av_read_frame` would, equal in every field and
/// in the same order, from the index that FFmpeg holds: neighbouring samples are read with one
/// request.
///
/// It is made only where that is certain: a plain track (`IsPlainTrack`), every sample of the index
/// within the file, and a last packet of `av_read_frame`'s that is what the plan would have made.
///
/// Not thread-safe: one thread at a time.
/// Ownership: refers to the stream and the input, which must outlive it.
class ReadingPlan {
 public:
  /// @param stream the only one that is not discarded.
  /// @param sample index of the sample that `packet`, FFmpeg's last, was made of. The plan goes on
  ///   with the next one.
  /// @return null where nothing is certain.
  static std::unique_ptr<ReadingPlan> Make(const AVFormatContext& format, const ByteInput& input,
                                           AVStream* stream, int sample, const AVPacket& packet);
  ~ReadingPlan();
  ReadingPlan(const ReadingPlan&) = delete;
  ReadingPlan& operator=(const ReadingPlan&) = delete;

  /// Fills the next packet.
  /// @param[in,out] packet empty or used; its buffer is used again when it came from here. Its
  ///   contents are unspecified on failure.
  /// @return 0, `AVERROR_EOF` at the end or AVERROR(ENOMEM); nothing when the bytes are no longer
  ///   there, from which on FFmpeg is to read.
  std::optional<int> Next(AVPacket& packet);

  /// How many packets were handed out.
  [[nodiscard]] int handed_out() const { return next_ - first_; }

 private:
  // Samples that lie one after the other.
  struct Range {
    int begin;  // samples
    int end;
    int64_t position;
    size_t size;
  };

  ReadingPlan(const ByteInput& input, AVStream* stream, int first);
  [[nodiscard]] bool IsWithin(int64_t file_size) const;
  [[nodiscard]] bool Matches(int sample, const AVPacket& packet) const;
  [[nodiscard]] Range RangeFrom(int sample) const;
  void Describe(int sample, AVPacket& packet) const;
  bool ReadRange();
  bool TakeBuffer(AVPacket& packet, size_t size);

  const ByteInput& input_;
  AVStream* const stream_;
  const int first_;
  const int count_;  // samples of the index
  int next_;
  std::deque<Range> ranges_;  // the one that is being handed out, and those that were asked for
  std::vector<uint8_t> bytes_;
  size_t used_ = 0;                // of `bytes_`
  AVBufferRef* buffer_ = nullptr;  // of the last packet, used again unless somebody keeps it
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_READING_PLAN_H_
