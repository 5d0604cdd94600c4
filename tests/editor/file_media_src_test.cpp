#include "editor/file_media_src.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "av_toolbox/media_files.h"
#include "editor/fake_media_src.h"
#include "eventloop/loop_testing.h"
#include "support/log_capture.h"
#include "support/memory_source.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using namespace ::testing;           // NOLINT(google-build-using-namespace): the matchers' names
using Strings = std::vector<std::string>;
using Ranges = std::vector<FileMediaSrc::Range>;
using Stamps = std::pair<int64_t, int64_t>;  // pts, dts

/// Writes down every call, such as "video notify 1 67"; of the packets only the first. The hook
/// answers in place of "true" and is given the call ("packet", "notify 1 67").
class RecordingConsumer : public PacketConsumer {
 public:
  RecordingConsumer(std::string name, Journal& journal)
      : name_(std::move(name)), journal_(journal) {}

  bool Open(MediaInfo* info) override {
    record = info;
    return Answer(info, "open");
  }
  bool Notify(MediaInfo* info, const MediaMessage& message) override {
    const std::string value =
        message.value.empty() ? "" : ' ' + std::to_string(any_cast<int64_t>(message.value));
    return Answer(info, "notify " + std::to_string(message.code) + value);
  }
  bool Filter(MediaInfo* info, const std::shared_ptr<QVXPacket>& packet) override {
    EXPECT_FALSE(closed_) << "a packet after Close";
    packets.push_back(packet);
    stamps.emplace_back(packet->pts, packet->dts);
    return Answer(info, "packet");
  }
  bool Close(MediaInfo* info) override {
    closed_ = true;
    return Answer(info, "close");
  }
  void Interrupt(MediaInfo* info) override { Answer(info, "interrupt"); }

  std::function<bool(const std::string& call)> on_call;
  MediaInfo* record = nullptr;
  // Event thread, until the source was closed.
  std::vector<std::shared_ptr<QVXPacket>> packets;
  std::vector<Stamps> stamps;  // as they were when the packet came

 private:
  bool Answer(MediaInfo* given, const std::string& call) {
    EXPECT_EQ(given, record);
    if (call != "packet" || packets.size() == 1) journal_.Add(name_ + ' ' + call);
    return !on_call || on_call(call);
  }

  std::string name_;
  Journal& journal_;
  bool closed_ = false;
};

/// A source with recording consumers, and what it reports.
class SourceRun {
 public:
  /// @param kinds which consumers are attached: v(ideo), a(udio), d(ata).
  explicit SourceRun(const std::string& url, const std::string& kinds = "vad")
      : source(std::make_shared<FileMediaSrc>(url)) {
    if (kinds.find('v') != std::string::npos) source->SetVideoConsumer(video);
    if (kinds.find('a') != std::string::npos) source->SetAudioConsumer(audio);
    if (kinds.find('d') != std::string::npos) source->SetDataConsumer(data);
    source->index = 7;
    source->state_callback = [this](MediaSrc::MediaSrcState state, const any& value) {
      std::string report = std::vector{"end", "cancel", "error"}.at(static_cast<size_t>(state));
      if (value.type() != typeid(std::nullptr_t)) {
        report += ' ' + std::to_string(any_cast<int64_t>(value));
      }
      reports.Add(report);
    };
  }
  ~SourceRun() { Finish(); }
  SourceRun(const SourceRun&) = delete;
  SourceRun& operator=(const SourceRun&) = delete;

  void Start() {
    EXPECT_TRUE(source->Prepare());
    source->Start();
  }
  /// Starts, and acts while a consumer is held inside its n-th call of a kind.
  void During(RecordingConsumer& consumer, const std::string& call, int nth,
              const std::function<void()>& act) {
    const auto there = std::make_shared<std::promise<void>>();
    std::promise<void> go;
    consumer.on_call = [=, gone = go.get_future().share(), left = nth](const auto& made) mutable {
      if (made.rfind(call, 0) != 0 || --left != 0) return true;
      there->set_value();
      return gone.wait_for(kHang) == std::future_status::ready;
    };
    Start();
    EXPECT_TRUE(Arrives(there->get_future()));
    act();
    go.set_value();
  }
  /// The n-th report: "end" and its time in milliseconds, "cancel" or "error".
  std::string WaitFor(size_t n = 1) {
    return reports.WaitFor(n) ? reports.Entries()[n - 1] : "nothing";
  }
  void Finish() {
    source->Close();
    source->Stop();
  }
  /// A whole run: the first report, everything closed.
  std::string ToTheEnd() {
    Start();
    std::string report = WaitFor();
    Finish();
    return report;
  }
  /// Calls whose name has the text.
  Strings Calls(const std::string& text = "") const {
    Strings found;
    for (const std::string& entry : journal.Entries()) {
      if (entry.find(text) != std::string::npos) found.push_back(entry);
    }
    return found;
  }

  Journal journal;
  Journal reports;
  std::shared_ptr<FileMediaSrc> source;
  std::shared_ptr<RecordingConsumer> video = std::make_shared<RecordingConsumer>("video", journal);
  std::shared_ptr<RecordingConsumer> audio = std::make_shared<RecordingConsumer>("audio", journal);
  std::shared_ptr<RecordingConsumer> data = std::make_shared<RecordingConsumer>("data", journal);
};

class FileMediaSrcTest : public MediaFileTest {
 protected:
  /// A second of video (B-frames, a key frame every half), 1.024 s of sound, a second of motion.
  std::string WriteCamera() {
    static const std::vector<Mp4Track> tracks{VideoTrack(), AudioTrack(), GyroTrack(50)};
    return Write(tracks);
  }
};

TEST_F(FileMediaSrcTest, ConsumersAreOpenedToldFedEndedAndClosedInOrder) {
  const LogCapture log;
  SourceRun run(WriteCamera());
  run.video->on_call = [&](const std::string& call) {
    if (call != "open") return true;
    const MediaInfo& info = *run.video->record;
    EXPECT_EQ(info.source_id, 7);
    EXPECT_EQ(info.stream, run.source->demuxer()->VideoStream());
    EXPECT_NE(info.params.get(), info.stream->codecpar) << "a private copy";
    EXPECT_EQ(info.params->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(info.params->extradata[3], 1) << "Annex B: 00 00 00 01";
    EXPECT_EQ(info.reserved_code, -1);
    EXPECT_EQ(info.error, -1);
    EXPECT_FALSE(info.ended);
    return true;
  };
  EXPECT_EQ(run.ToTheEnd(), "end 1069");
  run.source->Close();
  EXPECT_EQ(run.source->outcome(), RunOutcome::kEnded);
  // Decoding begins two frames before time zero, which counts from there: in each time base.
  EXPECT_THAT(run.Calls(),
              ElementsAre("video open", "audio open", "data open", "video notify 1 -67",
                          "audio notify 1 -67", "data notify 1 -67", "video packet", "audio packet",
                          "data packet", "video notify 0", "audio notify 0", "data notify 0",
                          "video close", "audio close", "data close"));
  ASSERT_THAT(run.video->stamps, SizeIs(30));
  EXPECT_EQ(run.video->stamps[0], Stamps(6030, 30));  // 0 and -6000, plus 67 * 90
  EXPECT_THAT(run.audio->stamps, SizeIs(Ge(46U)));
  EXPECT_TRUE(run.video->record->ended && run.audio->record->ended && run.data->record->ended);
  // What the tool's consumer never causes.
  EXPECT_THAT(log.Lines("editor/file_media_src.cpp"),
              IsSupersetOf({"INFO editor/file_media_src.cpp:112 estimate audio frame duration:21",
                            "INFO editor/file_media_src.cpp:117 estimate video frame duration:33",
                            "VERBOSE editor/file_media_src.cpp:285 want to close twice."}));
}

TEST_F(FileMediaSrcTest, StreamsWithoutAConsumerAreDroppedButSetTheStart) {
  for (const bool read_all : {false, true}) {
    SourceRun run(WriteCamera(), "d");
    run.source->SetReadAllStreams(read_all);
    bool dropped = false;
    run.data->on_call = [&](const std::string& call) {
      if (call == "packet") {
        dropped = run.source->demuxer()->GetStream(0)->discard == AVDISCARD_ALL;
      }
      return true;
    };
    EXPECT_EQ(run.ToTheEnd(), "end -1") << "an end is estimated from video and audio alone";
    EXPECT_EQ(dropped, !read_all);
    ASSERT_THAT(run.data->stamps, SizeIs(50));
    for (int64_t i = 0; i < 50; ++i) {
      EXPECT_EQ(run.data->stamps[static_cast<size_t>(i)], Stamps(i * 20 + 67, i * 20 + 67));
    }
  }
}

TEST_F(FileMediaSrcTest, ProgressIsThePositionInTheWholeOrInTheRanges) {
  const struct {
    std::vector<Mp4Track> tracks;
    Ranges ranges;
    double length;  // 0: the longer of video and audio
    size_t packets;
  } cases[] = {{{VideoTrack(), AudioTrack(), GyroTrack(50)}, {}, 0, 50},
               {{GyroTrack(50)}, {}, 1000, 50},
               {{GyroTrack(50)}, {{0, 200}, {400, 600}}, 400, 20}};
  for (const auto& c : cases) {
    SourceRun run(Write(c.tracks), "d");
    run.source->SetRanges(c.ranges);
    EXPECT_EQ(run.source->Progress(), 0.0);
    std::vector<double> seen;
    run.data->on_call = [&](const std::string& call) {
      if (call == "packet") seen.push_back(run.source->Progress());
      return true;
    };
    run.Start();
    const auto audio_ms = static_cast<double>(run.source->demuxer()->AudioDurationMs());
    run.WaitFor();
    run.Finish();
    ASSERT_THAT(seen, SizeIs(c.packets));
    for (size_t i = 0; i < seen.size(); ++i) {
      EXPECT_DOUBLE_EQ(seen[i], static_cast<double>(i * 20) / (c.length > 0 ? c.length : audio_ms));
    }
  }
}

TEST_F(FileMediaSrcTest, EstimatesTheEndFromTheLongerOfVideoAndAudio) {
  const struct {
    int frames;
    int sound_ms;
    bool rates_known;
    int64_t end_ms;
  } cases[] = {{30, 20, true, 1000},   // the last picture decodes at 967 ms and lasts 33
               {2, 1000, true, 1024},  // 48 frames of sound, the first is the encoder's priming
               {2, 20, false, 33},     // missing rates count as no frame
               {2, 1000, false, 1003}};
  for (const auto& c : cases) {
    SourceRun run(Write({VideoTrack(c.frames, 0), AudioTrack(c.sound_ms, false)}));
    run.video->on_call = [&](const std::string& call) {
      if (c.rates_known || call == "open") return true;  // the sound is not yet
      run.video->record->stream->avg_frame_rate = {0, 0};
      run.audio->record->stream->codecpar->sample_rate = 0;
      return true;
    };
    EXPECT_EQ(run.ToTheEnd(), "end " + std::to_string(c.end_ms));
  }
}

TEST_F(FileMediaSrcTest, AMissingTimeStampStaysMissing) {
  constexpr int64_t kNone = AV_NOPTS_VALUE;
  {
    SCOPED_TRACE("Matroska stores one time a block: the first B-frames have no decoding time");
    EncodedStream avc = EncodeH264();
    for (EncodedPacket& packet : avc.packets) {  // half a second later, so that zero is moved
      packet.pts += 15;
      packet.dts += 15;
    }
    SourceRun run(Mux("matroska", avc));
    EXPECT_EQ(run.ToTheEnd(), "end 933") << "the last decodes at 900 ms and lasts 33";
    EXPECT_THAT(run.Calls("notify 1"), ElementsAre("video notify 1 500"));
    ASSERT_THAT(run.video->stamps, SizeIs(30));
    EXPECT_THAT(std::vector(run.video->stamps.begin(), run.video->stamps.begin() + 3),
                ElementsAre(Stamps(0, kNone), Stamps(100, kNone), Stamps(33, 0)));
  }
  SCOPED_TRACE("a bare stream has no times at all: no start is told, nothing is waited for");
  H264Options options;
  options.annex_b = true;
  const EncodedStream video = EncodeH264(options);
  Bytes stream = video.extradata();
  for (const EncodedPacket& packet : video.packets) stream = Concat({stream, packet.data});
  SourceRun run("memory");
  run.source->SetIOSource(std::make_shared<MemorySource>(stream));
  run.source->SetPaced(true);
  EXPECT_EQ(run.ToTheEnd(), "end 33") << "one frame";
  EXPECT_THAT(run.video->stamps, AllOf(SizeIs(30), Each(Stamps(kNone, kNone))));
  EXPECT_THAT(run.Calls("notify 1"), IsEmpty());
}

// ---- ranges

TEST_F(FileMediaSrcTest, RangesJoinWithoutAJump) {
  // Sound alone can be cut anywhere: one frame a 1024/48000 s.
  SourceRun run(Write({AudioTrack(2000, /*with_edit_list=*/false)}));
  run.source->SetRanges({{200, 400}, {1000, 1100}, {500, 600}});
  EXPECT_THAT(run.ToTheEnd(), StartsWith("end"));
  // Each range adds what was read of it. It begins with the frame at or before its start, which
  // counts as zero, and ends with the first one at or after its end: at 405, 1109 and 619 ms.
  EXPECT_THAT(run.Calls("notify"),
              ElementsAre("audio notify 1 192", "audio notify 2 9840",   // (405 - 200) * 48
                          "audio notify 1 981", "audio notify 2 15072",  // + (1109 - 1000) * 48
                          "audio notify 1 491", "audio notify 0"));
  // Ten frames, then six from 205 ms (9840), then six from 314 ms (15072), each 1024 apart, up to
  // the rounding of a range's first position to milliseconds.
  const std::vector<Stamps>& stamps = run.audio->stamps;
  ASSERT_THAT(stamps, SizeIs(10 + 6 + 6));
  for (int64_t i = 0; i < 22; ++i) {
    const auto [pts, dts] = stamps[static_cast<size_t>(i)];
    const int64_t begin = i < 10 ? 0 : i < 16 ? 9840 - 10 * 1024 : 15072 - 16 * 1024;
    EXPECT_LE(std::abs(dts - begin - i * 1024), 24) << "packet " << i;
    EXPECT_EQ(pts, dts);
  }
}

TEST_F(FileMediaSrcTest, EveryStreamLearnsItsOwnOffsetWhenReadingJumps) {
  SourceRun run(WriteCamera());
  run.source->SetRanges({{0, 200}, {500, 700}});
  EXPECT_THAT(run.ToTheEnd(), StartsWith("end"));
  // The packet at 200 ms ends the first range: 200 ms in 1/90000, 1/48000 and 1/1000 s.
  EXPECT_THAT(run.Calls("notify 2"),
              ElementsAre("video notify 2 18000", "audio notify 2 9600", "data notify 2 200"));
}

TEST_F(FileMediaSrcTest, EmptyAndBackwardRangesEnd) {
  for (const Ranges& ranges :
       {Ranges{{100, 100}}, Ranges{{500, 100}}, Ranges{{0, 0}, {0, 0}},
        Ranges{{INT64_MIN, INT64_MAX}, {INT64_MAX, INT64_MIN}}, Ranges{{5000, 6000}},
        Ranges{{0, 600}, {500, 100}}}) {  // the last: 200 ms in all
    SourceRun run(Write({GyroTrack(50)}));
    run.source->SetRanges(ranges);
    EXPECT_THAT(run.ToTheEnd(), StartsWith("end"));
    if (ranges[0].end_ms == 600) {
      EXPECT_THAT(run.data->packets, SizeIs(10));
    }
  }
}

// ---- pacing

TEST_F(FileMediaSrcTest, PacedReadingTakesTheLengthOfWhatItReads) {
  SourceRun run(Write({GyroTrack(4)}));
  run.source->SetPaced(true);
  const auto begin = std::chrono::steady_clock::now();
  run.data->on_call = [&](const std::string& call) {
    if (call == "packet") {  // never early; how late depends on the machine
      EXPECT_GE(std::chrono::steady_clock::now() - begin,
                std::chrono::milliseconds(20 * (run.data->packets.size() - 1)));
    }
    return true;
  };
  EXPECT_THAT(run.ToTheEnd(), StartsWith("end"));
  EXPECT_THAT(run.data->packets, SizeIs(4));
}

TEST_F(FileMediaSrcTest, WhateverEndsTheRunEndsThePause) {
  for (const auto& end : {&FileMediaSrc::Interrupt, &FileMediaSrc::Close, &FileMediaSrc::Stop}) {
    SourceRun run(Write({GyroTrack(3, 3600 * 1000)}));  // the second packet is due in an hour
    run.source->SetPaced(true);
    run.During(*run.data, "packet", 1, [] {});
    PassTime(std::chrono::milliseconds(5));  // most likely the source waits by now
    (run.source.get()->*end)();
    run.Finish();
    EXPECT_EQ(run.source->outcome(), RunOutcome::kCanceled);
    EXPECT_THAT(run.data->packets, SizeIs(1));
    EXPECT_THAT(run.reports.Entries(), SizeIs(end == &FileMediaSrc::Interrupt ? 1 : 0));
  }
}

// ---- silent audio

TEST_F(FileMediaSrcTest, SilentAudioKeepsUpWithTheVideoWithoutADrift) {
  for (const std::string consumers : {"va", "a"}) {
    SourceRun run(Write({VideoTrack(90, 0)}), consumers);
    run.source->SetAddSilentAudio(true);
    run.audio->on_call = [&](const std::string& call) {
      if (call == "packet" && consumers == "va") {
        const int64_t video_ms = av_rescale_q(run.video->stamps.back().second, {1, 90}, {1, 1});
        EXPECT_LE(run.audio->stamps.back().second, video_ms * 48);
      }
      return true;
    };
    const std::string report = run.ToTheEnd();
    const AVCodecParameters& aac = *run.audio->record->params;
    EXPECT_EQ(aac.codec_id, AV_CODEC_ID_AAC);
    EXPECT_EQ(std::make_pair(aac.sample_rate, aac.ch_layout.nb_channels), std::make_pair(48000, 2));
    EXPECT_EQ(aac.format, AV_SAMPLE_FMT_FLTP);
    // The last picture decodes at 89 / 30 s: 2967 ms, one frame before the end.
    EXPECT_EQ(report, consumers == "va" ? "end 3000" : "end 2986");
    ASSERT_THAT(run.audio->stamps, SizeIs(2967 * 48000 / 1024000 + 1));
    for (size_t i = 0; i < run.audio->stamps.size(); ++i) {
      const int64_t ms = static_cast<int64_t>(i) * 1024000 / 48000;  // 0, 21, 42, 64, ...
      EXPECT_EQ(run.audio->stamps[i], Stamps(ms * 48, ms * 48));
      EXPECT_EQ(run.audio->packets[i]->size, 0);
      EXPECT_EQ(run.audio->packets[i]->flags, AV_PKT_FLAG_KEY);
      EXPECT_EQ(run.audio->packets[i]->stream_index, 1) << "no other stream's";
    }
  }
}

TEST_F(FileMediaSrcTest, SilentAudioIsNotAddedToAFileWithSoundOrWithoutVideo) {
  for (const bool with_sound : {true, false}) {
    SourceRun run(with_sound ? WriteCamera() : Write({GyroTrack(5)}));
    run.source->SetAddSilentAudio(true);
    EXPECT_THAT(run.ToTheEnd(), StartsWith("end"));
    EXPECT_EQ(run.audio->packets.empty(), !with_sound);
    for (const auto& packet : run.audio->packets) EXPECT_GT(packet->size, 0);
    EXPECT_THAT(run.Calls("audio"), Contains("audio close"));
  }
}

// ---- failures

TEST_F(FileMediaSrcTest, WhatIsNotPreparedFailsWhenItIsStarted) {
  for (const bool tried : {true, false}) {
    SourceRun run(PathOf("missing.mp4"));
    EXPECT_FALSE(tried && run.source->Prepare());
    EXPECT_EQ(run.source->open_result(), tried ? AVERROR(ENOENT) : 0);
    EXPECT_EQ(run.source->error_code, tried ? 1 : 0);
    EXPECT_THAT(run.reports.Entries(), IsEmpty()) << "nothing is reported before the start";
    run.source->Start();
    EXPECT_EQ(run.WaitFor(), "error");
    EXPECT_EQ(run.source->error_code, 1);
    run.Finish();
    EXPECT_EQ(run.source->outcome(), tried ? RunOutcome::kOpenFailed : RunOutcome::kNotPrepared);
    EXPECT_THAT(run.reports.Entries(), SizeIs(1));
  }
}

TEST_F(FileMediaSrcTest, OfAPreparationThatFailsOnlyWhatWasOpenIsClosed) {
  SourceRun run(WriteCamera());
  run.audio->on_call = [&](const std::string& call) {
    run.audio->record->error = 61;
    return call != "open";
  };
  run.video->on_call = [](const std::string& call) { return call == "close" ? throw 42 : true; };
  EXPECT_FALSE(run.source->Prepare());
  run.source->Start();
  EXPECT_EQ(run.WaitFor(), "error");
  EXPECT_EQ(run.source->error_code, 61);
  run.source->Interrupt();
  run.Finish();
  EXPECT_EQ(run.source->outcome(), RunOutcome::kOpenRefused);
  // The one that refused may hold something; those that were closed are not called again.
  EXPECT_THAT(run.Calls(), ElementsAre("video open", "audio open", "video close", "audio interrupt",
                                       "audio close"));
}

TEST_F(FileMediaSrcTest, PreparedAgainItForgetsWhatWasBefore) {
  const std::string path = WriteCamera();
  SourceRun run(path, "d");
  EXPECT_TRUE(run.source->Prepare() && run.source->Prepare());
  std::filesystem::remove(path);
  EXPECT_FALSE(run.source->Prepare());
  EXPECT_FALSE(run.source->prepared());
  EXPECT_EQ(run.data->record->stream, nullptr);
  run.source->Start();
  EXPECT_FALSE(run.source->Prepare()) << "once started, never";
  EXPECT_EQ(run.WaitFor(), "error");
  run.Finish();
  EXPECT_THAT(run.Calls(), ElementsAre("data open", "data close", "data open", "data close"));
}

TEST_F(FileMediaSrcTest, UsedAgainItFails) {
  SourceRun run(WriteCamera(), "d");
  EXPECT_EQ(run.ToTheEnd(), "end -1");
  const Strings calls = run.Calls();
  EXPECT_FALSE(run.source->Prepare());
  run.source->Start();
  EXPECT_EQ(run.WaitFor(2), "error");
  EXPECT_EQ(run.source->error_code, 1);
  EXPECT_EQ(run.source->outcome(), RunOutcome::kNotPrepared);
  run.source->Interrupt();
  EXPECT_EQ(run.WaitFor(3), "cancel");
  run.Finish();
  EXPECT_EQ(run.Calls(), calls);
}

TEST_F(FileMediaSrcTest, AReadErrorIsReportedWithCodeOne) {
  const auto bytes =
      std::make_shared<MemorySource>(ReadFile(Write({LongTrack()}, Mp4Order::kMoovFirst)));
  bytes->fails_from = 100000;
  SourceRun run("memory");
  run.source->SetIOSource(bytes);
  EXPECT_EQ(run.ToTheEnd(), "error");
  EXPECT_EQ(run.source->error_code, 1);
  EXPECT_EQ(run.source->read_result(), AVERROR(EIO));
  EXPECT_EQ(run.source->outcome(), RunOutcome::kReadFailed);
  EXPECT_THAT(run.data->stamps, SizeIs(AllOf(Ge(30U), Le(60U))));
  EXPECT_THAT(run.Calls(), Not(Contains("data notify 0"))) << "no end after an error";
  EXPECT_EQ(run.Calls().back(), "data close");
}

// The audio consumer fails in one of its calls, by its answer or by an exception.
TEST_F(FileMediaSrcTest, AConsumerThatFailsEndsTheRunWithItsError) {
  const struct {
    const char* name;
    const char* call;
    int nth;
    Strings reports;
    const char* not_told = "nothing";
  } cases[] = {{"start", "notify 1", 1, {"error"}, "packet"},
               {"packet", "packet", 5, {"error"}, "notify 0"},
               {"silent frame", "packet", 3, {"error"}, "notify 0"},
               {"new range", "notify 2", 1, {"error"}, "data notify 2"},
               {"end", "notify 0", 1, {"error"}, "data notify 0"},
               {"close", "close", 1, {"end 1069", "error"}},
               {"interrupt", "interrupt", 1, {"error", "cancel"}, "notify 0"},
               {"early interrupt", "interrupt", 1, {"error"}, "packet"}};
  const std::vector<std::pair<const char*, std::function<void()>>> ways = {
      {"refuses", nullptr},
      {"]consumer failed: out of luck\n", [] { throw std::runtime_error("out of luck"); }},
      {"]consumer failed: an exception of another type\n", [] { throw 42; }}};
  for (const auto& c : cases) {
    for (const auto& [text, fail] : ways) {
      const std::string name = c.name;
      SCOPED_TRACE(name + text);
      const bool silent = name == "silent frame";
      const bool cannot_refuse = name == "start" || name.find("interrupt") != std::string::npos;
      if (!fail && cannot_refuse) continue;
      SourceRun run(silent ? Write({VideoTrack(30, 0)}) : WriteCamera());
      run.source->SetAddSilentAudio(silent);
      if (name == "new range") run.source->SetRanges({{0, 200}, {500, 700}});
      run.audio->on_call = [&, fail = fail, left = c.nth](const std::string& made) mutable {
        run.audio->record->error = 41;
        if (made == "packet" && name == "interrupt") run.source->Interrupt();
        if (made.rfind(c.call, 0) != 0 || --left != 0) return true;
        if (fail) fail();
        return false;
      };
      const LogCapture log;
      EXPECT_TRUE(run.source->Prepare());
      if (name == "early interrupt") run.source->Interrupt();
      run.source->Start();
      run.WaitFor();
      run.Finish();
      EXPECT_EQ(run.reports.Entries(), c.reports);
      EXPECT_EQ(run.source->error_code, 41);
      EXPECT_EQ(run.source->outcome(), RunOutcome::kConsumerFailed);
      // All are closed all the same, and nothing is told or read after the refusal.
      EXPECT_EQ(run.Calls().back(), silent ? "audio close" : "data close");
      EXPECT_THAT(run.Calls(c.not_told), IsEmpty());
      if (std::string(c.call) == "packet") {
        EXPECT_THAT(run.audio->packets, SizeIs(c.nth));
      }
      EXPECT_TRUE(run.video->record->ended && run.audio->record->ended);
      EXPECT_EQ(log.Text().find(text) != std::string::npos, fail != nullptr);
    }
  }
}

// ---- interrupts, and the end of reading

TEST_F(FileMediaSrcTest, AnInterruptWhileReadingEndsIt) {
  SourceRun run(WriteCamera());
  run.During(*run.data, "packet", 3, [&] {
    run.source->Interrupt();
    EXPECT_TRUE(run.video->record->ended && run.audio->record->ended);
    EXPECT_FALSE(run.data->record->ended) << "the data record is marked only at the input's end";
  });
  EXPECT_EQ(run.WaitFor(), "cancel");
  run.source->Interrupt();
  EXPECT_EQ(run.WaitFor(2), "cancel") << "each is reported";
  run.source->Close();
  EXPECT_EQ(run.source->outcome(), RunOutcome::kCanceled);
  EXPECT_THAT(run.data->packets, SizeIs(3)) << "no packet after the interrupt";
  EXPECT_THAT(run.Calls("notify 0"), IsEmpty());
  EXPECT_THAT(run.Calls("interrupt"), SizeIs(6));
  run.source->Interrupt();
  EXPECT_EQ(run.WaitFor(3), "cancel") << "the thread still answers";
  for (const int32_t what : {0, 1, 2, 5, 6, 99}) {  // events that come too late
    run.source->HandleEvent(std::make_shared<Event>(what));
  }
  run.source->Stop();
  run.source->Interrupt();
  EXPECT_EQ(run.Calls().back(), "data close") << "no interrupt after it";
  EXPECT_THAT(run.reports.Entries(), SizeIs(3));
}

TEST_F(FileMediaSrcTest, AnInterruptBeforeTheStartIsReportedWithIt) {
  for (const bool while_opening : {true, false}) {
    SourceRun run(WriteCamera());
    run.data->on_call = [&](const std::string& call) {
      if (call == "open" && while_opening) run.source->Interrupt();
      return true;
    };
    ASSERT_TRUE(run.source->Prepare());
    if (!while_opening) run.source->Interrupt();
    EXPECT_THAT(run.Calls(), Contains("data interrupt"));
    EXPECT_THAT(run.reports.Entries(), IsEmpty()) << "there is no thread yet to report on";
    run.source->Start();
    EXPECT_EQ(run.WaitFor(), "cancel");
    run.Finish();
    EXPECT_THAT(run.data->packets, IsEmpty());
    EXPECT_THAT(run.reports.Entries(), SizeIs(1));
  }
}

TEST_F(FileMediaSrcTest, AnInterruptWhileTheEndIsToldIsReportedAfterIt) {
  SourceRun run(WriteCamera());
  run.During(*run.data, "notify 0", 1, [&run] { run.source->Interrupt(); });
  EXPECT_EQ(run.WaitFor(2), "cancel");
  EXPECT_THAT(run.WaitFor(), StartsWith("end"));
  EXPECT_EQ(run.source->outcome(), RunOutcome::kEnded);
}

}  // namespace
}  // namespace lum
