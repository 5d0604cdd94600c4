// The factories, the bitstream filter, and FFmpeg's set-up and messages.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "av_toolbox/bsf_filter.h"
#include "av_toolbox/codec_util.h"
#include "av_toolbox/ffmpeg_compat.h"
#include "av_toolbox/ffmpeg_util.h"
#include "av_toolbox/filter_util.h"
#include "av_toolbox/packet_util.h"
#include "av_toolbox/time_util.h"
#include "support/log_capture.h"
#include "support/samples.h"

namespace lum {
namespace {

using ::motrace::testing::Bytes;
using ::motrace::testing::EncodedStream;
using ::motrace::testing::EncodeH264;
using ::motrace::testing::LogCapture;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// An H.264 stream with these bytes as its extradata.
std::shared_ptr<AVStream> StreamOf(const EncodedStream& encoded, const Bytes& extradata) {
  auto stream =
      NewAACStream(0, 0, 0, 0, extradata.data(), static_cast<int>(extradata.size()), {1, 600});
  stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  stream->codecpar->codec_id = encoded.parameters->codec_id;
  return stream;
}

TEST(PacketTest, IsEmptyAndUntimed) {
  const auto packet = NewPacket();
  EXPECT_EQ(packet->pts, AV_NOPTS_VALUE);
  EXPECT_EQ(packet->dts, AV_NOPTS_VALUE);
  EXPECT_EQ(packet->pos, -1);
  EXPECT_EQ(packet->buf, nullptr);
  EXPECT_EQ(packet->size, 0);
}

TEST(AacPacketTest, CarriesACopyOfTheFrameOrNoPayload) {
  Bytes frame{1, 2, 3, 4, 5};
  const auto full = NewAACPacket(frame.data(), 5, -4096, 7);
  frame.assign(5, 0);
  EXPECT_THAT(Bytes(full->data, full->data + full->size), ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(full->buf->size, 5U) << "the padding is not counted";
  EXPECT_THAT(Bytes(full->data + 5, full->data + 5 + AV_INPUT_BUFFER_PADDING_SIZE), Each(0));
  const auto null = NewAACPacket(nullptr, 9, -4096, 7);
  const auto none = NewAACPacket(frame.data(), 0, -4096, 7);
  for (const auto& empty : {null, none}) {
    EXPECT_EQ(empty->buf, nullptr);
    EXPECT_EQ(empty->size, 0);
  }
  for (const auto& packet : {full, null, none}) {
    EXPECT_EQ(packet->pts, -4096);
    EXPECT_EQ(packet->dts, -4096);
    EXPECT_EQ(packet->flags, AV_PKT_FLAG_KEY);
    EXPECT_EQ(packet->stream_index, 7);
  }
}

TEST(RescaleTest, IsNothingInATimeBaseThatIsNotPositive) {
  for (const AVRational bad : {AVRational{0, 1000}, {1, 0}, {-1, 1000}, {1, -1000}}) {
    EXPECT_EQ(Rescale(1000, bad, kMicroseconds), 0) << bad.num << '/' << bad.den;
    EXPECT_EQ(Rescale(1000, kMicroseconds, bad), 0) << bad.num << '/' << bad.den;
  }
}

TEST(AacStreamTest, DescribesTheTrackWithPaddedExtradata) {
  for (const Bytes& extradata : {Bytes{0x11, 0x90}, Bytes{0x11}, Bytes{}}) {
    const auto stream =
        NewAACStream(AV_SAMPLE_FMT_FLTP, AV_CH_LAYOUT_STEREO, 2, 48000, extradata.data(),
                     static_cast<int>(extradata.size()), {1, 44100});
    const AVCodecParameters& par = *stream->codecpar;
    EXPECT_EQ(par.codec_type, AVMEDIA_TYPE_AUDIO);
    EXPECT_EQ(par.codec_id, AV_CODEC_ID_AAC);
    EXPECT_EQ(par.format, AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(par.ch_layout.u.mask, uint64_t{AV_CH_LAYOUT_STEREO});
    EXPECT_EQ(par.ch_layout.nb_channels, 2);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    EXPECT_EQ(par.channel_layout, uint64_t{AV_CH_LAYOUT_STEREO});
    EXPECT_EQ(par.channels, 2);
#pragma GCC diagnostic pop
    EXPECT_EQ(par.sample_rate, 48000);
    EXPECT_EQ(par.frame_size, 1024);
    EXPECT_EQ(stream->time_base.den, 44100);
    ASSERT_EQ(par.extradata_size, static_cast<int>(extradata.size()));
    Bytes padded = extradata;
    padded.resize(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    EXPECT_EQ(Bytes(par.extradata, par.extradata + padded.size()), padded);
  }
}

TEST(BsfFilterTest, AnnouncesSuccessAtErrorLevelAndSaysWhyItCouldNotBeInitialised) {
  const EncodedStream video = EncodeH264();
  const auto stream = StreamOf(video, video.extradata());
  const LogCapture log;
  BSFFilter unknown;
  EXPECT_EQ(unknown.Open("no_such_filter", stream.get()), -1);
  EXPECT_EQ(unknown.Context(), nullptr);
  EXPECT_THAT(log.Lines(), IsEmpty());
  BSFFilter filter;
  EXPECT_EQ(filter.Context(), nullptr);
  EXPECT_EQ(filter.SendPacket(NewPacket()), AVERROR(EINVAL)) << "not open";
  EXPECT_EQ(filter.ReceivePacket(NewPacket()), AVERROR(EINVAL));
  EXPECT_EQ(filter.Open("h264_mp4toannexb", stream.get()), 0);
  EXPECT_THAT(log.Lines(), ElementsAre("ERROR av_toolbox/bsf_filter.cpp:18 bsf_init ret:0"));
  const AVBSFContext& context = *filter.Context();
  EXPECT_EQ(context.time_base_in.den, 600);
  EXPECT_THAT(Bytes(context.par_out->extradata, context.par_out->extradata + 4),
              ElementsAre(0, 0, 0, 1));

  const auto cut = StreamOf(video, {1, 2, 3, 4, 5, 6});  // an avcC record cut short
  BSFFilter failing;
  EXPECT_EQ(failing.Open("h264_mp4toannexb", cut.get()), AVERROR_INVALIDDATA);
  EXPECT_NE(failing.Context(), nullptr);
  const std::string code = std::to_string(AVERROR_INVALIDDATA);
  EXPECT_THAT(log.Lines("av_toolbox/bsf_filter.cpp"),
              ElementsAre("ERROR av_toolbox/bsf_filter.cpp:18 bsf_init ret:0",
                          "ERROR av_toolbox/bsf_filter.cpp:16 bsf_init failed:" + code +
                              "Invalid data found when processing input",
                          "ERROR av_toolbox/bsf_filter.cpp:18 bsf_init ret:" + code));
}

// FFmpeg refuses allocations above its limit.
TEST(AllocationDeathTest, EndsTheProcessWithoutMemory) {
  const auto stream = NewAVStream();
  stream->codecpar->extradata = static_cast<uint8_t*>(av_mallocz(64));
  stream->codecpar->extradata_size = 1 << 30;
  const struct {
    size_t limit;
    std::function<void()> allocate;
    const char* check;
  } cases[] = {
      {1024, [&] { NewAVBSFContext("null", stream.get()); },
       R"(\(avcodec_parameters_copy\(ctx->par_in, st->codecpar\) >= 0\) )"
       R"(av_toolbox/filter_util.cpp:15\])"},
      {33, [] { NewPacket(); },
       R"(\(packet != nullptr\) av_toolbox/packet_util.cpp:34\])"
       "malloc AVPacket return nullptr"},
      {33, [] { NewAVCodecParameters(); }, R"(\(par != nullptr\) av_toolbox/codec_util.cpp:34\])"}};
  for (const auto& c : cases) {
    EXPECT_EXIT(
        {
          av_max_alloc(c.limit);
          GetLogSink().use_stderr = true;
          c.allocate();
        },
        ::testing::ExitedWithCode(1), std::string(R"(\[Check failed )") + c.check);
  }
}

// Set-up happens once in a process, so this looks at it in a process of its own.
TEST(FFmpegInitDeathTest, SetsUpOnceWhoeverCallsAndBridgesTheLog) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto set_up_and_look = [] {
    const LogCapture log;
    std::vector<std::thread> callers;
    callers.reserve(4);
    for (int i = 0; i < 4; ++i) callers.emplace_back(InitFFmpeg);
    for (std::thread& caller : callers) caller.join();
    InitFFmpeg();
    av_log(nullptr, AV_LOG_ERROR, "x\n");
    for (const std::string& line : log.Lines()) std::cerr << line << '\n';
    std::_Exit(0);
  };
  EXPECT_EXIT(set_up_and_look(), ::testing::ExitedWithCode(0),
              R"(^INFO av_toolbox/ffmpeg_util.cpp:22 ffmpeg init
ERROR av_toolbox/ffmpeg_util.cpp:14 FFmpeg:x

$)");
}

TEST(FFmpegLogTest, PassesErrorsAndWorseUpToALengthAndDropsTheRest) {
  InitFFmpeg();
  const LogCapture log;
  for (int level = AV_LOG_PANIC; level <= AV_LOG_TRACE; level += 8) {
    av_log(nullptr, level, "%s %d", "level", level);
  }
  av_log(nullptr, AV_LOG_ERROR, "%s", std::string(5000, 'a').c_str());
  const std::string error = "ERROR av_toolbox/ffmpeg_util.cpp:14 FFmpeg:";
  EXPECT_THAT(log.Lines(), ElementsAre(error + "level 0", error + "level 8", error + "level 16",
                                       error + std::string(1023, 'a')));
}

}  // namespace
}  // namespace lum
