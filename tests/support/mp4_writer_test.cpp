// The fixtures are only worth something when a real demuxer reads back what they were told to
// write: every layout is opened with libavformat and compared packet by packet.

#include "support/mp4_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/temp_dir.h"

namespace motrace::testing {
namespace {

using ::testing::ElementsAre;

struct ReadPacket {
  std::int64_t pts;
  std::int64_t dts;
  Bytes data;

  friend bool operator==(const ReadPacket& a, const ReadPacket& b) {
    return a.pts == b.pts && a.dts == b.dts && a.data == b.data;
  }
  friend std::ostream& operator<<(std::ostream& out, const ReadPacket& packet) {
    return out << "{pts " << packet.pts << ", dts " << packet.dts << ", " << packet.data.size()
               << " bytes}";
  }
};

struct CloseInput {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using Input = std::unique_ptr<AVFormatContext, CloseInput>;

Input Open(const std::filesystem::path& path) {
  AVFormatContext* context = nullptr;
  EXPECT_EQ(avformat_open_input(&context, path.c_str(), nullptr, nullptr), 0);
  EXPECT_GE(avformat_find_stream_info(context, nullptr), 0);
  return Input(context);
}

/// Every packet, by stream.
std::vector<std::vector<ReadPacket>> ReadPackets(AVFormatContext* input) {
  std::vector<std::vector<ReadPacket>> streams(input->nb_streams);
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(input, packet) >= 0) {
    streams[static_cast<std::size_t>(packet->stream_index)].push_back(
        {packet->pts, packet->dts, Bytes(packet->data, packet->data + packet->size)});
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  return streams;
}

std::vector<std::vector<ReadPacket>> ReadPackets(const std::filesystem::path& path) {
  return ReadPackets(Open(path).get());
}

/// Decode times summed up from the durations.
std::vector<ReadPacket> Expected(const std::vector<std::pair<Bytes, std::uint32_t>>& samples) {
  std::vector<ReadPacket> packets;
  std::int64_t time = 0;
  for (const auto& [payload, duration] : samples) {
    packets.push_back({time, time, payload});
    time += duration;
  }
  return packets;
}

std::vector<ReadPacket> Expected(const EncodedStream& stream, std::uint32_t timescale) {
  std::vector<ReadPacket> packets;
  const AVRational base{1, static_cast<int>(timescale)};
  for (const EncodedPacket& packet : stream.packets) {
    packets.push_back({av_rescale_q(packet.pts, stream.time_base, base),
                       av_rescale_q(packet.dts, stream.time_base, base), packet.data});
  }
  return packets;
}

struct LayoutCase {
  std::string name;
  Mp4Layout layout;
  std::uint32_t timescale;
};

std::ostream& operator<<(std::ostream& out, const LayoutCase& layout_case) {
  return out << layout_case.name;
}

class Mp4LayoutTest : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(Mp4LayoutTest, ReadsBackWithItsTimesAndBytes) {
  const auto& [name, layout, timescale] = GetParam();
  const EncodedStream video = EncodeH264();
  const EncodedStream audio = EncodeAac();

  std::mt19937 random(7);  // fixed: the same file in every run
  std::vector<std::pair<Bytes, std::uint32_t>> motion;
  for (int i = 0; i < 1500; ++i) {
    Bytes payload(1 + random() % 64);
    for (std::uint8_t& byte : payload) byte = static_cast<std::uint8_t>(random());
    motion.emplace_back(payload, timescale / 1000 * (random() % 3));
  }
  Mp4Track camm = Mp4Track::Camm(timescale);
  for (const auto& [payload, duration] : motion) camm.Add(payload, duration);

  const TempDir dir;
  WriteMp4(dir / "file.mp4", {ToMp4Track(video, 90000), ToMp4Track(audio, 48000), camm}, layout);
  const auto streams = ReadPackets(dir / "file.mp4");
  ASSERT_EQ(streams.size(), 3U);
  EXPECT_EQ(streams[0], Expected(video, 90000));
  EXPECT_EQ(streams[1], Expected(audio, 48000));
  EXPECT_EQ(streams[2], Expected(motion));
}

constexpr std::uint64_t kBeyond32Bits = 4500000000;

INSTANTIATE_TEST_SUITE_P(
    Layouts, Mp4LayoutTest,
    ::testing::Values(
        LayoutCase{"MoovLast", {Mp4Order::kMoovLast, 500, 1000, false, 0}, 1000},
        LayoutCase{"MoovFirst", {Mp4Order::kMoovFirst, 500, 1000, false, 0}, 90000},
        LayoutCase{"OneTrackAfterAnother", {Mp4Order::kMoovLast, 0, 1000, false, 0}, 90000},
        LayoutCase{"NanosecondTimescale", {Mp4Order::kMoovFirst, 100, 1000, false, 0}, 1000000000},
        LayoutCase{"Fragmented", {Mp4Order::kFragmented, 200, 1000, false, 0}, 90000},
        LayoutCase{"FragmentPerTrack", {Mp4Order::kFragmented, 0, 1000, false, 0}, 90000},
        LayoutCase{"WideOffsets", {Mp4Order::kMoovFirst, 500, 1000, true, 0}, 90000},
        LayoutCase{
            "Beyond4GiBMoovLast", {Mp4Order::kMoovLast, 500, 1000, false, kBeyond32Bits}, 90000},
        LayoutCase{
            "Beyond4GiBMoovFirst", {Mp4Order::kMoovFirst, 500, 1000, false, kBeyond32Bits}, 90000}),
    [](const auto& test) { return test.param.name; });

TEST(Mp4WriterTest, VideoIsDecodable) {
  const TempDir dir;
  H264Options options;
  options.frames = 40;
  WriteMp4(dir / "file.mp4", {ToMp4Track(EncodeH264(options), 600)});
  const Input input = Open(dir / "file.mp4");
  const AVCodecParameters* parameters = input->streams[0]->codecpar;
  AVCodecContext* decoder = avcodec_alloc_context3(avcodec_find_decoder(parameters->codec_id));
  avcodec_parameters_to_context(decoder, parameters);
  decoder->err_recognition = AV_EF_EXPLODE;
  ASSERT_EQ(avcodec_open2(decoder, nullptr, nullptr), 0);
  int frames = 0;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  bool more = true;
  while (more) {
    more = av_read_frame(input.get(), packet) >= 0;
    EXPECT_EQ(avcodec_send_packet(decoder, more ? packet : nullptr), 0);
    while (avcodec_receive_frame(decoder, frame) == 0) ++frames;
    av_packet_unref(packet);
  }
  EXPECT_EQ(frames, options.frames);
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&decoder);
}

/// A track of four one-byte samples, 100 ms apart.
Mp4Track FourSamples() {
  Mp4Track track = Mp4Track::Camm(1000);
  for (std::uint8_t i = 0; i < 4; ++i) track.Add(Bytes{i}, 100);
  return track;
}

std::vector<std::int64_t> PresentationTimes(const Mp4Track& track) {
  const TempDir dir;
  WriteMp4(dir / "file.mp4", {track});
  std::vector<std::int64_t> times;
  const auto streams = ReadPackets(dir / "file.mp4");
  for (const ReadPacket& packet : streams.at(0)) times.push_back(packet.pts);
  return times;
}

TEST(Mp4WriterTest, EditListsAndCompositionOffsetsReachTheDemuxer) {
  Mp4Track delayed = FourSamples();
  delayed.edits = {{250, -1, 1}, {400, 0, 1}};
  EXPECT_THAT(PresentationTimes(delayed), ElementsAre(250, 350, 450, 550));

  Mp4Track trimmed = FourSamples();
  trimmed.edits = {{200, 200, 1}};
  EXPECT_THAT(PresentationTimes(trimmed), ElementsAre(0, 100));

  Mp4Track offset = Mp4Track::Camm(1000);
  offset.Add(Bytes{1}, 100, 50);
  offset.Add(Bytes{2}, 100, -50);
  EXPECT_THAT(PresentationTimes(offset), ElementsAre(50, 50));
}

TEST(Mp4WriterTest, SamplesWithoutATimeEntryAreThereAllTheSame) {
  Mp4Track track = FourSamples();
  track.samples_without_time = 2;
  const TempDir dir;
  WriteMp4(dir / "file.mp4", {track});
  const auto streams = ReadPackets(dir / "file.mp4");
  ASSERT_EQ(streams.at(0).size(), 4U);
  EXPECT_EQ(streams[0][3].data, Bytes{3});
}

TEST(Mp4WriterTest, MediaDurationIsWhatTheTrackSays) {
  Mp4Track track = FourSamples();
  track.media_duration = 12345;
  const TempDir dir;
  WriteMp4(dir / "file.mp4", {track});
  EXPECT_EQ(Open(dir / "file.mp4")->streams[0]->duration, 12345);
}

TEST(Mp4WriterTest, HolesReadAsZerosAndTakeNoDisk) {
  constexpr std::uint32_t kHole = 8 << 20;
  Mp4Track track = Mp4Track::Data("meta", "vend", 1000);
  track.Add(Bytes{1, 2}, 100);
  track.AddHole(kHole, 100);
  const TempDir dir;
  WriteMp4(dir / "file.mp4", {track}, {Mp4Order::kMoovFirst});
  const auto streams = ReadPackets(dir / "file.mp4");
  EXPECT_THAT(streams.at(0),
              ElementsAre(ReadPacket{0, 0, Bytes{1, 2}}, ReadPacket{100, 100, Bytes(kHole, 0)}));
}

TEST(Mp4WriterTest, AMillionSamplesReadBack) {
  constexpr int kSamples = 1000000;
  Mp4Track track = Mp4Track::Camm(90000);
  const Bytes payload = GyroSample({1, 2, 3});
  for (int i = 0; i < kSamples; ++i) track.Add(payload, 90);
  const TempDir dir;
  WriteMp4(dir / "file.mp4", {track});
  const Input input = Open(dir / "file.mp4");
  EXPECT_EQ(input->streams[0]->nb_frames, kSamples);
  EXPECT_EQ(input->streams[0]->duration, 90LL * kSamples);
}

struct MuxerCase {
  std::string format;
  AVCodecID data_codec;
  const char* data_tag;
  std::map<std::string, std::string> options;
};

class MuxerTest : public ::testing::TestWithParam<MuxerCase> {};

TEST_P(MuxerTest, WritesWhatLibavformatReads) {
  const MuxerCase& muxer = GetParam();
  const EncodedStream video = EncodeH264();
  const EncodedStream audio = EncodeAac();
  DataStream data;
  data.codec_id = muxer.data_codec;
  if (muxer.data_tag != nullptr) {
    data.codec_tag =
        MKTAG(muxer.data_tag[0], muxer.data_tag[1], muxer.data_tag[2], muxer.data_tag[3]);
  }
  for (std::int64_t i = 0; i < 20; ++i) {
    data.packets.push_back({GyroSample({1, 2, static_cast<float>(i)}), i * 50, i * 50, 50, true});
  }
  const bool with_data = muxer.data_codec != AV_CODEC_ID_NONE;
  const TempDir dir;
  MuxWithLibavformat(dir / "file", muxer.format, &video, &audio, with_data ? &data : nullptr,
                     muxer.options);
  const auto streams = ReadPackets(dir / "file");
  ASSERT_EQ(streams.size(), with_data ? 3U : 2U);
  EXPECT_EQ(streams[0].size(), video.packets.size());
  EXPECT_EQ(streams[1].size(), audio.packets.size());
  if (with_data) {
    ASSERT_EQ(streams[2].size(), data.packets.size());
    EXPECT_EQ(streams[2].back().data, data.packets.back().data);
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, MuxerTest,
                         ::testing::Values(MuxerCase{"matroska", AV_CODEC_ID_NONE, nullptr, {}},
                                           MuxerCase{"mpegts", AV_CODEC_ID_SMPTE_KLV, nullptr, {}},
                                           MuxerCase{"mov", AV_CODEC_ID_BIN_DATA, "gpmd", {}},
                                           MuxerCase{"mp4",
                                                     AV_CODEC_ID_BIN_DATA,
                                                     "gpmd",
                                                     {{"movflags", "frag_keyframe+empty_moov"}}}),
                         [](const auto& test) { return test.param.format; });

}  // namespace
}  // namespace motrace::testing
