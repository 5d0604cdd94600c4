// Files in, bytes out: one file per way in which cameras and muxers lay a video out, each extracted
// by the built tool and compared with the plain extraction of what libavformat reads from it.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/mp4_writer.h"
#include "support/temp_dir.h"
#include "tool/motion_tracks.h"
#include "tool/tool_run.h"

namespace motrace::testing {
namespace {

using Tracks = std::vector<Mp4Track>;

struct FileCase {
  std::string name;
  std::function<Tracks()> tracks;
  Mp4Layout layout;
};

std::ostream& operator<<(std::ostream& out, const FileCase& file_case) {
  return out << file_case.name;
}

class ExtractionTest : public ::testing::TestWithParam<FileCase> {};

TEST_P(ExtractionTest, WritesTheBytesOfThePlainExtraction) {
  const TempDir dir;
  const auto path = dir / "video.mp4";
  WriteMp4(path, GetParam().tracks(), GetParam().layout);
  if (GetParam().name == "MotionOnlyDelay") {  // FFmpeg finds nothing in such a track
    ExpectPlainExtraction(path, ::testing::HasSubstr("none of the 452 motion packets"));
  } else {
    ExpectPlainExtraction(path);
  }
}

std::string CaseName(const ::testing::TestParamInfo<FileCase>& info) { return info.param.name; }

Tracks Camera() { return {VideoTrack(), AudioTrack(), MotionTrack(90000)}; }

// ---- how the container is laid out

Mp4Layout Layout(Mp4Order order, std::uint32_t interleave_ms = 500) {
  Mp4Layout layout;
  layout.order = order;
  layout.interleave_ms = interleave_ms;
  return layout;
}

Mp4Layout Beyond4GiB(Mp4Order order) {
  Mp4Layout layout = Layout(order);
  layout.leading_gap = 4500000000;
  return layout;
}

Mp4Layout WideOffsets() {
  Mp4Layout layout;
  layout.force_64bit = true;
  return layout;
}

INSTANTIATE_TEST_SUITE_P(
    Container, ExtractionTest,
    ::testing::Values(FileCase{"MoovLast", Camera, Layout(Mp4Order::kMoovLast)},
                      FileCase{"MoovFirst", Camera, Layout(Mp4Order::kMoovFirst)},
                      FileCase{"FinelyInterleaved", Camera, Layout(Mp4Order::kMoovLast, 10)},
                      FileCase{"OneTrackAfterAnother", Camera, Layout(Mp4Order::kMoovFirst, 0)},
                      FileCase{"Fragmented", Camera, Layout(Mp4Order::kFragmented, 100)},
                      FileCase{"FragmentPerTrack", Camera, Layout(Mp4Order::kFragmented, 0)},
                      FileCase{"WideOffsets", Camera, WideOffsets()},
                      FileCase{"Beyond4GiBMoovLast", Camera, Beyond4GiB(Mp4Order::kMoovLast)},
                      FileCase{"Beyond4GiBMoovFirst", Camera, Beyond4GiB(Mp4Order::kMoovFirst)}),
    CaseName);

// ---- which tracks there are, and in which order

/// A track of type data whose bytes look like motion samples, so that reading the wrong track
/// cannot go unnoticed.
Mp4Track VendorTrack() {
  Mp4Track track = Mp4Track::Data("meta", "vend", 1000);
  for (int i = 0; i < 10; ++i) track.Add(ExposureSample(1000 + i, 0), 100);
  return track;
}

/// QuickTime timecode: one sample, a frame number.
Mp4Track TimecodeTrack() {
  Mp4Track track = Mp4Track::Data("tmcd", "tmcd", 30000);
  track.Add(Bytes{0, 1, 2, 3}, 30000);
  return track;
}

INSTANTIATE_TEST_SUITE_P(
    Tracks, ExtractionTest,
    ::testing::Values(FileCase{"NoAudio",
                               [] {
                                 return Tracks{VideoTrack(), MotionTrack(90000)};
                               },
                               {}},
                      FileCase{"NoVideo",
                               [] {
                                 return Tracks{AudioTrack(), MotionTrack(90000)};
                               },
                               {}},
                      FileCase{"MotionAlone", [] { return Tracks{MotionTrack(90000)}; }, {}},
                      FileCase{"MotionFirst",
                               [] {
                                 return Tracks{MotionTrack(90000), AudioTrack(), VideoTrack()};
                               },
                               {}},
                      FileCase{"MotionBeforeVendor",
                               [] {
                                 return Tracks{VideoTrack(), MotionTrack(90000), VendorTrack()};
                               },
                               {}},
                      FileCase{"MotionTwice",
                               [] {
                                 return Tracks{VideoTrack(), MotionTrack(90000, 100, 200, 1),
                                               MotionTrack(1000, 50, 100, 2)};
                               },
                               {}},
                      FileCase{"TimecodeBehindMotion",
                               [] {
                                 return Tracks{VideoTrack(), MotionTrack(90000), TimecodeTrack()};
                               },
                               {}},
                      FileCase{"MetadataHandler",
                               [] {
                                 Mp4Track track = Mp4Track::Data("meta", "camm", 1000);
                                 track.Add(GyroSample({1, 2, 3}), 0);
                                 track.Add(AccelSample({4, 5, 6}), 10);
                                 return Tracks{VideoTrack(), track};
                               },
                               {}}),
    CaseName);

// ---- time

FileCase Timescale(std::uint32_t timescale) {
  return {"Timescale" + std::to_string(timescale),
          [timescale] {
            return Tracks{VideoTrack(), MotionTrack(timescale)};
          },
          {}};
}

/// 30000/1001 frames per second, as most cameras really run.
Mp4Track NtscVideo() {
  EncodedStream stream = EncodeH264();
  stream.time_base = {1001, 30000};
  return ToMp4Track(stream, 30000);
}

Tracks NanosecondsWithoutDuration() {
  Mp4Track motion = MotionTrack(1000000000);
  motion.media_duration = 0;
  motion.samples_without_time = 3;
  return {VideoTrack(), motion};
}

Tracks WithoutTimeEntries(std::size_t count) {
  Mp4Track motion = MotionTrack(90000);
  motion.samples_without_time = count;
  return {VideoTrack(), motion};
}

Tracks NegativeCompositionOffsets() {
  Mp4Track motion = Mp4Track::Camm(1000);
  for (int i = 0; i < 40; ++i) {
    const auto t = static_cast<float>(i);
    motion.Add(Concat({GyroSample({1, 2, t}), AccelSample({}), GpsSample({})}), 10,
               i % 3 == 0 ? -15 : i % 3 * 20);
  }
  return {VideoTrack(), motion};
}

Tracks AllAtOnce() {
  Mp4Track motion = Mp4Track::Camm(1000);
  for (int i = 0; i < 40; ++i) motion.Add(AccelSample({}), 0);
  for (int i = 0; i < 40; ++i) motion.Add(GyroSample({static_cast<float>(i), 0, 0}), 0);
  return {VideoTrack(), motion};
}

Tracks MonthsApart() {
  Mp4Track motion = Mp4Track::Camm(1000);
  for (int i = 0; i < 5; ++i) {
    motion.Add(Concat({GyroSample({}), AccelSample({}), GpsSample({})}), 0x7FFFFFFF);
  }
  return {motion};
}

/// Fragments whose decode times begin at `seconds`.
FileCase FragmentsFrom(const std::string& name, std::uint64_t seconds) {
  return {"FragmentsFrom" + name,
          [seconds] {
            Tracks tracks = Camera();
            for (Mp4Track& track : tracks) track.first_decode_time = seconds * track.timescale();
            return tracks;
          },
          Layout(Mp4Order::kFragmented, 100)};
}

/// Time stamps that don't fit 64 bits as microseconds, and hardly as ticks.
Tracks AtTheEndOfTime() {
  Mp4Track motion = MotionTrack(1000);
  motion.first_decode_time = 0x7FFFFFFFFFFFFF00 - motion.total_duration();
  return {AudioTrack(), motion};
}

INSTANTIATE_TEST_SUITE_P(
    Time, ExtractionTest,
    ::testing::Values(
        Timescale(1), Timescale(600), Timescale(1000), Timescale(1001), Timescale(24000),
        Timescale(44100), Timescale(1000000), Timescale(1000000000), Timescale(2147483647),
        FileCase{"NtscVideo",
                 [] {
                   return Tracks{NtscVideo(), MotionTrack(30000)};
                 },
                 {}},
        FileCase{"BFramesWithoutEditList",
                 [] {
                   return Tracks{ToMp4Track(SharedVideo(), 90000, false), MotionTrack(90000)};
                 },
                 {}},
        FileCase{"NoBFrames",
                 [] {
                   H264Options options;
                   options.b_frames = 0;
                   return Tracks{ToMp4Track(EncodeH264(options), 90000), MotionTrack(90000)};
                 },
                 {}},
        FileCase{"NanosecondsWithoutDuration", NanosecondsWithoutDuration, {}},
        FileCase{"LastSampleWithoutTimeEntry", [] { return WithoutTimeEntries(1); }, {}},
        FileCase{"ManySamplesWithoutTimeEntry", [] { return WithoutTimeEntries(50); }, {}},
        FileCase{"NegativeCompositionOffsets", NegativeCompositionOffsets, {}},
        FragmentsFrom("OneHour", 3600), FragmentsFrom("TenYears", 315360000),
        FileCase{"AtTheEndOfTime", AtTheEndOfTime, Layout(Mp4Order::kFragmented, 0)},
        FileCase{"AllAtOnce", AllAtOnce, {}}, FileCase{"MonthsApart", MonthsApart, {}}),
    CaseName);

// ---- time stamps worked out by hand: relative to the first packet of any track, by decode time

struct HandCase {
  std::string name;
  std::function<Tracks(const Mp4Track& motion)> tracks;
  std::vector<Mp4Edit> motion_edits;
  std::vector<std::int64_t> microseconds;
};

std::ostream& operator<<(std::ostream& out, const HandCase& hand_case) {
  return out << hand_case.name;
}

class TimeByHandTest : public ::testing::TestWithParam<HandCase> {};

TEST_P(TimeByHandTest, GyroDatHoldsTheTimeStamps) {
  Mp4Track motion = Mp4Track::Camm(90000);
  for (int i = 0; i < 2; ++i) motion.Add(Concat({GyroSample({}), AccelSample({})}), 90000);
  motion.edits = GetParam().motion_edits;
  const TempDir dir;
  const TempDir out;
  WriteMp4(dir / "video.mp4", GetParam().tracks(motion));
  RunTool({(dir / "video.mp4").string(), out.path().string()});
  const Bytes gyro = ReadFile(out / "gyro.dat");
  std::vector<std::int64_t> times;
  for (std::size_t at = 0; at + 56 <= gyro.size(); at += 56) {
    std::int64_t time = 0;
    for (std::size_t i = 8; i-- > 0;) time = time << 8 | gyro[at + i];
    times.push_back(time);
  }
  EXPECT_EQ(times, GetParam().microseconds);
}

Mp4Track VideoWithoutBFrames() {
  H264Options options;
  options.b_frames = 0;
  return ToMp4Track(EncodeH264(options), 90000);
}

const std::vector<Mp4Edit> kQuarterSecondLate{{250, -1, 1}, {2000, 0, 1}};

INSTANTIATE_TEST_SUITE_P(
    Starts, TimeByHandTest,
    ::testing::Values(
        HandCase{"MotionAlone", [](const auto& m) { return Tracks{m}; }, {}, {0, 1000000}},
        // Two frames of B-frame delay at 30 Hz: -66.7 ms, rounded to -67.
        HandCase{"BFrames",
                 [](const auto& m) {
                   return Tracks{VideoTrack(), m};
                 },
                 {},
                 {67000, 1067000}},
        // 1024 samples of priming at 48 kHz: -21.3 ms, rounded to -21.
        HandCase{"AudioPriming",
                 [](const auto& m) {
                   return Tracks{m, AudioTrack()};
                 },
                 {},
                 {0, 1000000}},
        HandCase{"AudioPrimingFirstInTheFile",
                 [](const auto& m) {
                   return Tracks{AudioTrack(), m};
                 },
                 {},
                 {21000, 1021000}},
        HandCase{"LateMotionAlone",
                 [](const auto& m) { return Tracks{m}; },
                 kQuarterSecondLate,
                 {0, 1000000}},
        HandCase{"LateMotion",
                 [](const auto& m) {
                   return Tracks{VideoWithoutBFrames(), m};
                 },
                 kQuarterSecondLate,
                 {250000, 1250000}}),
    [](const auto& test) { return test.param.name; });

// ---- edit lists

/// An edit list on the motion track; movie time scale 1000, track time scale 90000, one second.
FileCase MotionEdits(const std::string& name, std::vector<Mp4Edit> edits) {
  return {"Motion" + name,
          [edits = std::move(edits)] {
            Mp4Track motion = MotionTrack(90000);
            motion.edits = edits;
            return Tracks{VideoTrack(), AudioTrack(), motion};
          },
          {}};
}

FileCase VideoEdits(const std::string& name, std::vector<Mp4Edit> edits) {
  return {"Video" + name,
          [edits = std::move(edits)] {
            Mp4Track video = ToMp4Track(SharedVideo(), 90000, /*with_edit_list=*/false);
            video.edits = edits;
            return Tracks{video, MotionTrack(90000)};
          },
          {}};
}

INSTANTIATE_TEST_SUITE_P(
    EditLists, ExtractionTest,
    ::testing::Values(
        MotionEdits("Whole", {{1000, 0, 1}}), MotionEdits("Delayed", {{333, -1, 1}, {1000, 0, 1}}),
        MotionEdits("FrontCut", {{600, 36000, 1}}), MotionEdits("BackCut", {{400, 0, 1}}),
        MotionEdits("DelayedAndCut", {{100, -1, 1}, {300, 45000, 1}}),
        MotionEdits("DurationZero", {{0, 0, 1}}),
        MotionEdits("DurationZeroBehindStart", {{0, 9000, 1}}),
        MotionEdits("TwoParts", {{200, 54000, 1}, {200, 9000, 1}}),
        MotionEdits("GapInTheMiddle", {{300, 0, 1}, {500, -1, 1}, {300, 27000, 1}}),
        MotionEdits("TheSamePartTwice", {{300, 0, 1}, {300, 0, 1}}),
        MotionEdits("BehindTheEnd", {{1000, 900000, 1}}), MotionEdits("Dwell", {{500, 4500, 0}}),
        MotionEdits("OnlyDelay", {{500, -1, 1}}),
        VideoEdits("Delayed", {{700, -1, 1}, {1000, 6000, 1}}),
        VideoEdits("FrontCut", {{500, 48000, 1}}), VideoEdits("DurationZero", {{0, 6000, 1}}),
        FileCase{"FragmentedWithEdits",
                 [] {
                   Mp4Track motion = MotionTrack(90000);
                   motion.edits = {{0, 9000, 1}};
                   return Tracks{VideoTrack(), AudioTrack(), motion};
                 },
                 Layout(Mp4Order::kFragmented, 100)}),
    CaseName);

// ---- what is in the samples

Tracks EverythingInOnePacket() {
  MotionSource source(3);
  Bytes packet;
  for (int i = 0; i < 4000; ++i) {
    for (const Bytes& sample : source.Next()) {
      packet.insert(packet.end(), sample.begin(), sample.end());
    }
  }
  Mp4Track motion = Mp4Track::Camm(1000);
  motion.Add(packet, 1000);
  return {VideoTrack(), motion};
}

Tracks TinySamples() {
  Mp4Track motion = Mp4Track::Camm(1000);
  for (std::size_t size = 1; size < 80; ++size) {
    for (const Bytes& whole : {GyroSample({1, 2, 3}), AccelSample({4, 5, 6}), ExposureSample(7, 8),
                               GpsSample({}), MinimalGpsSample(1, 2, 3)}) {
      if (size <= whole.size()) {
        motion.Add(whole.data(), size, 1);
      }
    }
  }
  // The cuts leave more accelerometer than gyroscope samples unpaired in no case: one each.
  return {motion};
}

Tracks ReservedBytesSet() {
  Mp4Track motion = Mp4Track::Camm(1000);
  for (std::uint16_t i = 0; i < 100; ++i) {
    const auto reserved = static_cast<std::uint16_t>(i * 655);
    motion.Add(Concat({GyroSample({1, 2, 3}, reserved), AccelSample({4, 5, 6}, reserved),
                       ExposureSample(-1, -2, reserved), GpsSample({}, reserved)}),
               10);
  }
  return {motion};
}

FileCase RandomPayloads(std::uint32_t seed) {
  return {"RandomPayloadsSeed" + std::to_string(seed),
          [seed] {
            std::mt19937 random(seed);
            Mp4Track motion = Mp4Track::Camm(48000);
            for (int i = 0; i < 3000; ++i) {
              motion.Add(RandomPayload(random), static_cast<std::uint32_t>(random() % 4000));
            }
            // Every accelerometer sample gets a partner.
            for (int i = 0; i < 3000; ++i) motion.Add(GyroSample({}), 1);
            return Tracks{AudioTrack(), motion};
          },
          {}};
}

INSTANTIATE_TEST_SUITE_P(
    Samples, ExtractionTest,
    ::testing::Values(
        FileCase{"TenInstantsPerPacket",
                 [] {
                   return Tracks{VideoTrack(), GroupedMotionTrack(90000, 400, 200, 10)};
                 },
                 {}},
        FileCase{"EverythingInOnePacket", EverythingInOnePacket, {}},
        FileCase{"TinySamples", TinySamples, {}},
        FileCase{"ReservedBytesSet", ReservedBytesSet, {}},
        FileCase{"NothingDecoded",
                 [] {
                   Mp4Track motion = Mp4Track::Camm(1000);
                   for (int i = 0; i < 20; ++i) motion.Add(AngleAxisSample({0.1F, 0.2F, 0.3F}), 5);
                   return Tracks{VideoTrack(), motion};
                 },
                 {}},
        FileCase{"MoreGyroscopeThanAccelerometer",
                 [] {
                   Mp4Track motion = Mp4Track::Camm(1000);
                   for (int i = 0; i < 5; ++i) motion.Add(GyroSample({1, 0, 0}), 5);
                   for (int i = 0; i < 3; ++i) motion.Add(AccelSample({0, 1, 0}), 5);
                   return Tracks{motion};
                 },
                 {}},
        RandomPayloads(1), RandomPayloads(2), RandomPayloads(3), RandomPayloads(4)),
    CaseName);

// ---- many

TEST(ExtractionSizeTest, HundredsOfThousandsOfSamples) {
  const TempDir dir;
  const auto path = dir / "long.mp4";
  WriteMp4(path, {VideoTrack(), MotionTrack(90000, 150000, 1000)});
  ExpectPlainExtraction(path);
}

// ---- other muxers

struct MuxerCase {
  std::string name;
  std::string format;
  AVCodecID data_codec;
  std::uint32_t data_tag;
  std::map<std::string, std::string> options;
};

std::ostream& operator<<(std::ostream& out, const MuxerCase& muxer) { return out << muxer.name; }

class MuxerExtractionTest : public ::testing::TestWithParam<MuxerCase> {};

TEST_P(MuxerExtractionTest, WritesTheBytesOfThePlainExtraction) {
  const MuxerCase& muxer = GetParam();
  DataStream data;
  data.codec_id = muxer.data_codec;
  data.codec_tag = muxer.data_tag;
  MotionSource source(5);
  for (std::int64_t i = 0; i < 100; ++i) {
    Bytes packet;
    for (const Bytes& sample : source.Next()) {
      packet.insert(packet.end(), sample.begin(), sample.end());
    }
    data.packets.push_back({packet, i * 10, i * 10, 10, true});
  }
  const TempDir dir;
  const auto path = dir / "video";
  MuxWithLibavformat(path, muxer.format, &SharedVideo(), &SharedAudio(), &data, muxer.options);
  // Most of these muxers cannot tag the stream as camm; the message about it is tested elsewhere.
  ExpectPlainExtraction(path, ::testing::_);
}

constexpr std::uint32_t kCamm = MKTAG('c', 'a', 'm', 'm');
constexpr std::uint32_t kOnlyTagOfMovMuxer = MKTAG('g', 'p', 'm', 'd');

INSTANTIATE_TEST_SUITE_P(
    Muxers, MuxerExtractionTest,
    ::testing::Values(
        MuxerCase{"QuickTime", "mov", AV_CODEC_ID_BIN_DATA, kOnlyTagOfMovMuxer, {}},
        MuxerCase{"FastStart", "mp4", AV_CODEC_ID_BIN_DATA, 0, {{"movflags", "faststart"}}},
        MuxerCase{"FragmentPerKeyFrame",
                  "mp4",
                  AV_CODEC_ID_BIN_DATA,
                  0,
                  {{"movflags", "frag_keyframe+empty_moov+default_base_moof"}}},
        MuxerCase{"FragmentsBehindASampleTable",
                  "mp4",
                  AV_CODEC_ID_BIN_DATA,
                  0,
                  {{"movflags", "frag_keyframe"}}},
        MuxerCase{"TransportStreamMetadata", "mpegts", AV_CODEC_ID_SMPTE_KLV, 0, {}},
        MuxerCase{"TransportStreamPrivateData", "mpegts", AV_CODEC_ID_BIN_DATA, 0, {}},
        MuxerCase{"NoDurationInTheFile", "nut", AV_CODEC_ID_BIN_DATA, kCamm, {}}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace motrace::testing
