#include "camm/frames.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "av_toolbox/demuxer.h"
#include "av_toolbox/ffmpeg_util.h"
#include "ffmpeg_input.h"
#include "file_reader.h"
#include "mp4_boxes.h"
#include "time_conversion.h"

namespace camm {
namespace {

constexpr std::size_t kMostFrames = 100'000'000;  // five weeks at 30 a second

/// Frames in the track's time scale, edits applied as FFmpeg does.
bool CollectTimes(const mp4::Track& track, std::uint32_t movie_scale,
                  std::vector<std::int64_t>& times) {
  std::vector<std::int64_t> composed;
  const bool whole = VisitTimes(track, [&](std::int64_t /*decode_time*/, std::int64_t time) {
    composed.push_back(time);
    return composed.size() < kMostFrames;
  });
  if (!whole) return false;
  std::sort(composed.begin(), composed.end());

  if (track.edits.empty()) {
    times = std::move(composed);
    return true;
  }

  std::int64_t begin = 0;  // of the edit, on the movie's time line
  std::int64_t empty = 0;  // sum of what shows nothing
  for (const mp4::Edit& edit : track.edits) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
    const std::int64_t duration = MulDiv(static_cast<std::int64_t>(std::min(edit.duration, kMost)),
                                         track.time_scale, movie_scale);
    if (edit.media_time < 0) {
      empty = SaturatingAdd(empty, duration);
    } else {
      const auto first = std::lower_bound(composed.begin(), composed.end(), edit.media_time);
      // A duration of 0 stands for all the rest.
      const auto last =
          edit.duration == 0
              ? composed.end()
              : std::lower_bound(first, composed.end(), SaturatingAdd(edit.media_time, duration));
      if (times.size() + static_cast<std::size_t>(last - first) > kMostFrames) return false;
      for (auto time = first; time != last; ++time) {
        times.push_back(SaturatingAdd(*time - edit.media_time, begin));
      }
    }
    begin = SaturatingAdd(begin, duration);
  }
  // An edit that begins between two frames: the first one that is shown moves up to its beginning.
  if (!times.empty()) {
    const std::int64_t late = SaturatingSub(times.front(), empty);
    for (std::int64_t& time : times) time -= std::max<std::int64_t>(late, 0);
  }
  return true;
}

/// @return false where the file is not an MP4 file with a whole index.
bool ReadIndex(mp4::Reader& file, FrameTimes& result) {
  const mp4::Layout layout = ReadLayout(file);
  const mp4::TopBox* moov = layout.Find(mp4::Type("moov"));
  if (moov == nullptr) return false;
  const auto content = ReadContent(file, *moov, mp4::kMovieLimit);
  if (!content) return false;
  const auto movie = mp4::ParseMovie({content->data(), content->size()});
  if (!movie || movie->fragmented || layout.Find(mp4::Type("moof")) != nullptr) return false;

  const mp4::Track* video = nullptr;  // the longest one: not a preview picture
  for (const mp4::Track& track : movie->tracks) {
    if (track.handler != mp4::Type("vide")) continue;
    if (video == nullptr || track.samples > video->samples) video = &track;
  }
  if (video == nullptr) {
    result.status = Status::kNoTrack;
    result.error = "there is no video";
    return true;
  }
  // Every frame has at least a byte: a table that names more is broken.
  if (video->samples > file.Size()) return false;
  std::vector<std::int64_t> times;
  if (!CollectTimes(*video, movie->time_scale, times)) return false;
  for (std::int64_t& time : times) time = MulDiv(time, kNanosecondsPerSecond, video->time_scale);
  result.pts_ns = std::move(times);
  result.status = Status::kWhole;
  return true;
}

void ReadVideoPackets(const Input& input, FrameTimes& result) {
  lum::Demuxer demuxer(PlainPath(input.path));
  const int opened = demuxer.Open(nullptr, input.io);
  if (opened != 0) {
    result.error = lum::FFmpegErrorString(opened);
    return;
  }
  const AVStream* video = demuxer.VideoStream();
  if (video == nullptr) {
    result.status = Status::kNoTrack;
    result.error = "there is no video";
    return;
  }
  const int index = video->index;
  for (unsigned i = 0; i < demuxer.StreamCount(); ++i) {
    if (static_cast<int>(i) != index) demuxer.DiscardStream(i);
  }
  result.status = Status::kWhole;
  std::shared_ptr<lum::QVXPacket> packet;
  int error = 0;
  while ((error = demuxer.ReadPacket(packet)) == 0) {
    if (packet->stream_index != index || (packet->flags & AV_PKT_FLAG_DISCARD) != 0) continue;
    const std::int64_t time = ToNanoseconds(packet->pts, video->time_base);
    if (time == kNoTime) {
      result.status = Status::kPartial;
      result.error = "there are frames without a time";
    } else {
      result.pts_ns.push_back(time);
    }
  }
  if (error != AVERROR_EOF) {
    result.status = Status::kPartial;
    result.error = lum::FFmpegErrorString(error);
  }
}

}  // namespace

FrameTimes ReadFrames(const Input& input) {
  FrameTimes result;
  const auto reader = OpenReader(input, result.error);
  if (reader == nullptr) return result;
  if (!ReadIndex(*reader, result)) {
    if (input.io && input.io->IsSeekable()) input.io->Seek(0, SEEK_SET);
    ReadVideoPackets(input, result);
  }
  std::sort(result.pts_ns.begin(), result.pts_ns.end());
  if (result.status == Status::kWhole && result.pts_ns.empty()) {
    result.status = Status::kNoSamples;
    result.error = "the video has no frame";
  }
  return result;
}

}  // namespace camm
