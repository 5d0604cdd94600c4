#include "av_toolbox/demuxer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "av_toolbox/media_files.h"
#include "av_toolbox/packet_log.h"
#include "support/log_capture.h"
#include "support/memory_source.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using namespace ::testing;           // NOLINT(google-build-using-namespace): the matchers' names

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

class DemuxerTest : public MediaFileTest {
 protected:
  static std::unique_ptr<Demuxer> Open(const std::string& path,
                                       const std::shared_ptr<IOSource>& source = nullptr,
                                       const Demuxer::Options* options = nullptr) {
    auto demuxer = std::make_unique<Demuxer>(path);
    EXPECT_EQ(demuxer->Open(options, source), 0);
    return demuxer;
  }
};

TEST_F(DemuxerTest, AvcInMp4LeavesAsAnnexBAndOtherStreamsAsTheyAre) {
  const EncodedStream video = EncodeH264();
  const EncodedStream audio = EncodeAac();
  const LogCapture log;
  const auto demuxer =
      Open(Write({ToMp4Track(video, 90000), ToMp4Track(audio, 48000), GyroTrack(30)}));
  EXPECT_THAT(
      log.Lines(),
      ElementsAre("VERBOSE av_toolbox/demuxer.cpp:148 check is mp4 format, need filter to annexb",
                  "ERROR av_toolbox/bsf_filter.cpp:18 bsf_init ret:0"));
  const AVCodecParameters& par = *demuxer->VideoStream()->codecpar;
  EXPECT_THAT(Bytes(par.extradata, par.extradata + 4), ElementsAre(0, 0, 0, 1));
  EXPECT_EQ(demuxer->VideoStream()->time_base.den, 90000);

  size_t pictures = 0;
  size_t sound = 0;
  float motion = 0;
  for (const PacketCopy& packet : ReadAll(*demuxer).packets) {
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
  const std::string path = Mux("mpegts", EncodeH264(options));
  const LogCapture log;
  const PacketLog reading = ReadAll(*Open(path));
  EXPECT_THAT(reading.packets, SizeIs(30));
  EXPECT_EQ(reading.end, AVERROR_EOF);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(DemuxerTest, FilteredVideoAnnouncesTheEndOnceAndAgainAfterASeek) {
  for (const bool filtered : {true, false}) {
    const auto demuxer = Open(Write({filtered ? VideoTrack() : GyroTrack(30)}));
    std::vector<std::string> records;
    if (filtered) records = {"VERBOSE av_toolbox/demuxer.cpp:224 ReadPacket eof."};
    for (int round = 0; round < 2; ++round) {
      const LogCapture log;
      for (const size_t expected : {30U, 0U, 0U}) {
        const PacketLog reading = ReadAll(*demuxer);
        EXPECT_THAT(reading.packets, SizeIs(expected));
        EXPECT_EQ(reading.end, AVERROR_EOF);
      }
      EXPECT_THAT(log.Lines(), ElementsAreArray(records));
      EXPECT_GE(demuxer->Seek(-1, 0, AVSEEK_FLAG_BACKWARD), 0);
    }
  }
}

TEST_F(DemuxerTest, ReadsFromAByteSourceThatCanSeekOrNot) {
  const std::string path = Write({VideoTrack(), GyroTrack(50)}, Mp4Order::kMoovFirst);
  const PacketLog expected = ReadAll(*Open(path));
  for (const bool seekable : {true, false}) {
    const auto source = std::make_shared<MemorySource>(ReadFile(path), seekable);
    const LogCapture log;
    const auto demuxer = Open("no such file, and none is needed", source);
    EXPECT_EQ(log.Lines()[0], "INFO av_toolbox/demuxer.cpp:118 use custom iosource demux.");
    EXPECT_EQ(ReadAll(*demuxer).packets, expected.packets) << "seekable: " << seekable;
    EXPECT_EQ(source->seeks > 0, seekable);
    EXPECT_EQ(source.use_count(), 2);
    demuxer->Close();
    EXPECT_EQ(source.use_count(), 1) << "Close gives the source back";
  }
  // An index that stands last is out of reach without seeking back.
  const auto source = std::make_shared<MemorySource>(ReadFile(Write({LongTrack()})), false);
  const PacketLog nothing = ReadAll(*Open("", source));
  EXPECT_THAT(nothing.packets, IsEmpty());
  EXPECT_LT(nothing.end, 0);
  EXPECT_EQ(source->seeks, 0);
}

// The bytes of an input, told of in words.
Bytes BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

TEST_F(DemuxerTest, OpensAFileByItsNameWhateverThatLooksLike) {
  const Bytes content = ReadFile(Write({GyroTrack(3)}));
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(PathOf("."));
  std::filesystem::create_directories("http:/127.0.0.1");
  const char* const names[] = {"2024-05-01T10:00:00.mp4", "http:127.0.0.1:80?x.mp4",
                               "concat:other.mp4",        "subfile,,start,0,end,0,,:other.mp4",
                               "cache:other.mp4",         "rtsp:x.mp4",
                               "http://127.0.0.1/x.mp4"};
  for (const char* name : names) {
    WriteFile(name, content);
    Demuxer demuxer(name);
    EXPECT_EQ(demuxer.Open(nullptr, nullptr), 0) << name;
    EXPECT_THAT(ReadAll(demuxer).packets, SizeIs(3)) << name;
  }
  // Without the file only "scheme://" is an address.
  for (const char* name : {"file:input.mp4", "pipe:0", "rtsp:none", "concat:input.mp4", "none"}) {
    EXPECT_EQ(Demuxer(name).Open(nullptr, nullptr), AVERROR(ENOENT)) << name;
  }
  EXPECT_EQ(Demuxer("file://" + PathOf("input.mp4")).Open(nullptr, nullptr), 0);
  std::filesystem::current_path(before);
}

TEST_F(DemuxerTest, RefusesAListOfOtherFiles) {
  Write({GyroTrack(3)});
  const struct {
    const char* format;
    std::string text;
  } cases[] = {
      {"hls", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nlist\n"},
      {"hls", "#EXTM3U\n#EXT-X-TARGETDURATION:99999\n#EXTINF:99999,\ninput.mp4\n"},
      {"hls", "#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXTINF:9,\nfile://" + PathOf("input.mp4") +
                  "\n#EXT-X-ENDLIST\n"},
      {"concat", "ffconcat version 1.0\nfile input.mp4\n"},
      {"concat", "ffconcat version 1.0\nfile list\n"},
      {"sdp", "v=0\nc=IN IP4 127.0.0.1\nm=video 5004 RTP/AVP 96\na=rtpmap:96 H264/90000\n"},
      {"dash",
       "<?xml version='1.0'?><MPD xmlns='urn:mpeg:dash:schema:mpd:2011' type='static' "
       "profiles='urn:mpeg:dash:profile:isoff-live:2011' mediaPresentationDuration='PT99999999S'>"
       "<Period><AdaptationSet mimeType='video/mp4'><SegmentTemplate media='s$Number$' "
       "initialization='input.mp4' duration='1'/><Representation id='1' bandwidth='1'/>"
       "</AdaptationSet></Period></MPD>"},
  };
  for (const auto& c : cases) {
    WriteFile(PathOf("list"), BytesOf(c.text));
    for (const bool file : {true, false}) {
      Demuxer demuxer(PathOf("list"));
      const auto source = file ? nullptr : std::make_shared<MemorySource>(BytesOf(c.text));
      EXPECT_LT(demuxer.Open(nullptr, source), 0) << c.text;
      EXPECT_THAT(demuxer.InputProblem(), HasSubstr(std::string("(") + c.format)) << c.text;
    }
  }
}

TEST_F(DemuxerTest, RefusesFragmentsOfATrackWithoutNumber) {
  // A reading that FFmpeg does not survive for seconds would not end before the test's time limit.
  const auto hide = [](Bytes& content, const std::string& box, size_t at, uint8_t byte) {
    const auto found = std::search(content.begin(), content.end(), box.begin(), box.end());
    found[static_cast<std::ptrdiff_t>(at)] = byte;
  };
  const std::vector<Mp4Track> tracks{GyroTrack(300), GyroTrack(300)};
  const Bytes whole = ReadFile(Write(tracks, Mp4Order::kFragmented));
  Bytes no_header = whole;
  hide(no_header, "tkhd", 0, 'x');
  Bytes high_number = whole;
  hide(high_number, "tkhd", 24, 0x80);
  const Bytes gap = Concat({{0, 2, 0, 0}, BytesOf("free"), Bytes(0x20000 - 8)});
  const Bytes far = Concat({gap, no_header});
  const Bytes compressed = Concat({{0, 0, 0, 24},
                                   BytesOf("moov"),
                                   {0, 0, 0, 16},
                                   BytesOf("cmov"),
                                   {0, 0, 0, 12},
                                   BytesOf("dcomzlib"),
                                   whole});
  for (const Bytes& content : {no_header, high_number, far, compressed}) {
    for (const bool seekable : {true, false}) {
      Demuxer demuxer("");
      EXPECT_LT(demuxer.Open(nullptr, std::make_shared<MemorySource>(content, seekable)), 0);
      EXPECT_THAT(demuxer.InputProblem(),
                  AnyOf(HasSubstr("a track without a number"), HasSubstr("compressed")));
    }
  }
  EXPECT_THAT(ReadAll(*Open("", std::make_shared<MemorySource>(whole))).packets, SizeIs(600));
}

// A byte source that throws from one of its functions, and gives a byte at a time before that.
class ThrowingSource : public MemorySource {
 public:
  ThrowingSource(Bytes content, int calls) : MemorySource(std::move(content)), calls_(calls) {}
  int Read(uint8_t* buffer, int /*size*/) override {
    if (--calls_ < 0) throw std::runtime_error("no more");
    return MemorySource::Read(buffer, 1);
  }
  int64_t Seek(int64_t offset, int whence) override {
    if (calls_ < 0) throw 42;  // NOLINT(hicpp-exception-baseclass)
    return MemorySource::Seek(offset, whence);
  }

 private:
  int calls_;
};

TEST_F(DemuxerTest, AByteSourceMayThrow) {
  const Bytes content = ReadFile(Write({GyroTrack(9)}, Mp4Order::kMoovFirst));
  for (const int calls : {0, 40, static_cast<int>(content.size()) - 30}) {
    const LogCapture log;
    Demuxer demuxer("");
    int end = demuxer.Open(nullptr, std::make_shared<ThrowingSource>(content, calls));
    if (end == 0) end = ReadAll(demuxer).end;
    EXPECT_LT(end, 0) << calls;
    EXPECT_THAT(log.Lines("av_toolbox/byte_input.cpp"), Contains(HasSubstr("no more"))) << calls;
  }
}

TEST_F(DemuxerTest, AFailingReadIsReportedAsItIs) {
  const Bytes content = ReadFile(Write({LongTrack()}, Mp4Order::kMoovFirst));
  const auto source = std::make_shared<MemorySource>(content);
  source->fails_from = static_cast<int64_t>(content.size() / 2);
  const auto demuxer = Open("", source);
  const PacketLog reading = ReadAll(*demuxer);
  EXPECT_THAT(reading.packets, SizeIs(AllOf(Ge(30U), Le(60U))));
  EXPECT_EQ(reading.end, AVERROR(EIO));
  std::shared_ptr<QVXPacket> packet = NewPacket();
  EXPECT_LT(demuxer->ReadPacket(packet), 0);
  EXPECT_EQ(packet, nullptr);
  // FFmpeg takes it for the end of the file when it comes within the index.
  int refused = 0;
  for (int64_t offset = 0; offset < 1000; offset += 20) {
    const auto early = std::make_shared<MemorySource>(content);
    early->fails_from = offset;
    Demuxer unopened("");
    if (unopened.Open(nullptr, early) == 0) continue;
    ++refused;
    EXPECT_EQ(unopened.InputProblem(), "Input/output error") << offset;
  }
  EXPECT_GT(refused, 5);
}

void ExpectNoInput(Demuxer& demuxer) {
  EXPECT_EQ(demuxer.StreamCount(), 0U);
  for (const AVStream* stream :
       {demuxer.GetStream(0), demuxer.VideoStream(), demuxer.AudioStream(), demuxer.DataStream()}) {
    EXPECT_EQ(stream, nullptr);
  }
  EXPECT_EQ(demuxer.VideoDurationMs(), -1);
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

  const auto closed = Open(Write({VideoTrack(), GyroTrack(3)}));
  EXPECT_EQ(closed->Open(nullptr, nullptr), AVERROR(EINVAL)) << "one input per object";
  closed->Close();
  closed->Close();
  ExpectNoInput(*closed);
  EXPECT_EQ(closed->Open(nullptr, nullptr), AVERROR(EINVAL));
}

TEST_F(DemuxerTest, AvcWithoutAWholeConfigurationIsReadUnconverted) {
  for (const Bytes& configuration : {Bytes{}, Bytes{1, 77, 64, 10, 255}}) {
    Mp4Track video = Mp4Track::Video(configuration, 64, 48, 90000);
    video.Add(Bytes{0, 0, 0, 1, 9}, 3000);
    const LogCapture log;
    Demuxer demuxer(Write({video}));
    EXPECT_EQ(demuxer.Open(nullptr, nullptr), configuration.empty() ? 0 : AVERROR_INVALIDDATA);
    EXPECT_EQ(demuxer.VideoStream()->codecpar->codec_id, AV_CODEC_ID_H264);
    const PacketLog reading = ReadAll(demuxer);  // must not crash
    if (!configuration.empty()) continue;
    EXPECT_THAT(reading.packets, SizeIs(1));
    EXPECT_THAT(log.Lines("av_toolbox/bsf_filter.cpp"), IsEmpty());
  }
}

TEST_F(DemuxerTest, PassesOptionsToTheContainer) {
  const Demuxer::Options options{{"ignore_editlist", "1"}, {"unknown", "is no error"}};
  const PacketLog reading = ReadAll(*Open(Write({VideoTrack()}), nullptr, &options));
  EXPECT_EQ(reading.packets.front().dts, 0) << "with the edit list it lies below zero";
}

TEST_F(DemuxerTest, DurationsAreMilliseconds) {
  const auto known = Open(Write({VideoTrack(), AudioTrack(500)}));
  EXPECT_EQ(known->VideoDurationMs(), 1000);
  EXPECT_THAT(known->AudioDurationMs(), AllOf(Ge(500), Le(550)));
  // No duration in the file: FFmpeg marks it with a negative value.
  const auto unknown = Open(Mux("matroska", EncodeH264()));
  ASSERT_NE(unknown->VideoStream(), nullptr);
  EXPECT_EQ(unknown->VideoDurationMs(), -1);
  EXPECT_EQ(unknown->AudioDurationMs(), -1);
}

TEST_F(DemuxerTest, ADiscardedStreamIsSkipped) {
  // Broken pictures that probing has buffered come out unfiltered, and end nothing. Of the sound
  // there is more than probing buffers.
  Mp4Track broken = Mp4Track::Video(EncodeH264().extradata(), 64, 48, 1000);
  for (int i = 0; i < 5; ++i) broken.Add(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 1}, 20);
  for (const Mp4Track& discarded : {AudioTrack(30'000), broken}) {
    const auto demuxer = Open(Write({discarded, GyroTrack(50)}));
    demuxer->DiscardStream(0);
    demuxer->DiscardStream(99);
    const PacketLog reading = ReadAll(*demuxer);
    const auto motion = std::count_if(reading.packets.begin(), reading.packets.end(),
                                      [](const PacketCopy& packet) { return packet.stream == 1; });
    EXPECT_EQ(motion, 50);
    EXPECT_LT(reading.packets.size(), 1000U) << "of 1457";
  }
}

}  // namespace
}  // namespace lum
