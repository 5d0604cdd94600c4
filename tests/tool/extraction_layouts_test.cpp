// Files in, bytes out: one file per way in which cameras and muxers lay a video out, each extracted
// by the built tool and compared with the plain extraction of what libavformat reads from it.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/samples.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Tracks = std::vector<Mp4Track>;

void ExpectSame(const std::string& what, const Tracks& tracks, const Mp4Layout& layout = {},
                const ::testing::Matcher<const std::string&>& standard_error = IsEmpty()) {
  SCOPED_TRACE(what);
  const TempDir dir;
  WriteMp4(dir / "video.mp4", tracks, layout);
  ExpectPlainExtraction(dir / "video.mp4", standard_error);
}

Tracks Camera() { return {VideoTrack(), AudioTrack(), MotionTrack(90000)}; }
Mp4Layout Layout(Mp4Order order, std::uint32_t interleave_ms = 500) {
  return {order, interleave_ms};
}

/// A motion track of one packet each, 10 ms apart.
Mp4Track Packets(const std::vector<Bytes>& packets) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (const Bytes& packet : packets) track.Add(packet, 10);
  return track;
}

TEST(Extraction, ContainerLayouts) {
  ExpectSame("moov last", Camera());
  ExpectSame("moov first, one track after another", Camera(), Layout(Mp4Order::kMoovFirst, 0));
  ExpectSame("finely interleaved", Camera(), Layout(Mp4Order::kMoovLast, 10));
  ExpectSame("fragmented", Camera(), Layout(Mp4Order::kFragmented, 100));
  ExpectSame("a fragment a track", Camera(), Layout(Mp4Order::kFragmented, 0));
  for (const Mp4Order order : {Mp4Order::kMoovLast, Mp4Order::kMoovFirst}) {
    ExpectSame("beyond 4 GiB", Camera(), {order, 500, /*leading_gap=*/4500000000});
  }
}

TEST(Extraction, ChoicesOfTracks) {
  const Mp4Track motion = MotionTrack(90000);
  // Bytes that look like motion samples, so that reading the wrong track cannot go unnoticed.
  Mp4Track vendor = Mp4Track::Data("meta", "vend", 1000);
  for (int i = 0; i < 10; ++i) vendor.Add(ExposureSample(1000 + i, 0), 100);
  Mp4Track timecode = Mp4Track::Data("tmcd", "tmcd", 30000);
  timecode.Add(Bytes{0, 1, 2, 3}, 30000);
  Mp4Track metadata = Mp4Track::Data("meta", "camm", 1000);
  metadata.Add(Concat({GyroSample({1, 2, 3}), AccelSample({4, 5, 6})}), 10);
  ExpectSame("no audio", {VideoTrack(), motion});
  ExpectSame("no video", {AudioTrack(), motion});
  ExpectSame("motion alone", {motion});
  ExpectSame("motion first", {motion, AudioTrack(), VideoTrack()});
  ExpectSame("motion before another data track", {VideoTrack(), motion, vendor});
  ExpectSame("motion twice", {VideoTrack(), motion, MotionTrack(1000, 50, 100)});
  ExpectSame("timecode behind motion", {VideoTrack(), motion, timecode});
  ExpectSame("motion under the metadata handler", {VideoTrack(), metadata});
}

TEST(Extraction, Times) {
  for (const std::uint32_t timescale : {1U, 600U, 1001U, 44100U, 1000000000U, 2147483647U}) {
    ExpectSame("time scale " + std::to_string(timescale), {VideoTrack(), MotionTrack(timescale)});
  }
  ExpectSame("B-frames without edit list",
             {ToMp4Track(SharedVideo(), 90000, /*with_edit_list=*/false), MotionTrack(90000)});
  Mp4Track bare = MotionTrack(1000000000);
  bare.media_duration = 0;
  bare.samples_without_time = 50;
  ExpectSame("no duration, and samples without a time entry", {VideoTrack(), bare});
  Mp4Track composed = Mp4Track::Camm(1000);
  Mp4Track at_once = Mp4Track::Camm(1000);
  Mp4Track months_apart = Mp4Track::Camm(1000);
  const Bytes payload = Concat({GyroSample({1, 2, 3}), AccelSample({}), GpsSample({})});
  for (int i = 0; i < 40; ++i) {
    composed.Add(payload, 10, i % 3 == 0 ? -15 : i % 3 * 20);
    at_once.Add(payload, 0);
    if (i < 5) months_apart.Add(payload, 0x7FFFFFFF);
  }
  ExpectSame("negative composition offsets", {VideoTrack(), composed});
  ExpectSame("all at once", {VideoTrack(), at_once});
  ExpectSame("months apart", {months_apart});
  Tracks late = Camera();
  for (Mp4Track& track : late)
    track.first_decode_time = std::uint64_t{315360000} * track.timescale();
  ExpectSame("fragments from ten years on", late, Layout(Mp4Order::kFragmented, 100));
  // Time stamps that don't fit 64 bits as microseconds, and hardly as ticks.
  Mp4Track last = MotionTrack(1000);
  last.first_decode_time = 0x7FFFFFFFFFFFFF00 - last.total_duration();
  ExpectSame("the end of time", {AudioTrack(), last}, Layout(Mp4Order::kFragmented, 0));
}

TEST(Extraction, EditLists) {
  const std::pair<const char*, std::vector<Mp4Edit>> motion_edits[] = {
      {"whole", {{1000, 0, 1}}},
      {"delayed", {{333, -1, 1}, {1000, 0, 1}}},
      {"front cut", {{600, 36000, 1}}},
      {"delayed and cut", {{100, -1, 1}, {300, 45000, 1}}},
      {"duration zero behind the start", {{0, 9000, 1}}},
      {"two parts", {{200, 54000, 1}, {200, 9000, 1}}},
      {"gap in the middle", {{300, 0, 1}, {500, -1, 1}, {300, 27000, 1}}},
      {"the same part twice", {{300, 0, 1}, {300, 0, 1}}},
      {"behind the end", {{1000, 900000, 1}}},
      {"dwell", {{500, 4500, 0}}}};
  for (const auto& [what, edits] : motion_edits) {
    Mp4Track motion = MotionTrack(90000);
    motion.edits = edits;
    ExpectSame(what, {VideoTrack(), AudioTrack(), motion});
  }
  Mp4Track motion = MotionTrack(90000);
  motion.edits = {{500, -1, 1}};  // FFmpeg finds nothing in such a track
  ExpectSame("only delay", {VideoTrack(), motion}, {}, HasSubstr("none of the 444 motion packets"));
  motion.edits = {{0, 9000, 1}};
  ExpectSame("in fragments", {VideoTrack(), motion}, Layout(Mp4Order::kFragmented, 100));
  Mp4Track video = ToMp4Track(SharedVideo(), 90000, /*with_edit_list=*/false);
  video.edits = {{700, -1, 1}, {1000, 6000, 1}};
  ExpectSame("delayed video", {video, MotionTrack(90000)});
}

TEST(Extraction, Samples) {
  Bytes everything;
  RecordCamera({90000, 4000}, [&](const Bytes& sample, std::uint32_t /*duration*/) {
    everything.insert(everything.end(), sample.begin(), sample.end());
  });
  ExpectSame("everything in one packet", {VideoTrack(), Packets({everything})});
  std::vector<Bytes> cut;
  for (const Bytes& whole : {GyroSample({1, 2, 3}), AccelSample({4, 5, 6}), ExposureSample(7, 8),
                             GpsSample({}), MinimalGpsSample(1, 2, 3)}) {
    for (std::size_t size = 1; size <= whole.size(); ++size) {
      cut.emplace_back(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    }
  }
  ExpectSame("samples cut anywhere", {Packets(cut)});
  ExpectSame("more gyroscope than accelerometer",
             {Packets({GyroSample({1, 0, 0}), GyroSample({2, 0, 0}), AccelSample({0, 1, 0})})});
  ExpectSame("hundreds of thousands", {VideoTrack(), MotionTrack(90000, 150000, 1000)});
}

// ---- time stamps worked out by hand: relative to the first packet of any track, by decode time

void ExpectTimes(const Tracks& tracks, const std::vector<std::int64_t>& microseconds) {
  const TempDir dir;
  WriteMp4(dir / "video.mp4", tracks);
  RunTool({(dir / "video.mp4").string(), dir.path().string()});
  const Bytes gyro = ReadFile(dir / "gyro.dat");
  std::vector<std::int64_t> times(gyro.size() / 56);
  for (std::size_t i = 0; i < times.size(); ++i) {
    std::memcpy(&times[i], gyro.data() + 56 * i, sizeof times[i]);
  }
  EXPECT_EQ(times, microseconds);
}

TEST(Extraction, TimesWorkedOutByHand) {
  Mp4Track motion = Mp4Track::Camm(90000);
  for (int i = 0; i < 2; ++i) motion.Add(Concat({GyroSample({}), AccelSample({})}), 90000);
  Mp4Track late = motion;
  late.edits = {{250, -1, 1}, {2000, 0, 1}};
  H264Options in_order;
  in_order.b_frames = 0;
  ExpectTimes({motion}, {0, 1000000});
  // Two frames of B-frame delay at 30 Hz: -66.7 ms, rounded to -67.
  ExpectTimes({VideoTrack(), motion}, {67000, 1067000});
  // 1024 samples of priming at 48 kHz: -21.3 ms, rounded to -21, where they come first.
  ExpectTimes({motion, AudioTrack()}, {0, 1000000});
  ExpectTimes({AudioTrack(), motion}, {21000, 1021000});
  ExpectTimes({late}, {0, 1000000});
  ExpectTimes({ToMp4Track(EncodeH264(in_order), 90000), late}, {250000, 1250000});
}

// ---- other muxers

TEST(Extraction, OtherMuxers) {
  constexpr std::uint32_t kCamm = MKTAG('c', 'a', 'm', 'm');
  constexpr std::uint32_t kOnlyTagOfMovMuxer = MKTAG('g', 'p', 'm', 'd');
  const struct {
    const char* format;
    AVCodecID data_codec;
    std::uint32_t data_tag;
    const char* movflags;
  } muxers[] = {{"mov", AV_CODEC_ID_BIN_DATA, kOnlyTagOfMovMuxer, ""},
                {"mp4", AV_CODEC_ID_BIN_DATA, 0, "faststart"},
                {"mp4", AV_CODEC_ID_BIN_DATA, 0, "frag_keyframe+empty_moov+default_base_moof"},
                {"mp4", AV_CODEC_ID_BIN_DATA, 0, "frag_keyframe"},
                {"mpegts", AV_CODEC_ID_SMPTE_KLV, 0, ""},
                {"mpegts", AV_CODEC_ID_BIN_DATA, 0, ""},
                {"nut", AV_CODEC_ID_BIN_DATA, kCamm, ""}};
  for (const auto& muxer : muxers) {
    SCOPED_TRACE(muxer.format);
    DataStream data;
    data.codec_id = muxer.data_codec;
    data.codec_tag = muxer.data_tag;
    std::int64_t time = 0;
    RecordCamera({1000, 100}, [&](const Bytes& sample, std::uint32_t duration) {
      data.packets.push_back({sample, time, time, duration, true});
      time += duration;
    });
    const TempDir dir;
    MuxWithLibavformat(dir / "video", muxer.format, &SharedVideo(), &SharedAudio(), &data,
                       muxer.movflags);
    // Most of these muxers cannot tag the stream as camm; the message about it is tested elsewhere.
    ExpectPlainExtraction(dir / "video", ::testing::_);
  }
}

}  // namespace
}  // namespace motrace::testing
