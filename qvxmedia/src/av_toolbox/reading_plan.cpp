#include "av_toolbox/reading_plan.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "av_toolbox/ffmpeg_util.h"
#include "av_toolbox/mp4_boxes.h"

namespace lum {
namespace {

constexpr int kLargestRange = 64 * 1024;  // bytes
constexpr size_t kRangesAhead = 64;

// Beyond it lie FFmpeg's marks for times that are unknown or relative.
constexpr int64_t kLatestTime = int64_t{1} << 55;

// FFmpeg reads some of their samples with the header.
constexpr uint32_t kTimecodes[] = {MKTAG('t', 'm', 'c', 'd'), MKTAG('r', 't', 'm', 'd')};

bool IsPlainData(const AVCodecParameters& parameters) {
  return parameters.codec_type == AVMEDIA_TYPE_DATA &&
         std::find(std::begin(kTimecodes), std::end(kTimecodes), parameters.codec_tag) ==
             std::end(kTimecodes);
}

}  // namespace

std::unique_ptr<ReadingPlan> ReadingPlan::Make(const AVFormatContext& format,
                                               const ByteInput& input, AVStream* stream, int sample,
                                               const AVPacket& packet) {
  AVIOContext* const io = format.pb;
  if (!IsMp4(format) || io->error != 0 || (io->seekable & AVIO_SEEKABLE_NORMAL) == 0 ||
      !IsPlainData(*stream->codecpar) || sample < 0 ||
      sample + 1 >= compat::IndexEntryCount(stream)) {
    return nullptr;
  }
  const int64_t size = avio_size(io);
  std::unique_ptr<ReadingPlan> plan(new ReadingPlan(input, stream, sample + 1));
  if (!plan->IsWithin(size) || !IsPlainTrack(input, size, static_cast<uint32_t>(stream->id)) ||
      !plan->Matches(sample, packet)) {
    return nullptr;
  }
  return plan;
}

ReadingPlan::ReadingPlan(const ByteInput& input, AVStream* stream, int first)
    : input_(input),
      stream_(stream),
      first_(first),
      count_(compat::IndexEntryCount(stream)),
      next_(first) {}

ReadingPlan::~ReadingPlan() { av_buffer_unref(&buffer_); }

// Whether every sample from the one before the first on lies in the file, is not empty, which is a
// special case of FFmpeg's, and has a time.
bool ReadingPlan::IsWithin(int64_t file_size) const {
  for (int i = first_ - 1; i < count_; ++i) {
    const AVIndexEntry& entry = compat::IndexEntry(stream_, i);
    if (entry.size <= 0 || entry.size > kLargestRange || entry.pos < 0 ||
        entry.pos > file_size - entry.size || entry.timestamp < -kLatestTime ||
        entry.timestamp > kLatestTime) {
      return false;
    }
  }
  return stream_->duration < kLatestTime;
}

bool ReadingPlan::Matches(int sample, const AVPacket& packet) const {
  AVPacket expected{};
  Describe(sample, expected);
  std::vector<uint8_t> data(static_cast<size_t>(expected.size));
  return packet.size == expected.size && packet.pos == expected.pos && packet.pts == expected.pts &&
         packet.dts == expected.dts && packet.duration == expected.duration &&
         packet.flags == expected.flags && packet.stream_index == expected.stream_index &&
         packet.side_data_elems == 0 && input_.ReadAt(packet.pos, data.data(), data.size()) &&
         std::equal(data.begin(), data.end(), packet.data);
}

// As mov_read_packet and compute_pkt_fields of libavformat do it for data.
void ReadingPlan::Describe(int sample, AVPacket& packet) const {
  const AVIndexEntry& entry = compat::IndexEntry(stream_, sample);
  const int64_t next_time =
      sample + 1 < count_ ? compat::IndexEntry(stream_, sample + 1).timestamp : stream_->duration;
  packet.stream_index = stream_->index;
  packet.pts = entry.timestamp;
  packet.dts = entry.timestamp;
  packet.duration = next_time >= entry.timestamp ? next_time - entry.timestamp : 0;
  packet.pos = entry.pos;
  packet.size = entry.size;
  packet.flags = AV_PKT_FLAG_KEY;
  if ((entry.flags & AVINDEX_DISCARD_FRAME) != 0) packet.flags |= AV_PKT_FLAG_DISCARD;
}

ReadingPlan::Range ReadingPlan::RangeFrom(int sample) const {
  Range range{sample, sample, compat::IndexEntry(stream_, sample).pos, 0};
  for (; range.end < count_; ++range.end) {
    const AVIndexEntry& entry = compat::IndexEntry(stream_, range.end);
    const auto size = static_cast<size_t>(entry.size);
    if (entry.pos != range.position + static_cast<int64_t>(range.size) ||
        range.size + size > kLargestRange) {
      break;
    }
    range.size += size;
  }
  return range;
}

bool ReadingPlan::ReadRange() {
  if (!ranges_.empty()) ranges_.pop_front();
  const bool refilling = ranges_.size() < kRangesAhead / 2;
  // Many at a time: their source may then join what lies close together.
  while (refilling && ranges_.size() < kRangesAhead) {
    const int begin = ranges_.empty() ? next_ : ranges_.back().end;
    if (begin == count_) break;
    ranges_.push_back(RangeFrom(begin));
    input_.Prefetch(ranges_.back().position, ranges_.back().size);
  }
  bytes_.resize(std::max(bytes_.size(), ranges_.front().size));
  used_ = 0;
  return input_.ReadAt(ranges_.front().position, bytes_.data(), ranges_.front().size);
}

// Empties the packet and gives it a buffer of at least `size` bytes: the last packet's, unless
// somebody else holds that.
bool ReadingPlan::TakeBuffer(AVPacket& packet, size_t size) {
  const bool large_enough = buffer_ != nullptr && buffer_->size >= size;
  AVBufferRef* reference = nullptr;
  if (large_enough && packet.buf != nullptr && packet.buf->buffer == buffer_->buffer &&
      av_buffer_get_ref_count(buffer_) == 2) {
    reference = std::exchange(packet.buf, nullptr);
    reference->data = buffer_->data;
  }
  av_packet_unref(&packet);
  if (reference == nullptr) {
    if (!large_enough || av_buffer_get_ref_count(buffer_) != 1) {
      av_buffer_unref(&buffer_);
      buffer_ = av_buffer_alloc(size);
    }
    reference = buffer_ != nullptr ? av_buffer_ref(buffer_) : nullptr;
  }
  packet.buf = reference;
  return reference != nullptr;
}

std::optional<int> ReadingPlan::Next(AVPacket& packet) {
  if (next_ == count_) return AVERROR_EOF;
  if ((ranges_.empty() || next_ == ranges_.front().end) && !ReadRange()) return std::nullopt;

  const auto size = static_cast<size_t>(compat::IndexEntry(stream_, next_).size);
  const size_t padded = size + AV_INPUT_BUFFER_PADDING_SIZE;
  if (!TakeBuffer(packet, padded)) return AVERROR(ENOMEM);
  packet.buf->size = padded;
  packet.data = packet.buf->data;
  std::memcpy(packet.data, bytes_.data() + used_, size);
  std::memset(packet.data + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  Describe(next_, packet);
  used_ += size;
  ++next_;
  return 0;
}

}  // namespace lum
