#include "av_toolbox/demuxer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/ffmpeg_util.h"
#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/memory_source.h"
#include "support/mp4_writer.h"
#include "support/record_log.h"
#include "support/temp_dir.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::Not;

LoggedRecord DemuxerRecord(const char* level, int line, const std::string& text) {
  return {level, "av_toolbox/demuxer.cpp:" + std::to_string(line), text};
}

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

constexpr int kSps = 7;
constexpr int kPps = 8;

// NAL units behind 4-byte lengths, or behind start codes; without parameter sets.
std::vector<Bytes> SliceUnits(const Bytes& data, bool annex_b) {
  std::vector<Bytes> units;
  const auto at = [&](size_t i) { return data.begin() + static_cast<std::ptrdiff_t>(i); };
  const auto keep = [&](size_t begin, size_t end) {
    const int type = data.at(begin) & 0x1F;
    if (type != kSps && type != kPps) units.emplace_back(at(begin), at(end));
  };
  if (!annex_b) {
    for (size_t i = 0; i < data.size();) {
      const size_t size = size_t{data.at(i)} << 24 | size_t{data.at(i + 1)} << 16 |
                          size_t{data.at(i + 2)} << 8 | data.at(i + 3);
      keep(i + 4, i + 4 + size);
      i += 4 + size;
    }
    return units;
  }
  size_t begin = 0;
  for (size_t i = 0; i + 3 <= data.size(); ++i) {
    if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
    if (begin != 0) keep(begin, i > 0 && data[i - 1] == 0 ? i - 1 : i);
    begin = i + 3;
  }
  if (begin != 0) keep(begin, data.size());
  return units;
}

Mp4Track MotionTrack(int samples, uint32_t timescale = 1000, uint32_t duration = 20) {
  Mp4Track track = Mp4Track::Camm(timescale);
  for (int i = 0; i < samples; ++i) track.Add(GyroSample({static_cast<float>(i), 0, 0}), duration);
  return track;
}

class DemuxerTest : public ::testing::Test {
 protected:
  DemuxerTest() { InitFFmpeg(); }

  std::string Write(const std::vector<Mp4Track>& tracks, const Mp4Layout& layout = {}) {
    const auto path = directory_ / "input.mp4";
    WriteMp4(path, tracks, layout);
    return path;
  }
  [[nodiscard]] std::string PathOf(const std::string& name) const { return directory_ / name; }

  TempDir directory_;
};

TEST_F(DemuxerTest, AvcInMp4LeavesAsAnnexB) {
  const EncodedStream video = EncodeH264();
  const RecordLog log;
  Demuxer demuxer(Write({ToMp4Track(video, 90000), MotionTrack(30)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  EXPECT_THAT(
      log.Records(),
      ElementsAre(DemuxerRecord("VERBOSE", 148, "check is mp4 format, need filter to annexb"),
                  LoggedRecord{"ERROR", "av_toolbox/bsf_filter.cpp:18", "bsf_init ret:0"}));
  const AVCodecParameters& par = *demuxer.VideoStream()->codecpar;
  EXPECT_THAT(Bytes(par.extradata, par.extradata + 4), ElementsAre(0, 0, 0, 1));
  EXPECT_EQ(demuxer.VideoStream()->time_base.den, 90000);

  std::vector<PacketCopy> pictures;
  for (PacketCopy& packet : ReadAll(demuxer)) {
    if (packet.stream == 0) pictures.push_back(std::move(packet));
  }
  ASSERT_EQ(pictures.size(), video.packets.size());
  for (size_t i = 0; i < pictures.size(); ++i) {
    EXPECT_EQ(SliceUnits(pictures[i].data, true), SliceUnits(video.packets[i].data, false)) << i;
    EXPECT_EQ(pictures[i].dts, video.packets[i].dts * 3000) << i;
    EXPECT_EQ(pictures[i].pts, video.packets[i].pts * 3000) << i;
  }
}

TEST_F(DemuxerTest, AnnexBFromTheStartIsReadUnfiltered) {
  H264Options options;
  options.annex_b = true;
  const EncodedStream video = EncodeH264(options);
  const EncodedStream audio = EncodeAac();
  MuxWithLibavformat(PathOf("v.ts"), "mpegts", &video, &audio, nullptr);
  const RecordLog log;
  Demuxer demuxer(PathOf("v.ts"));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  int end = 0;
  const std::vector<PacketCopy> packets = ReadAll(demuxer, &end);
  EXPECT_EQ(end, AVERROR_EOF);
  EXPECT_THAT(log.Records(), IsEmpty());

  Demuxer unfiltered(PathOf("v.ts"));
  ASSERT_EQ(unfiltered.Open(nullptr, nullptr), 0);
  std::shared_ptr<QVXPacket> packet;
  for (const PacketCopy& expected : packets) {
    ASSERT_EQ(unfiltered.ReadPacket(packet), 0);
    EXPECT_EQ(Copy(*packet), expected);
  }
}

TEST_F(DemuxerTest, WithoutVideoTheEndIsPlain) {
  Demuxer demuxer(Write({MotionTrack(3)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  const RecordLog log;
  int end = 0;
  EXPECT_EQ(ReadAll(demuxer, &end).size(), 3U);
  EXPECT_EQ(end, AVERROR_EOF);
  std::shared_ptr<QVXPacket> packet = NewPacket();
  EXPECT_EQ(demuxer.NextPacket(packet), AVERROR_EOF);
  EXPECT_EQ(packet, nullptr);
  EXPECT_THAT(log.Records(), IsEmpty());
  EXPECT_EQ(demuxer.VideoStream(), nullptr);
  EXPECT_EQ(demuxer.AudioStream(), nullptr);
  EXPECT_EQ(demuxer.VideoDurationMs(), -1);
  EXPECT_EQ(demuxer.AudioDurationMs(), -1);
}

TEST_F(DemuxerTest, FilteredVideoAnnouncesTheEndOnceAndAgainAfterASeek) {
  Demuxer demuxer(Write({ToMp4Track(EncodeH264(), 90000)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  const LoggedRecord at_end = DemuxerRecord("VERBOSE", 224, "ReadPacket eof.");
  for (int round = 0; round < 2; ++round) {
    const RecordLog log;
    for (int i = 0; i < 3; ++i) {
      int end = 0;
      EXPECT_EQ(ReadAll(demuxer, &end).size(), i == 0 ? 30U : 0U);
      EXPECT_EQ(end, AVERROR_EOF);
    }
    EXPECT_THAT(log.Records(), ElementsAre(at_end)) << "round " << round;
    EXPECT_GE(demuxer.Seek(-1, 0, AVSEEK_FLAG_BACKWARD), 0);
  }
}

TEST_F(DemuxerTest, OtherStreamsBypassTheFilter) {
  const EncodedStream audio = EncodeAac();
  Demuxer demuxer(
      Write({ToMp4Track(EncodeH264(), 90000), ToMp4Track(audio, 48000), MotionTrack(50)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  size_t sound = 0;
  float motion = 0;
  for (const PacketCopy& packet : ReadAll(demuxer)) {
    if (packet.stream == 1) {
      ASSERT_LT(sound, audio.packets.size());
      EXPECT_EQ(packet.data, audio.packets[sound].data);
      ++sound;
    } else if (packet.stream == 2) {
      EXPECT_EQ(packet.data, GyroSample({motion, 0, 0}));
      ++motion;
    }
  }
  EXPECT_EQ(motion, 50);
  EXPECT_GE(sound, audio.packets.size() - 1) << "the edit list may cut the priming";
}

TEST_F(DemuxerTest, ReadsFromAByteSource) {
  const std::vector<Mp4Track> tracks{ToMp4Track(EncodeH264(), 90000), MotionTrack(50)};
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  const std::string path = Write(tracks, layout);
  Demuxer from_file(path);
  ASSERT_EQ(from_file.Open(nullptr, nullptr), 0);
  const std::vector<PacketCopy> expected = ReadAll(from_file);

  for (const bool seekable : {true, false}) {
    const auto source = std::make_shared<MemorySource>(ReadFile(path), seekable);
    const RecordLog log;
    {
      Demuxer demuxer("no such file, and none is needed");
      ASSERT_EQ(demuxer.Open(nullptr, source), 0);
      EXPECT_EQ(log.Records().front(), DemuxerRecord("INFO", 118, "use custom iosource demux."));
      EXPECT_EQ(ReadAll(demuxer), expected) << "seekable: " << seekable;
      EXPECT_EQ(source.use_count(), 2);
      demuxer.Close();
      EXPECT_EQ(source.use_count(), 1) << "Close gives the source back";
    }
    EXPECT_EQ(source->seeks > 0, seekable);
  }
}

TEST_F(DemuxerTest, ASourceThatCannotSeekIsReadFrontToBack) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < 100; ++i) track.Add(Bytes(2000, 1), 10);
  const auto source = std::make_shared<MemorySource>(ReadFile(Write({track})), /*seekable=*/false);
  Demuxer demuxer("");
  // The index stands last: without seeking back there is nothing to read.
  ASSERT_EQ(demuxer.Open(nullptr, source), 0);
  int end = 0;
  EXPECT_THAT(ReadAll(demuxer, &end), IsEmpty());
  EXPECT_LT(end, 0);
  EXPECT_EQ(source->seeks, 0);
}

TEST_F(DemuxerTest, AFailingReadIsReportedAsItIs) {
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < 100; ++i) track.Add(Bytes(2000, 1), 10);
  const Bytes content = ReadFile(Write({track}, layout));
  const auto source = std::make_shared<MemorySource>(content);
  source->FailFrom(static_cast<int64_t>(content.size() / 2), AVERROR(EIO));
  Demuxer demuxer("");
  ASSERT_EQ(demuxer.Open(nullptr, source), 0);
  int end = 0;
  const size_t read = ReadAll(demuxer, &end).size();
  EXPECT_EQ(end, AVERROR(EIO));
  EXPECT_THAT(read, AllOf(Ge(30U), Le(60U)));
  std::shared_ptr<QVXPacket> packet = NewPacket();
  EXPECT_LT(demuxer.ReadPacket(packet), 0);
  EXPECT_EQ(packet, nullptr);
}

// The leak check of the sanitizer build watches the buffers; here, the source itself.
TEST_F(DemuxerTest, AFailedOpenKeepsNothing) {
  const auto source = std::make_shared<MemorySource>(Bytes(1000, 'x'));
  const RecordLog log;
  Demuxer demuxer("");
  const int result = demuxer.Open(nullptr, source);
  EXPECT_EQ(result, AVERROR_INVALIDDATA);
  EXPECT_EQ(log.Records().back(),
            DemuxerRecord("ERROR", 156,
                          "avformat open input error:Invalid data found when processing input"));
  EXPECT_EQ(source.use_count(), 1);
}

void ExpectNoInput(Demuxer& demuxer) {
  EXPECT_EQ(demuxer.StreamCount(), 0U);
  EXPECT_EQ(demuxer.GetStream(0), nullptr);
  EXPECT_EQ(demuxer.VideoStream(), nullptr);
  EXPECT_EQ(demuxer.AudioStream(), nullptr);
  EXPECT_EQ(demuxer.DataStream(), nullptr);
  EXPECT_EQ(demuxer.VideoDurationMs(), -1);
  EXPECT_EQ(demuxer.AudioDurationMs(), -1);
  std::shared_ptr<QVXPacket> packet;
  EXPECT_EQ(demuxer.ReadPacket(packet), AVERROR(EINVAL));
  EXPECT_EQ(demuxer.NextPacket(packet), AVERROR(EINVAL));
  EXPECT_EQ(packet, nullptr);
  EXPECT_EQ(demuxer.Seek(-1, 0, 0), AVERROR(EINVAL));
  demuxer.DiscardStream(0);
}

TEST_F(DemuxerTest, OperationsWithoutAnOpenInputFail) {
  {
    SCOPED_TRACE("never opened");
    Demuxer demuxer("x");
    ExpectNoInput(demuxer);
  }
  {
    SCOPED_TRACE("failed to open");
    Demuxer demuxer(PathOf("missing.mp4"));
    EXPECT_EQ(demuxer.Open(nullptr, nullptr), AVERROR(ENOENT));
    ExpectNoInput(demuxer);
  }
  {
    SCOPED_TRACE("closed, twice");
    Demuxer demuxer(Write({ToMp4Track(EncodeH264(), 90000), MotionTrack(3)}));
    ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
    EXPECT_EQ(demuxer.Open(nullptr, nullptr), AVERROR(EINVAL)) << "one input per object";
    demuxer.Close();
    demuxer.Close();
    ExpectNoInput(demuxer);
    EXPECT_EQ(demuxer.Open(nullptr, nullptr), AVERROR(EINVAL));
  }
}

TEST_F(DemuxerTest, AvcWithoutItsConfigurationIsReadUnfiltered) {
  Mp4Track video = Mp4Track::Video(/*avcc=*/{}, 64, 48, 90000);
  video.Add(Bytes{0, 0, 0, 1, 9}, 3000);
  const RecordLog log;
  Demuxer demuxer(Write({video}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  ASSERT_NE(demuxer.VideoStream(), nullptr);
  EXPECT_EQ(demuxer.VideoStream()->codecpar->codec_id, AV_CODEC_ID_H264);
  EXPECT_EQ(ReadAll(demuxer).size(), 1U);
  EXPECT_THAT(
      log.Records(),
      Not(Contains(DemuxerRecord("VERBOSE", 148, "check is mp4 format, need filter to annexb"))));
}

TEST_F(DemuxerTest, ABrokenConfigurationFailsToOpenAndReadsOnUnconverted) {
  Mp4Track video = Mp4Track::Video({1, 77, 64, 10, 255}, 64, 48, 90000);
  video.Add(Bytes{0, 0, 0, 1, 9}, 3000);
  Demuxer demuxer(Write({video}));
  EXPECT_EQ(demuxer.Open(nullptr, nullptr), AVERROR_INVALIDDATA);
  ReadAll(demuxer);  // must not crash
}

TEST_F(DemuxerTest, PassesOptionsToTheContainer) {
  const std::string path = Write({ToMp4Track(EncodeH264(), 90000)});
  const Demuxer::Options options{{"ignore_editlist", "1"}, {"unknown", "is no error"}};
  Demuxer demuxer(path);
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
}

TEST_F(DemuxerTest, APacketThatSomebodyKeepsIsLeftAlone) {
  Demuxer demuxer(Write({MotionTrack(3)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  std::shared_ptr<QVXPacket> packet;
  ASSERT_EQ(demuxer.NextPacket(packet), 0);
  const std::shared_ptr<QVXPacket> kept = packet;
  const PacketCopy before = Copy(*kept);
  ASSERT_EQ(demuxer.NextPacket(packet), 0);
  EXPECT_NE(packet, kept);
  EXPECT_EQ(Copy(*kept), before);
  EXPECT_EQ(packet->dts, 20);
  demuxer.Close();
  EXPECT_EQ(Copy(*kept), before) << "a packet outlives its input";
}

TEST_F(DemuxerTest, ADiscardedStreamIsSkipped) {
  Demuxer demuxer(Write({ToMp4Track(EncodeAac(), 48000), MotionTrack(50)}));
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  demuxer.DiscardStream(0);
  demuxer.DiscardStream(99);
  size_t motion = 0;
  for (const PacketCopy& packet : ReadAll(demuxer)) motion += packet.stream == 1 ? 1 : 0;
  EXPECT_EQ(motion, 50U);
}

}  // namespace
}  // namespace lum
