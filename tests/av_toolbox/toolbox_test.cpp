// The factories and the bitstream filter.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "av_toolbox/bsf_filter.h"
#include "av_toolbox/codec_util.h"
#include "av_toolbox/filter_util.h"
#include "av_toolbox/packet_util.h"
#include "support/av_encode.h"
#include "support/record_log.h"

namespace lum {
namespace {

using ::motrace::testing::Bytes;
using ::motrace::testing::EncodedStream;
using ::motrace::testing::EncodeH264;
using ::motrace::testing::LoggedRecord;
using ::motrace::testing::RecordLog;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::is_same_v<QVXPacket, AVPacket>);

// A stream with the encoder's parameters, `extradata` in place of its own.
std::shared_ptr<AVStream> StreamOf(const EncodedStream& encoded, const Bytes& extradata) {
  std::shared_ptr<AVStream> stream = NewAVStream();
  avcodec_parameters_copy(stream->codecpar, encoded.parameters.get());
  av_freep(static_cast<void*>(&stream->codecpar->extradata));
  stream->codecpar->extradata =
      static_cast<uint8_t*>(av_mallocz(extradata.size() + size_t{AV_INPUT_BUFFER_PADDING_SIZE}));
  std::copy(extradata.begin(), extradata.end(), stream->codecpar->extradata);
  stream->codecpar->extradata_size = static_cast<int>(extradata.size());
  stream->time_base = {1, 600};
  return stream;
}

TEST(PacketTest, IsEmptyAndUntimed) {
  const auto packet = NewPacket();
  EXPECT_EQ(packet->pts, AV_NOPTS_VALUE);
  EXPECT_EQ(packet->dts, AV_NOPTS_VALUE);
  EXPECT_EQ(packet->pos, -1);
  EXPECT_EQ(packet->buf, nullptr);
  EXPECT_EQ(packet->data, nullptr);
  EXPECT_EQ(packet->size, 0);
  EXPECT_EQ(packet->flags, 0);
}

TEST(PacketTest, ItsPayloadGoesWithItsLastOwner) {
  int freed = 0;
  auto packet = NewPacket();
  packet->buf = av_buffer_create(
      static_cast<uint8_t*>(av_malloc(8)), 8,
      [](void* count, uint8_t* data) {
        ++*static_cast<int*>(count);
        av_free(data);
      },
      &freed, 0);
  auto second_owner = packet;
  packet.reset();
  EXPECT_EQ(freed, 0);
  second_owner.reset();
  EXPECT_EQ(freed, 1);
}

TEST(AacPacketTest, CarriesACopyOfTheFrame) {
  Bytes frame{1, 2, 3, 4, 5};
  const auto packet = NewAACPacket(frame.data(), 5, -4096, 7);
  frame.assign(5, 0);
  EXPECT_THAT(Bytes(packet->data, packet->data + packet->size), ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(packet->buf->size, 5U) << "no padding";
  EXPECT_EQ(packet->pts, -4096);
  EXPECT_EQ(packet->dts, -4096);
  EXPECT_EQ(packet->flags, AV_PKT_FLAG_KEY);
  EXPECT_EQ(packet->stream_index, 7);
}

TEST(AacPacketTest, HasNoPayloadWithoutBytes) {
  const uint8_t byte = 1;
  for (const auto& packet : {NewAACPacket(nullptr, 0, 48, 2), NewAACPacket(nullptr, 9, 48, 2),
                             NewAACPacket(&byte, 0, 48, 2)}) {
    EXPECT_EQ(packet->buf, nullptr);
    EXPECT_EQ(packet->data, nullptr);
    EXPECT_EQ(packet->size, 0);
    EXPECT_EQ(packet->pts, 48);
    EXPECT_EQ(packet->dts, 48);
    EXPECT_EQ(packet->flags, AV_PKT_FLAG_KEY);
    EXPECT_EQ(packet->stream_index, 2);
  }
}

TEST(AacStreamTest, DescribesTheTrack) {
  const Bytes extradata{0x11, 0x90};
  const auto stream = NewAACStream(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 2, 48000,
                                   extradata.data(), 2, {1, 44100});
  const AVCodecParameters& par = *stream->codecpar;
  EXPECT_EQ(par.codec_type, AVMEDIA_TYPE_AUDIO);
  EXPECT_EQ(par.codec_id, AV_CODEC_ID_AAC);
  EXPECT_EQ(par.format, AV_SAMPLE_FMT_FLTP);
  EXPECT_EQ(par.ch_layout.u.mask, uint64_t{AV_CH_LAYOUT_STEREO});
  EXPECT_EQ(par.ch_layout.nb_channels, 2);
  EXPECT_EQ(par.sample_rate, 48000);
  EXPECT_EQ(par.frame_size, 1024);
  EXPECT_EQ(stream->time_base.den, 44100);
  ASSERT_EQ(par.extradata_size, 2);
  EXPECT_THAT(Bytes(par.extradata, par.extradata + 6), ElementsAre(0x11, 0x90, 0, 0, 0, 0));
}

TEST(AacStreamTest, HasPaddingForExtradataEvenWithoutAny) {
  const auto stream =
      NewAACStream(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 2, 48000, nullptr, 0, {1, 48000});
  EXPECT_EQ(stream->codecpar->extradata_size, 0);
  ASSERT_NE(stream->codecpar->extradata, nullptr);
  EXPECT_THAT(Bytes(stream->codecpar->extradata, stream->codecpar->extradata + 32),
              ::testing::Each(0));
  EXPECT_EQ(stream->codecpar->frame_size, 1024);
}

TEST(BsfFilterTest, AnnouncesSuccessAtErrorLevel) {
  const EncodedStream video = EncodeH264();
  const auto stream = StreamOf(video, video.extradata());
  const RecordLog log;
  BSFFilter filter;
  EXPECT_EQ(filter.Context(), nullptr);
  EXPECT_EQ(filter.Open("h264_mp4toannexb", stream.get()), 0);
  EXPECT_THAT(log.Records(),
              ElementsAre(LoggedRecord{"ERROR", "av_toolbox/bsf_filter.cpp:18", "bsf_init ret:0"}));
  ASSERT_NE(filter.Context(), nullptr);
  EXPECT_EQ(filter.Context()->time_base_in.den, 600);
  EXPECT_THAT(Bytes(filter.Context()->par_out->extradata, filter.Context()->par_out->extradata + 4),
              ElementsAre(0, 0, 0, 1));
}

TEST(BsfFilterTest, HasNoContextForAnUnknownName) {
  const auto stream = NewAVStream();
  const RecordLog log;
  BSFFilter filter;
  EXPECT_EQ(filter.Open("no_such_filter", stream.get()), -1);
  EXPECT_EQ(filter.Context(), nullptr);
  EXPECT_EQ(NewAVBSFContext("no_such_filter", stream.get()), nullptr);
  EXPECT_THAT(log.Records(), IsEmpty());
}

TEST(BsfFilterTest, SaysWhyItCouldNotBeInitialised) {
  const auto stream = StreamOf(EncodeH264(), {1, 2, 3, 4, 5, 6});  // an avcC record cut short
  const RecordLog log;
  BSFFilter filter;
  EXPECT_EQ(filter.Open("h264_mp4toannexb", stream.get()), AVERROR_INVALIDDATA);
  EXPECT_NE(filter.Context(), nullptr);
  const std::string code = std::to_string(AVERROR_INVALIDDATA);
  const LoggedRecord failed{"ERROR", "av_toolbox/bsf_filter.cpp:16",
                            "bsf_init failed:" + code + "Invalid data found when processing input"};
  const LoggedRecord result{"ERROR", "av_toolbox/bsf_filter.cpp:18", "bsf_init ret:" + code};
  const auto records = log.Records();
  ASSERT_GE(records.size(), 2U);
  EXPECT_EQ(records[records.size() - 2], failed);
  EXPECT_EQ(records.back(), result);
}

TEST(BsfFilterTest, RefusesPacketsWhileItIsNotOpen) {
  BSFFilter filter;
  EXPECT_EQ(filter.SendPacket(NewPacket()), AVERROR(EINVAL));
  EXPECT_EQ(filter.ReceivePacket(NewPacket()), AVERROR(EINVAL));
}

TEST(BsfFilterDeathTest, EndsTheProcessWhenParametersCannotBeCopied) {
  const auto stream = NewAVStream();
  stream->codecpar->extradata = static_cast<uint8_t*>(av_mallocz(64));
  stream->codecpar->extradata_size = 1 << 30;
  // FFmpeg refuses allocations above its limit.
  EXPECT_EXIT(
      {
        av_max_alloc(1024);
        GetLogSink().use_stderr = true;
        NewAVBSFContext("null", stream.get());
      },
      ::testing::ExitedWithCode(1),
      R"(\[Check failed \(avcodec_parameters_copy\(ctx->par_in, st->codecpar\) >= 0\) )"
      R"(av_toolbox/filter_util.cpp:15\])");
}

TEST(AllocationDeathTest, EndsTheProcessWithoutMemoryForAPacketOrParameters) {
  const auto without_memory = [] {
    av_max_alloc(33);  // less than any FFmpeg object
    GetLogSink().use_stderr = true;
  };
  EXPECT_EXIT(
      {
        without_memory();
        NewPacket();
      },
      ::testing::ExitedWithCode(1),
      R"(\[Check failed \(packet != nullptr\) av_toolbox/packet_util.cpp:34\])"
      "malloc AVPacket return nullptr");
  EXPECT_EXIT(
      {
        without_memory();
        NewAVCodecParameters();
      },
      ::testing::ExitedWithCode(1),
      R"(\[Check failed \(par != nullptr\) av_toolbox/codec_util.cpp:34\])");
}

}  // namespace
}  // namespace lum
