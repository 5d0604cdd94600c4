// Files in, bytes out: one file per way in which cameras and muxers lay a video out, each extracted
// by the built tool and compared with the plain extraction of what libavformat reads from it; and a
// whole output directory and log, kept byte for byte.

#include <algorithm>
#include <limits>
#include <regex>
#include <utility>

#include "camm/track_writer.h"
#include "support/log_capture.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;
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
  ExpectSame("hundreds of thousands of samples", {VideoTrack(), MotionTrack(90000, 150000, 1000)});
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
             {ToMp4Track(EncodeH264(), 90000, /*with_edit_list=*/false), MotionTrack()});
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
  Mp4Track video = ToMp4Track(EncodeH264(), 90000, /*with_edit_list=*/false);
  video.edits = {{700, -1, 1}, {1000, 6000, 1}};
  ExpectSame("delayed video", {video, MotionTrack()});
}

TEST(Extraction, OtherMuxers) {
  constexpr std::uint32_t kCamm = MKTAG('c', 'a', 'm', 'm');
  constexpr std::uint32_t kOnlyTagOfMovMuxer = MKTAG('g', 'p', 'm', 'd');
  const struct {
    const char* format = "";
    AVCodecID data_codec = AV_CODEC_ID_NONE;
    std::uint32_t data_tag = 0;
    const char* movflags = "";
    ::testing::Matcher<const std::string&> said;
  } muxers[] = {{"mov", AV_CODEC_ID_BIN_DATA, kOnlyTagOfMovMuxer, "", HasSubstr("tagged 'gpmd'")},
                {"mp4", AV_CODEC_ID_BIN_DATA, 0, "frag_keyframe+empty_moov+default_base_moof",
                 HasSubstr("tagged")},
                {"mpegts", AV_CODEC_ID_SMPTE_KLV, 0, "", HasSubstr("note: stream 2 of")},
                {"mpegts", AV_CODEC_ID_BIN_DATA, 0, "", HasSubstr("note: stream 2 of")},
                {"nut", AV_CODEC_ID_BIN_DATA, kCamm, "", IsEmpty()}};
  CameraOptions camera;
  camera.other_hertz = 0;
  camera.paired = true;
  const EncodedStream video = EncodeH264();
  const EncodedStream audio = EncodeAac();
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
    MuxWithLibavformat(dir / "video", muxer.format, &video, &audio, &data, muxer.movflags);
    ExpectPlainExtraction(dir / "video", muxer.said);
  }
}

/// What a walking camera writes, 80 ms of it; then everything in one packet, with the values that
/// number formats trip over.
void WriteCamera(const fs::path& path, const fs::path& video) {
  camm::WriterOptions options;
  options.video = video;
  camm::TrackWriter motion(path, options);
  const auto add = [&](std::int64_t milliseconds, const Bytes& packet) {
    motion.AddPacket(milliseconds * 1'000'000, packet.data(), packet.size());
  };
  for (int i = 0; i < 8; ++i) {
    const auto t = static_cast<float>(i);
    add(10L * i, GyroSample({0.25F * t, -0.5F, 0.1F}));
    add(10L * i, AccelSample({0.5F, -0.25F * t, 9.8125F}));
    add(10L * i, ExposureSample(8000000 + 1000 * i, 16000000));
    add(10L * i + 10, Stored(camm::Magnetic{21.5F, 1.25F, -43}));
  }
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kTiny = std::numeric_limits<float>::denorm_min();
  const camm::Gps odd{
      1e15,      -1,         -0.0,  1.0 / 3,  std::numeric_limits<float>::quiet_NaN(),
      kInfinity, -kInfinity, kTiny, 16777216, 1e-5F,
      3.4e38F};
  const camm::Gps plain{1400000000.25, 3,    48.137154, -179.99999999999997, 519.5F, 2.5F, 4, 0.7F,
                        -1.25F,        0.1F, 0.3F};
  add(80, Concat({GpsSample(odd), ExposureSample(-2147483647 - 1, 2147483647, 0xFFFF),
                  GyroSample({0.1F, -0.0F, 1e22F}), AccelSample({kInfinity, kTiny, -9.8F}),
                  GpsSample(plain)}));
  EXPECT_EQ(motion.Finish().error, "");
}

/// The threads in the order in which they came.
std::string LogByThread(const std::string& standard_output) {
  std::vector<std::pair<std::string, std::string>> threads;
  for (const LogRecord& record : ParseLog(standard_output)) {
    auto thread = std::find_if(threads.begin(), threads.end(),
                               [&](const auto& known) { return known.first == record.thread; });
    if (thread == threads.end()) thread = threads.insert(thread, {record.thread, ""});
    thread->second += record.level + ' ' + record.site + ' ' + record.text + '\n';
  }
  std::string log;
  for (const auto& [id, lines] : threads) log += lines + '\n';
  return log;
}

TEST(GoldenTest, TheToolWritesTheKeptFiles) {
  TempDir dir;
  const fs::path golden = MOTRACE_GOLDEN_DIR;
  const fs::path input = dir / "video.mp4";
  const fs::path out = dir / "out";
  fs::create_directory(out);
  const EncodedStream video = EncodeH264();
  const EncodedStream audio = EncodeAac();
  MuxWithLibavformat(dir / "plain.mp4", "mp4", &video, &audio, nullptr);
  WriteCamera(input, dir / "plain.mp4");
  const ProcessResult run = RunTool({input, out});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "motrace: note: samples of '" + input.string() +
                         "' that are not extracted: 8 magnetic field (type 7)\n");
  std::string log = std::regex_replace(LogByThread(run.out), std::regex(input.string()), "PATH");
  // This place is not fixed.
  log = std::regex_replace(log, std::regex(R"((file_media_src\.cpp):\d+ ~)"), "$1 ~");
  WriteFile(out / "log.txt", Bytes(log.begin(), log.end()));

  EXPECT_THAT(DifferingFiles(ReadDirectory(golden), ReadDirectory(out)), IsEmpty())
      << "If the change is meant: rm -r '" << golden.string() << "'; cp -r '" << out.string()
      << "' '" << golden.string() << "'";
  if (HasFailure()) dir.Keep();
}

}  // namespace
}  // namespace motrace::testing
