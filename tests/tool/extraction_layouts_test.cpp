// Files in, bytes out: one file per way in which cameras and muxers lay a video out, each extracted
// by the built tool and compared with the plain extraction of what libavformat reads from it.

#include <cstring>

#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

using Tracks = std::vector<Mp4Track>;

void ExpectSame(
    const std::string& what, const Tracks& tracks, const Mp4Layout& layout = {},
    const ::testing::Matcher<const std::string&>& standard_error = ::testing::IsEmpty()) {
  SCOPED_TRACE(what);
  const TempDir dir;
  WriteMp4(dir / "video.mp4", tracks, layout);
  ExpectPlainExtraction(dir / "video.mp4", standard_error);
}

Tracks Camera() { return {VideoTrack(), AudioTrack(), MotionTrack()}; }
Mp4Layout Layout(Mp4Order order, std::uint32_t interleave_ms = 500) {
  return {order, interleave_ms};
}

TEST(Extraction, ContainerLayouts) {
  ExpectSame("moov last", Camera());
  ExpectSame("moov first, one track after another", Camera(), Layout(Mp4Order::kMoovFirst, 0));
  ExpectSame("fragmented", Camera(), Layout(Mp4Order::kFragmented, 100));
  ExpectSame("a fragment a track", Camera(), Layout(Mp4Order::kFragmented, 0));
  for (const Mp4Order order : {Mp4Order::kMoovLast, Mp4Order::kMoovFirst}) {
    ExpectSame("beyond 4 GiB", Camera(), {order, 500, /*leading_gap=*/4500000000});
  }
}

TEST(Extraction, ChoicesOfTracks) {
  const Mp4Track motion = MotionTrack();
  // Bytes that look like motion samples, so that reading the wrong track cannot go unnoticed.
  Mp4Track vendor = Mp4Track::Data("meta", "vend", 1000);
  for (int i = 0; i < 10; ++i) vendor.Add(ExposureSample(1000 + i, 0), 100);
  Mp4Track timecode = Mp4Track::Data("tmcd", "tmcd", 30000);
  timecode.Add(Bytes{0, 1, 2, 3}, 30000);
  Mp4Track metadata = Mp4Track::Data("meta", "camm", 1000);
  metadata.Add(Concat({GyroSample({1, 2, 3}), AccelSample({4, 5, 6})}), 10);
  ExpectSame("motion alone", {motion});
  // FFmpeg gives the first packets other times there.
  ExpectSame("motion first", {motion, AudioTrack(), VideoTrack()}, {}, ::testing::_);
  ExpectSame("motion before another data track", {VideoTrack(), motion, vendor});
  ExpectSame("timecode after motion", {VideoTrack(), motion, timecode});
  ExpectSame("motion under the metadata handler", {VideoTrack(), metadata});
}

TEST(Extraction, Times) {
  for (const std::uint32_t timescale : {1U, 600U, 1001U, 44100U, 1000000000U, 2147483647U}) {
    ExpectSame("time scale " + std::to_string(timescale), {VideoTrack(), MotionTrack(timescale)});
  }
  ExpectSame("B-frames without edit list",
             {ToMp4Track(SharedVideo(), 90000, /*with_edit_list=*/false), MotionTrack()});
  Mp4Track bare = MotionTrack(1000000000);
  bare.media_duration = 0;
  bare.samples_without_time = 50;
  ExpectSame("no duration, and samples without a time entry", {VideoTrack(), bare}, {},
             ::testing::_);
  Mp4Track composed = Mp4Track::Camm(1000);
  for (int i = 0; i < 40; ++i) {
    composed.Add(GpsSample({}), i < 20 ? 10 : 0, i % 3 == 0 ? -15 : i % 3 * 20);
  }
  ExpectSame("negative composition offsets, and many at once", {VideoTrack(), composed});
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
  Mp4Track motion = MotionTrack();
  const std::vector<Mp4Edit> motion_edits[] = {
      {{100, -1, 1}, {300, 45000, 1}},               // delayed, its front cut off
      {{200, 54000, 1}, {200, 9000, 1}},             // two parts, the later one first
      {{300, 0, 1}, {500, -1, 1}, {300, 27000, 1}},  // a gap in the middle
      {{1000, 900000, 1}},                           // after the end
      {{500, 4500, 0}}};                             // dwell
  for (const auto& edits : motion_edits) {
    motion.edits = edits;
    ExpectSame("edit list", {VideoTrack(), AudioTrack(), motion}, {}, ::testing::_);
  }
  motion.edits = {{0, 9000, 1}};
  ExpectSame("in fragments", {VideoTrack(), motion}, Layout(Mp4Order::kFragmented, 100));
  Mp4Track video = ToMp4Track(SharedVideo(), 90000, /*with_edit_list=*/false);
  video.edits = {{700, -1, 1}, {1000, 6000, 1}};
  ExpectSame("delayed video", {video, MotionTrack()});
}

TEST(Extraction, Samples) {
  CameraOptions everything;
  everything.instants = 4000;
  everything.other_hertz = 100;
  std::vector<Bytes> packets;
  RecordCamera(everything,
               [&](const Bytes& payload, std::uint32_t) { packets.push_back(payload); });
  ExpectSame("everything in one packet", {VideoTrack(), PacketTrack({Concat(packets)})}, {},
             ::testing::HasSubstr("note: samples of"));
  ExpectSame("hundreds of thousands", {VideoTrack(), MotionTrack(90000, 150000, 1000)});
}

// Relative to the first packet of any track, by decode time.
TEST(Extraction, TimesWorkedOutByHand) {
  Mp4Track motion = Mp4Track::Camm(90000);
  for (int i = 0; i < 2; ++i) motion.Add(Concat({GyroSample({}), AccelSample({})}), 90000);
  Mp4Track late = motion;
  late.edits = {{250, -1, 1}, {2000, 0, 1}};
  H264Options in_order;
  in_order.b_frames = 0;
  const std::pair<Tracks, std::int64_t> cases[] = {
      {{motion}, 0},
      // Two frames of B-frame delay at 30 Hz: -66.7 ms, rounded to -67.
      {{VideoTrack(), motion}, 67000},
      // 1024 samples of priming at 48 kHz: -21.3 ms, rounded to -21, where they come first.
      {{motion, AudioTrack()}, 0},
      {{AudioTrack(), motion}, 21000},
      {{ToMp4Track(EncodeH264(in_order), 90000), late}, 250000}};
  for (const auto& [tracks, first_us] : cases) {
    const TempDir dir;
    WriteMp4(dir / "video.mp4", tracks);
    RunTool({dir / "video.mp4", dir.path()});
    const Bytes gyro = ReadFile(dir / "gyro.dat");
    ASSERT_EQ(gyro.size(), 2U * 56);
    std::int64_t times[2];
    for (int i = 0; i < 2; ++i) std::memcpy(&times[i], &gyro[56U * i], sizeof times[i]);
    EXPECT_EQ(times[0], first_us);
    EXPECT_EQ(times[1], first_us + 1000000);
  }
}

TEST(Extraction, OtherMuxers) {
  constexpr std::uint32_t kCamm = MKTAG('c', 'a', 'm', 'm');
  constexpr std::uint32_t kOnlyTagOfMovMuxer = MKTAG('g', 'p', 'm', 'd');
  const struct {
    const char* format;
    AVCodecID data_codec;
    std::uint32_t data_tag;
    const char* movflags;
    const char* said;
  } muxers[] = {
      {"mov", AV_CODEC_ID_BIN_DATA, kOnlyTagOfMovMuxer, "", "tagged 'gpmd'"},
      {"mp4", AV_CODEC_ID_BIN_DATA, 0, "frag_keyframe+empty_moov+default_base_moof", "tagged"},
      {"mpegts", AV_CODEC_ID_SMPTE_KLV, 0, "", "note: stream 2 of"},
      {"mpegts", AV_CODEC_ID_BIN_DATA, 0, "", "note: stream 2 of"},
      {"nut", AV_CODEC_ID_BIN_DATA, kCamm, "", ""}};
  CameraOptions camera;
  camera.other_hertz = 0;
  camera.paired = true;
  for (const auto& muxer : muxers) {
    SCOPED_TRACE(muxer.format);
    DataStream data;
    data.codec_id = muxer.data_codec;
    data.codec_tag = muxer.data_tag;
    std::int64_t time = 0;
    RecordCamera(camera, [&](const Bytes& payload, std::uint32_t) {
      data.packets.push_back({payload, time, time, 5, true});
      time += 5;
    });
    const TempDir dir;
    MuxWithLibavformat(dir / "video", muxer.format, &SharedVideo(), &SharedAudio(), &data,
                       muxer.movflags);
    ExpectPlainExtraction(dir / "video", *muxer.said == 0 ? ::testing::Matcher<const std::string&>(
                                                                ::testing::IsEmpty())
                                                          : ::testing::HasSubstr(muxer.said));
  }
}

}  // namespace
}  // namespace motrace::testing
