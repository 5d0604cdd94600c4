#include "av_toolbox/demuxer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/ffmpeg_util.h"
#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/log_capture.h"
#include "support/memory_source.h"
#include "support/mp4_writer.h"
#include "support/temp_dir.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;

struct PacketCopy {
  int stream;
  int64_t pts;
  int64_t dts;
  Bytes data;

  friend bool operator==(const PacketCopy& a, const PacketCopy& b) {
    return a.stream == b.stream && a.pts == b.pts && a.dts == b.dts && a.data == b.data;
  }
};

PacketCopy Copy(const QVXPacket& packet) {
  return {packet.stream_index, packet.pts, packet.dts,
          Bytes(packet.data, packet.data + packet.size)};
}

// Everything up to the first result that is not 0, which goes to `end`.
std::vector<PacketCopy> ReadAll(Demuxer& demuxer, int* end = nullptr) {
  std::vector<PacketCopy> packets;
  std::shared_ptr<QVXPacket> packet;
  int result = 0;
  while ((result = demuxer.NextPacket(packet)) == 0) packets.push_back(Copy(*packet));
  if (end != nullptr) *end = result;
  return packets;
}

// Whether the NAL units of an MP4 sample follow each other, each behind a start code.
bool HoldsUnits(const Bytes& annex_b, const Bytes& length_prefixed) {
  auto at = annex_b.begin();
  for (auto unit = length_prefixed.begin(); unit != length_prefixed.end();) {
    const auto size = unit[0] << 24 | unit[1] << 16 | unit[2] << 8 | unit[3];
    Bytes expected{0, 0, 1};
    expected.insert(expected.end(), unit + 4, unit + 4 + size);
    at = std::search(at, annex_b.end(), expected.begin(), expected.end());
    if (at == annex_b.end()) return false;
    unit += 4 + size;
  }
  return true;
}

Mp4Track MotionTrack(int samples) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < samples; ++i) track.Add(GyroSample({static_cast<float>(i), 0, 0}), 20);
  return track;
}

// A motion track of some length, so that reading it takes several reads of the input.
Mp4Track LongTrack() {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < 100; ++i) track.Add(Bytes(2000, 1), 10);
  return track;
}

class DemuxerTest : public ::testing::Test {
 protected:
  DemuxerTest() { InitFFmpeg(); }

  std::string Write(const std::vector<Mp4Track>& tracks, Mp4Order order = Mp4Order::kMoovLast) {
    Mp4Layout layout;
    layout.order = order;
    WriteMp4(PathOf("input.mp4"), tracks, layout);
    return PathOf("input.mp4");
  }
  [[nodiscard]] std::string PathOf(const std::string& name) const { return directory_ / name; }

  TempDir directory_;
};

TEST_F(DemuxerTest, AvcInMp4LeavesAsAnnexBAndOtherStreamsAsTheyAre) {
  const EncodedStream video = EncodeH264();
  const EncodedStream audio = EncodeAac();
  const LogCapture log;
  Demuxer demuxer(Write({ToMp4Track(video, 90000), ToMp4Track(audio, 48000), MotionTrack(30)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  EXPECT_THAT(
      log.Lines(),
      ElementsAre("VERBOSE av_toolbox/demuxer.cpp:148 check is mp4 format, need filter to annexb",
                  "ERROR av_toolbox/bsf_filter.cpp:18 bsf_init ret:0"));
  const AVCodecParameters& par = *demuxer.VideoStream()->codecpar;
  EXPECT_THAT(Bytes(par.extradata, par.extradata + 4), ElementsAre(0, 0, 0, 1));
  EXPECT_EQ(demuxer.VideoStream()->time_base.den, 90000);

  size_t pictures = 0;
  size_t sound = 0;
  float motion = 0;
  for (const PacketCopy& packet : ReadAll(demuxer)) {
    if (packet.stream == 0) {
      const EncodedPacket& written = video.packets.at(pictures++);
      EXPECT_TRUE(HoldsUnits(packet.data, written.data)) << pictures;
      EXPECT_EQ(packet.dts, written.dts * 3000);
      EXPECT_EQ(packet.pts, written.pts * 3000);
    } else if (packet.stream == 1) {
      EXPECT_EQ(packet.data, audio.packets.at(sound++).data);
    } else {
      EXPECT_EQ(packet.data, GyroSample({motion++, 0, 0}));
    }
  }
  EXPECT_EQ(pictures, video.packets.size());
  EXPECT_GE(sound, audio.packets.size() - 1) << "the edit list may cut the priming";
  EXPECT_EQ(motion, 30);
}

TEST_F(DemuxerTest, AnnexBFromTheStartIsReadUnfiltered) {
  H264Options options;
  options.annex_b = true;
  const EncodedStream video = EncodeH264(options);
  MuxWithLibavformat(PathOf("v.ts"), "mpegts", &video, nullptr, nullptr);
  const LogCapture log;
  Demuxer demuxer(PathOf("v.ts"));
  Demuxer unfiltered(PathOf("v.ts"));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  ASSERT_EQ(unfiltered.Open(nullptr, nullptr), 0);
  int end = 0;
  const std::vector<PacketCopy> packets = ReadAll(demuxer, &end);
  EXPECT_EQ(end, AVERROR_EOF);
  EXPECT_THAT(log.Lines(), IsEmpty());
  std::shared_ptr<QVXPacket> packet;
  for (const PacketCopy& expected : packets) {
    ASSERT_EQ(unfiltered.ReadPacket(packet), 0);
    EXPECT_EQ(Copy(*packet), expected);
  }
}

TEST_F(DemuxerTest, WithoutVideoTheEndIsPlain) {
  Demuxer demuxer(Write({MotionTrack(3)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  const LogCapture log;
  int end = 0;
  EXPECT_EQ(ReadAll(demuxer, &end).size(), 3U);
  EXPECT_EQ(end, AVERROR_EOF);
  std::shared_ptr<QVXPacket> packet = NewPacket();
  EXPECT_EQ(demuxer.NextPacket(packet), AVERROR_EOF);
  EXPECT_EQ(packet, nullptr);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(DemuxerTest, FilteredVideoAnnouncesTheEndOnceAndAgainAfterASeek) {
  Demuxer demuxer(Write({ToMp4Track(EncodeH264(), 90000)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  for (int round = 0; round < 2; ++round) {
    const LogCapture log;
    for (int i = 0; i < 3; ++i) {
      int end = 0;
      EXPECT_EQ(ReadAll(demuxer, &end).size(), i == 0 ? 30U : 0U);
      EXPECT_EQ(end, AVERROR_EOF);
    }
    EXPECT_THAT(log.Lines(), ElementsAre("VERBOSE av_toolbox/demuxer.cpp:224 ReadPacket eof."));
    EXPECT_GE(demuxer.Seek(-1, 0, AVSEEK_FLAG_BACKWARD), 0);
  }
}

TEST_F(DemuxerTest, ReadsFromAByteSourceThatCanSeekOrNot) {
  const std::string path =
      Write({ToMp4Track(EncodeH264(), 90000), MotionTrack(50)}, Mp4Order::kMoovFirst);
  Demuxer from_file(path);
  ASSERT_EQ(from_file.Open(nullptr, nullptr), 0);
  const std::vector<PacketCopy> expected = ReadAll(from_file);
  for (const bool seekable : {true, false}) {
    const auto source = std::make_shared<MemorySource>(ReadFile(path), seekable);
    const LogCapture log;
    Demuxer demuxer("no such file, and none is needed");
    ASSERT_EQ(demuxer.Open(nullptr, source), 0);
    EXPECT_EQ(log.Lines()[0], "INFO av_toolbox/demuxer.cpp:118 use custom iosource demux.");
    EXPECT_EQ(ReadAll(demuxer), expected) << "seekable: " << seekable;
    EXPECT_EQ(source->seeks > 0, seekable);
    EXPECT_EQ(source.use_count(), 2);
    demuxer.Close();
    EXPECT_EQ(source.use_count(), 1) << "Close gives the source back";
  }
  // An index that stands last is out of reach without seeking back.
  const auto source = std::make_shared<MemorySource>(ReadFile(Write({LongTrack()})), false);
  Demuxer demuxer("");
  ASSERT_EQ(demuxer.Open(nullptr, source), 0);
  int end = 0;
  EXPECT_THAT(ReadAll(demuxer, &end), IsEmpty());
  EXPECT_LT(end, 0);
  EXPECT_EQ(source->seeks, 0);
}

TEST_F(DemuxerTest, AFailingReadIsReportedAsItIs) {
  const Bytes content = ReadFile(Write({LongTrack()}, Mp4Order::kMoovFirst));
  const auto source = std::make_shared<MemorySource>(content);
  source->FailFrom(static_cast<int64_t>(content.size() / 2), AVERROR(EIO));
  Demuxer demuxer("");
  ASSERT_EQ(demuxer.Open(nullptr, source), 0);
  int end = 0;
  EXPECT_THAT(ReadAll(demuxer, &end).size(), AllOf(Ge(30U), Le(60U)));
  EXPECT_EQ(end, AVERROR(EIO));
  std::shared_ptr<QVXPacket> packet = NewPacket();
  EXPECT_LT(demuxer.ReadPacket(packet), 0);
  EXPECT_EQ(packet, nullptr);
}

void ExpectNoInput(Demuxer& demuxer) {
  EXPECT_EQ(demuxer.StreamCount(), 0U);
  EXPECT_EQ(demuxer.GetStream(0), nullptr);
  EXPECT_EQ(demuxer.VideoStream(), nullptr);
  EXPECT_EQ(demuxer.AudioStream(), nullptr);
  EXPECT_EQ(demuxer.DataStream(), nullptr);
  EXPECT_EQ(demuxer.VideoDurationMs(), -1);
  EXPECT_EQ(demuxer.AudioDurationMs(), -1);
  EXPECT_EQ(demuxer.MissingBytes(), 0);
  std::shared_ptr<QVXPacket> packet;
  EXPECT_EQ(demuxer.ReadPacket(packet), AVERROR(EINVAL));
  EXPECT_EQ(demuxer.NextPacket(packet), AVERROR(EINVAL));
  EXPECT_EQ(packet, nullptr);
  EXPECT_EQ(demuxer.Seek(-1, 0, 0), AVERROR(EINVAL));
  demuxer.DiscardStream(0);
}

TEST_F(DemuxerTest, OperationsWithoutAnOpenInputFail) {
  Demuxer never("x");
  ExpectNoInput(never);

  // The leak check of the sanitizer build watches the buffers; here, the source itself.
  const auto source = std::make_shared<MemorySource>(Bytes(1000, 'x'));
  const LogCapture log;
  Demuxer failed("");
  EXPECT_EQ(failed.Open(nullptr, source), AVERROR_INVALIDDATA);
  EXPECT_EQ(log.Lines().back(),
            "ERROR av_toolbox/demuxer.cpp:156 avformat open input error:Invalid data found when "
            "processing input");
  EXPECT_EQ(source.use_count(), 1);
  ExpectNoInput(failed);

  Demuxer closed(Write({ToMp4Track(EncodeH264(), 90000), MotionTrack(3)}));
  ASSERT_EQ(closed.Open(nullptr, nullptr), 0);
  EXPECT_EQ(closed.Open(nullptr, nullptr), AVERROR(EINVAL)) << "one input per object";
  closed.Close();
  closed.Close();
  ExpectNoInput(closed);
  EXPECT_EQ(closed.Open(nullptr, nullptr), AVERROR(EINVAL));
}

TEST_F(DemuxerTest, AvcWithoutAWholeConfigurationIsReadUnconverted) {
  for (const Bytes& configuration : {Bytes{}, Bytes{1, 77, 64, 10, 255}}) {
    Mp4Track video = Mp4Track::Video(configuration, 64, 48, 90000);
    video.Add(Bytes{0, 0, 0, 1, 9}, 3000);
    const LogCapture log;
    Demuxer demuxer(Write({video}));
    EXPECT_EQ(demuxer.Open(nullptr, nullptr), configuration.empty() ? 0 : AVERROR_INVALIDDATA);
    EXPECT_EQ(demuxer.VideoStream()->codecpar->codec_id, AV_CODEC_ID_H264);
    const size_t read = ReadAll(demuxer).size();  // must not crash
    if (configuration.empty()) {
      EXPECT_EQ(read, 1U);
      EXPECT_THAT(log.Lines("av_toolbox/bsf_filter.cpp"), IsEmpty());
    }
  }
}

TEST_F(DemuxerTest, PassesOptionsToTheContainer) {
  const Demuxer::Options options{{"ignore_editlist", "1"}, {"unknown", "is no error"}};
  Demuxer demuxer(Write({ToMp4Track(EncodeH264(), 90000)}));
  ASSERT_EQ(demuxer.Open(&options, nullptr), 0);
  EXPECT_EQ(ReadAll(demuxer).front().dts, 0) << "with the edit list it lies below zero";
}

TEST_F(DemuxerTest, DurationsAreMilliseconds) {
  AacOptions audio;
  audio.milliseconds = 500;
  Demuxer demuxer(Write({ToMp4Track(EncodeH264(), 90000), ToMp4Track(EncodeAac(audio), 48000)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  EXPECT_EQ(demuxer.VideoDurationMs(), 1000);
  EXPECT_THAT(demuxer.AudioDurationMs(), AllOf(Ge(500), Le(550)));

  // No duration in the file: FFmpeg marks it with a negative value.
  const EncodedStream video = EncodeH264();
  MuxWithLibavformat(PathOf("v.mkv"), "matroska", &video, nullptr, nullptr);
  Demuxer unknown(PathOf("v.mkv"));
  ASSERT_EQ(unknown.Open(nullptr, nullptr), 0);
  ASSERT_NE(unknown.VideoStream(), nullptr);
  EXPECT_EQ(unknown.VideoDurationMs(), -1);
  EXPECT_EQ(unknown.AudioDurationMs(), -1);
}

TEST_F(DemuxerTest, APacketThatSomebodyKeepsIsLeftAlone) {
  Demuxer demuxer(Write({MotionTrack(3)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  std::shared_ptr<QVXPacket> packet;
  ASSERT_EQ(demuxer.NextPacket(packet), 0);
  const std::shared_ptr<QVXPacket> kept = packet;
  const PacketCopy before = Copy(*kept);
  ASSERT_EQ(demuxer.NextPacket(packet), 0);
  EXPECT_EQ(packet->dts, 20);
  demuxer.Close();
  EXPECT_EQ(Copy(*kept), before) << "a packet outlives its input";
}

TEST_F(DemuxerTest, ADiscardedStreamIsSkipped) {
  AacOptions audio;
  audio.milliseconds = 30'000;  // more than probing buffers
  Demuxer demuxer(Write({ToMp4Track(EncodeAac(audio), 48000), MotionTrack(50)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  demuxer.DiscardStream(0);
  demuxer.DiscardStream(99);
  size_t sound = 0;
  size_t motion = 0;
  for (const PacketCopy& packet : ReadAll(demuxer)) ++(packet.stream == 1 ? motion : sound);
  EXPECT_EQ(motion, 50U);
  EXPECT_LT(sound, 1000U) << "of 1407";

  // Broken pictures that probing has buffered come out unfiltered, and end nothing.
  Mp4Track broken = Mp4Track::Video(EncodeH264().extradata(), 64, 48, 1000);
  for (int i = 0; i < 5; ++i) broken.Add(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 1}, 20);
  Demuxer beside_broken(Write({broken, MotionTrack(50)}));
  ASSERT_EQ(beside_broken.Open(nullptr, nullptr), 0);
  beside_broken.DiscardStream(0);
  motion = 0;
  for (const PacketCopy& packet : ReadAll(beside_broken)) motion += packet.stream == 1 ? 1 : 0;
  EXPECT_EQ(motion, 50U);
}

}  // namespace
}  // namespace lum
