#include "editor/file_media_src.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
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
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Le;
using ::testing::Not;
using ::testing::SizeIs;

// Only bounds a hang; no test waits for it to pass.
constexpr std::chrono::seconds kHang{30};

/// What the consumers saw, in order, from any thread.
class Journal {
 public:
  void Add(const std::string& entry) {
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(entry);
  }
  [[nodiscard]] std::vector<std::string> Entries() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;  // guarded by mutex_
};

struct Stamps {
  int64_t pts;
  int64_t dts;

  friend bool operator==(Stamps a, Stamps b) { return a.pts == b.pts && a.dts == b.dts; }
  friend std::ostream& operator<<(std::ostream& out, Stamps s) {
    return out << '{' << s.pts << ", " << s.dts << '}';
  }
};

/// Writes down every call. The hooks answer in place of "true".
class RecordingConsumer : public PacketConsumer {
 public:
  RecordingConsumer(std::string name, Journal& journal)
      : name_(std::move(name)), journal_(journal) {}

  bool Open(MediaInfo* info) override {
    info_ = info;
    journal_.Add(name_ + " open");
    return !on_open || on_open(info);
  }
  bool Notify(MediaInfo* info, const MediaMessage& message) override {
    EXPECT_EQ(info, info_);
    std::string entry = name_ + " notify " + std::to_string(message.code);
    if (!message.value.empty()) {
      entry += ' ' + std::to_string(any_cast<int64_t>(message.value));
    }
    journal_.Add(entry);
    return !on_notify || on_notify(info, message.code);
  }
  bool Filter(MediaInfo* info, const std::shared_ptr<QVXPacket>& packet) override {
    EXPECT_EQ(info, info_);
    packets.push_back(packet);
    stamps.push_back({packet->pts, packet->dts});
    journal_.Add(name_ + " packet");
    return !on_packet || on_packet(info);
  }
  bool Close(MediaInfo* info) override {
    EXPECT_EQ(info, info_);
    journal_.Add(name_ + " close");
    return !on_close || on_close(info);
  }
  void Interrupt(MediaInfo* info) override {
    EXPECT_EQ(info, info_);
    journal_.Add(name_ + " interrupt");
  }

  std::function<bool(MediaInfo*)> on_open;
  std::function<bool(MediaInfo*, int32_t)> on_notify;
  std::function<bool(MediaInfo*)> on_packet;
  std::function<bool(MediaInfo*)> on_close;

  // Event thread, until the source was closed.
  std::vector<std::shared_ptr<QVXPacket>> packets;
  std::vector<Stamps> stamps;  // as they were when the packet came

  [[nodiscard]] MediaInfo* info() const { return info_; }

 private:
  std::string name_;
  Journal& journal_;
  MediaInfo* info_ = nullptr;
};

struct Report {
  int32_t state;
  std::optional<int64_t> value;

  friend bool operator==(const Report& a, const Report& b) {
    return a.state == b.state && a.value == b.value;
  }
  friend std::ostream& operator<<(std::ostream& out, const Report& r) {
    return out << "state " << r.state << " value " << (r.value ? std::to_string(*r.value) : "none");
  }
};

Report Ended(int64_t end_ms) { return {0, end_ms}; }
const Report kCancelledReport{1, std::nullopt};
const Report kErrorReport{2, std::nullopt};

/// A source with recording consumers, and what it reports.
class SourceRun {
 public:
  explicit SourceRun(const std::string& url, bool with_video = true, bool with_audio = true,
                     bool with_data = true)
      : source(std::make_shared<FileMediaSrc>(url)),
        video(std::make_shared<RecordingConsumer>("video", journal)),
        audio(std::make_shared<RecordingConsumer>("audio", journal)),
        data(std::make_shared<RecordingConsumer>("data", journal)) {
    if (with_video) source->SetVideoConsumer(video);
    if (with_audio) source->SetAudioConsumer(audio);
    if (with_data) source->SetDataConsumer(data);
    source->index = 7;
    source->state_callback = [this](MediaSrc::MediaSrcState state, const any& value) {
      Report report{static_cast<int32_t>(state), std::nullopt};
      if (value.type() == typeid(int64_t)) {
        report.value = any_cast<int64_t>(value);
      } else {
        EXPECT_EQ(value.type(), typeid(std::nullptr_t));
      }
      const std::lock_guard<std::mutex> lock(mutex_);
      reports_.push_back(report);
      reported_.notify_all();
    };
  }
  ~SourceRun() { Finish(); }
  SourceRun(const SourceRun&) = delete;
  SourceRun& operator=(const SourceRun&) = delete;

  /// Waits for the n-th report.
  Report WaitFor(size_t n = 1) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!reported_.wait_for(lock, kHang, [&] { return reports_.size() >= n; })) {
      ADD_FAILURE() << "no report";
      return {-1, std::nullopt};
    }
    return reports_[n - 1];
  }
  std::vector<Report> Reports() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
  }
  void Finish() {
    source->Close();
    source->Stop();
  }
  /// A whole run: the first report, everything closed.
  Report ToTheEnd() {
    source->Prepare();
    source->Start();
    const Report report = WaitFor();
    Finish();
    return report;
  }

  Journal journal;
  std::shared_ptr<FileMediaSrc> source;
  std::shared_ptr<RecordingConsumer> video;
  std::shared_ptr<RecordingConsumer> audio;
  std::shared_ptr<RecordingConsumer> data;

 private:
  std::mutex mutex_;
  std::condition_variable reported_;
  std::vector<Report> reports_;  // guarded by mutex_
};

/// One moment that one thread reaches and another waits for.
class Gate {
 public:
  void Open() {
    if (!opened_.exchange(true)) promise_.set_value();
  }
  void Wait() const { ASSERT_EQ(future_.wait_for(kHang), std::future_status::ready); }

 private:
  std::atomic<bool> opened_{false};
  std::promise<void> promise_;
  std::shared_future<void> future_{promise_.get_future().share()};
};

LoggedRecord SourceRecord(const char* level, int line, const std::string& text) {
  return {level, "editor/file_media_src.cpp:" + std::to_string(line), text};
}

// Milliseconds as ticks; one sample every `duration` of them.
Mp4Track MotionTrack(int samples, uint32_t duration = 20) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < samples; ++i) track.Add(GyroSample({static_cast<float>(i), 0, 0}), duration);
  return track;
}

class FileMediaSrcTest : public ::testing::Test {
 protected:
  FileMediaSrcTest() { InitFFmpeg(); }

  std::string Write(const std::vector<Mp4Track>& tracks) {
    const std::string path = PathOf("input.mp4");
    WriteMp4(path, tracks);
    return path;
  }
  /// A second of video (B-frames, a key frame every half), 1.024 s of sound, a second of motion.
  std::string WriteCamera() {
    return Write(
        {ToMp4Track(EncodeH264(), 90000), ToMp4Track(EncodeAac(), 48000), MotionTrack(50)});
  }
  [[nodiscard]] std::string PathOf(const std::string& name) const { return directory_ / name; }

  TempDir directory_;
};

size_t CountOf(const std::vector<std::string>& entries, const std::string& entry) {
  return static_cast<size_t>(std::count(entries.begin(), entries.end(), entry));
}

// ---- a whole run

TEST_F(FileMediaSrcTest, ConsumersAreOpenedToldFedEndedAndClosedInOrder) {
  SourceRun run(WriteCamera());
  EXPECT_EQ(run.ToTheEnd().state, 0);
  std::vector<std::string> entries = run.journal.Entries();
  EXPECT_EQ(CountOf(entries, "video packet"), 30U);
  EXPECT_EQ(CountOf(entries, "data packet"), 50U);
  EXPECT_GE(CountOf(entries, "audio packet"), 46U);
  entries.erase(std::remove_if(entries.begin(), entries.end(),
                               [](const std::string& entry) {
                                 return entry.find("packet") != std::string::npos;
                               }),
                entries.end());
  // Decoding begins two frames before time zero.
  EXPECT_THAT(entries, ElementsAre("video open", "audio open", "data open", "video notify 1 -67",
                                   "audio notify 1 -67", "data notify 1 -67", "video notify 0",
                                   "audio notify 0", "data notify 0", "video close", "audio close",
                                   "data close"));
}

TEST_F(FileMediaSrcTest, FillsTheRecordBeforeTheConsumerOpens) {
  SourceRun run(WriteCamera());
  run.video->on_open = [&](MediaInfo* info) {
    EXPECT_EQ(info->source_id, 7);
    EXPECT_EQ(info->stream, run.source->demuxer()->VideoStream());
    EXPECT_NE(info->params.get(), info->stream->codecpar) << "a private copy";
    EXPECT_EQ(info->params->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(info->params->extradata[3], 1) << "Annex B: 00 00 00 01";
    EXPECT_EQ(info->reserved_code, -1);
    EXPECT_FALSE(info->ended);
    EXPECT_EQ(info->error, -1);
    return true;
  };
  run.ToTheEnd();
  EXPECT_TRUE(run.video->info()->ended);
  EXPECT_TRUE(run.data->info()->ended);
}

TEST_F(FileMediaSrcTest, TimeStampsCountFromTheFirstPacketOfAnyStream) {
  // The first packet is the video's, 66.67 ms before time zero: 67 rounded, in each time base.
  SourceRun run(WriteCamera(), /*with_video=*/true, /*with_audio=*/false);
  run.ToTheEnd();
  ASSERT_THAT(run.video->stamps, SizeIs(30));
  EXPECT_EQ(run.video->stamps[0], (Stamps{6030, 30}));  // 0 and -6000, plus 67 * 90
  ASSERT_THAT(run.data->stamps, SizeIs(50));
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(run.data->stamps[static_cast<size_t>(i)], (Stamps{i * 20 + 67, i * 20 + 67}));
  }
}

TEST_F(FileMediaSrcTest, StreamsWithoutAConsumerAreDroppedButSetTheStart) {
  for (const bool read_all : {false, true}) {
    SourceRun run(WriteCamera(), /*with_video=*/false, /*with_audio=*/false);
    run.source->SetReadAllStreams(read_all);
    EXPECT_EQ(run.ToTheEnd(), Ended(-1)) << "an end is estimated from video and audio alone";
    ASSERT_THAT(run.data->stamps, SizeIs(50));
    EXPECT_EQ(run.data->stamps.front(), (Stamps{67, 67}));
    EXPECT_EQ(run.data->stamps.back(), (Stamps{67 + 980, 67 + 980}));
  }
}

TEST_F(FileMediaSrcTest, AKeptPacketIsNotChangedAfterwards) {
  SourceRun run(WriteCamera());
  run.ToTheEnd();
  for (const auto& consumer : {run.video, run.audio, run.data}) {
    for (size_t i = 0; i < consumer->packets.size(); ++i) {
      const QVXPacket& packet = *consumer->packets[i];
      EXPECT_EQ((Stamps{packet.pts, packet.dts}), consumer->stamps[i]);
      EXPECT_GT(packet.size, 0);
    }
  }
}

TEST_F(FileMediaSrcTest, ReadsFromAByteSource) {
  const auto bytes = std::make_shared<MemorySource>(ReadFile(WriteCamera()));
  SourceRun run("memory");
  run.source->SetIOSource(bytes);
  EXPECT_EQ(run.ToTheEnd().state, 0);
  EXPECT_THAT(run.data->stamps, SizeIs(50));
}

TEST_F(FileMediaSrcTest, ProgressIsThePositionInTheWhole) {
  SourceRun run(WriteCamera(), /*with_video=*/false, /*with_audio=*/false);
  std::vector<double> seen;
  EXPECT_EQ(run.source->Progress(), 0.0);
  run.data->on_packet = [&](MediaInfo*) {
    seen.push_back(run.source->Progress());
    return true;
  };
  ASSERT_TRUE(run.source->Prepare());
  const auto length = static_cast<double>(run.source->demuxer()->AudioDurationMs());
  EXPECT_GT(length, 1000) << "the longer one counts";
  run.source->Start();
  run.WaitFor();
  ASSERT_THAT(seen, SizeIs(50));
  for (int i = 0; i < 50; ++i) EXPECT_EQ(seen[static_cast<size_t>(i)], i * 20 / length);
}

// ---- the end estimate

TEST_F(FileMediaSrcTest, EstimatesTheEndFromTheLongerOfVideoAndAudio) {
  const RecordLog log;
  SourceRun run(WriteCamera());
  const Report report = run.ToTheEnd();
  const AVRational milliseconds{1, 1000};
  const int64_t audio_end =
      21 + av_rescale_q(run.audio->stamps.back().dts, {1, 48000}, milliseconds);
  const int64_t video_end =
      33 + av_rescale_q(run.video->stamps.back().dts, {1, 90000}, milliseconds);
  EXPECT_EQ(report, Ended(std::max(audio_end, video_end)));
  EXPECT_THAT(log.Records(),
              IsSupersetOf({SourceRecord("INFO", 112, "estimate audio frame duration:21"),
                            SourceRecord("INFO", 117, "estimate video frame duration:33")}));
}

TEST_F(FileMediaSrcTest, EstimatesTheEndOfVideoAlone) {
  H264Options options;
  options.b_frames = 0;
  SourceRun run(Write({ToMp4Track(EncodeH264(options), 90000)}));
  // 30 frames: the last decodes at 967 ms and lasts 33.
  EXPECT_EQ(run.ToTheEnd(), Ended(1000));
}

TEST_F(FileMediaSrcTest, RatesThatAreMissingCountAsNoFrame) {
  H264Options options;
  options.b_frames = 0;
  options.frames = 2;
  AacOptions sound;
  sound.milliseconds = 20;
  SourceRun run(Write({ToMp4Track(EncodeH264(options), 90000),
                       ToMp4Track(EncodeAac(sound), 48000, /*with_edit_list=*/false)}));
  run.video->on_open = [](MediaInfo* info) {
    info->stream->avg_frame_rate = {0, 0};
    return true;
  };
  run.audio->on_open = [](MediaInfo* info) {
    info->stream->codecpar->sample_rate = 0;
    return true;
  };
  EXPECT_EQ(run.ToTheEnd(), Ended(33)) << "where the second picture begins";
}

TEST_F(FileMediaSrcTest, AReportIsOptional) {
  SourceRun run(WriteCamera());
  Gate ended;
  run.source->state_callback = nullptr;
  run.data->on_notify = [&](MediaInfo*, int32_t code) {
    if (code == MediaMessage::kEnd) ended.Open();
    return true;
  };
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  ended.Wait();
}

// ---- time stamps that are missing

TEST_F(FileMediaSrcTest, WithoutADecodingTimeThePresentationTimePlacesAPacket) {
  // Matroska stores one time a block; with B-frames the first two have no decoding time.
  const EncodedStream video = EncodeH264();
  MuxWithLibavformat(PathOf("v.mkv"), "matroska", &video, nullptr, nullptr);
  SourceRun run(PathOf("v.mkv"));
  EXPECT_EQ(run.ToTheEnd(), Ended(933)) << "the last decodes at 900 ms and lasts 33";
  EXPECT_THAT(run.journal.Entries(), Contains("video notify 1 0"));
  ASSERT_THAT(run.video->stamps, SizeIs(30));
  EXPECT_EQ(run.video->stamps[0], (Stamps{0, AV_NOPTS_VALUE}));
  EXPECT_EQ(run.video->stamps[1], (Stamps{100, AV_NOPTS_VALUE}));
  EXPECT_EQ(run.video->stamps[2], (Stamps{33, 0}));
}

TEST_F(FileMediaSrcTest, AMissingPresentationTimeStaysMissing) {
  // AVI stores no presentation times.
  H264Options options;
  options.annex_b = true;
  const EncodedStream video = EncodeH264(options);
  MuxWithLibavformat(PathOf("v.avi"), "avi", &video, nullptr, nullptr);
  SourceRun run(PathOf("v.avi"));
  EXPECT_EQ(run.ToTheEnd().state, 0);
  ASSERT_THAT(run.video->stamps, SizeIs(30));
  EXPECT_EQ(run.video->stamps[0], (Stamps{AV_NOPTS_VALUE, 0}));
  EXPECT_EQ(run.video->stamps[29], (Stamps{AV_NOPTS_VALUE, 29}));
}

TEST_F(FileMediaSrcTest, WithoutAnyTimePacketsPassAsTheyAreAndNoStartIsTold) {
  // A bare H.264 stream has no times at all.
  H264Options options;
  options.annex_b = true;
  const EncodedStream video = EncodeH264(options);
  Bytes stream = video.extradata();
  for (const EncodedPacket& packet : video.packets) {
    stream.insert(stream.end(), packet.data.begin(), packet.data.end());
  }
  SourceRun run("memory");
  run.source->SetIOSource(std::make_shared<MemorySource>(stream));
  run.source->SetPaced(true);
  EXPECT_EQ(run.ToTheEnd().state, 0);
  EXPECT_THAT(run.video->stamps, AllOf(SizeIs(30), Each(Stamps{AV_NOPTS_VALUE, AV_NOPTS_VALUE})));
  EXPECT_THAT(run.journal.Entries(), Not(Contains(::testing::HasSubstr("notify 1"))));
}

// ---- ranges

TEST_F(FileMediaSrcTest, RangesJoinWithoutAJump) {
  // Sound alone can be cut anywhere: one frame a 1024/48000 s.
  AacOptions options;
  options.milliseconds = 2000;
  SourceRun run(Write({ToMp4Track(EncodeAac(options), 48000, /*with_edit_list=*/false)}));
  run.source->SetRanges({{200, 400}, {1000, 1100}, {500, 600}});
  EXPECT_EQ(run.ToTheEnd().state, 0);
  // Each range adds what was read of it. It begins with the frame at or before its start, which
  // counts as zero, and ends with the first one at or behind its end: at 405, 1109 and 619 ms.
  const std::vector<std::string> notes = [&] {
    std::vector<std::string> found;
    for (const std::string& entry : run.journal.Entries()) {
      if (entry.find("notify") != std::string::npos) found.push_back(entry);
    }
    return found;
  }();
  EXPECT_THAT(notes,
              ElementsAre("audio notify 1 192", "audio notify 2 9840",   // (405 - 200) * 48
                          "audio notify 1 981", "audio notify 2 15072",  // + (1109 - 1000) * 48
                          "audio notify 1 491", "audio notify 0"));
  // Ten frames, then six from 205 ms (9840), then six from 314 ms (15072), each 1024 apart, up to
  // the rounding of a range's first position to milliseconds.
  const std::vector<Stamps>& stamps = run.audio->stamps;
  ASSERT_THAT(stamps, SizeIs(10 + 6 + 6));
  for (size_t i = 0; i < stamps.size(); ++i) {
    const int64_t base = i < 10 ? 0 : i < 16 ? 9840 : 15072;
    const int64_t first = i < 10 ? 0 : i < 16 ? 10 : 16;
    EXPECT_NEAR(static_cast<double>(stamps[i].dts),
                static_cast<double>(base + 1024 * (static_cast<int64_t>(i) - first)), 24)
        << "packet " << i;
    EXPECT_EQ(stamps[i].pts, stamps[i].dts);
  }
}

TEST_F(FileMediaSrcTest, EveryStreamLearnsItsOwnOffsetWhenReadingJumps) {
  SourceRun run(WriteCamera());
  run.source->SetRanges({{0, 200}, {500, 700}});
  EXPECT_EQ(run.ToTheEnd().state, 0);
  std::vector<std::string> notes;
  for (const std::string& entry : run.journal.Entries()) {
    if (entry.find("notify 2") != std::string::npos) notes.push_back(entry);
  }
  // The packet at 200 ms ends the first range: 200 ms in 1/90000, 1/48000 and 1/1000 s.
  EXPECT_THAT(notes,
              ElementsAre("video notify 2 18000", "audio notify 2 9600", "data notify 2 200"));
}

TEST_F(FileMediaSrcTest, ARefusedRangeFailsTheRun) {
  SourceRun run(WriteCamera());
  run.source->SetRanges({{0, 200}, {500, 700}});
  run.audio->on_notify = [](MediaInfo* info, int32_t code) {
    info->error = 41;
    return code != MediaMessage::kNewRange;
  };
  EXPECT_EQ(run.ToTheEnd(), kErrorReport);
  EXPECT_EQ(run.source->error_code, 41);
  EXPECT_THAT(run.journal.Entries(), Not(Contains(::testing::HasSubstr("data notify 2"))));
  EXPECT_TRUE(run.data->info()->ended);
}

TEST_F(FileMediaSrcTest, ProgressCountsTheRangesAndEndsThem) {
  SourceRun run(Write({MotionTrack(50)}));
  run.source->SetRanges({{0, 200}, {400, 600}});
  std::vector<double> seen;
  run.data->on_packet = [&](MediaInfo*) {
    seen.push_back(run.source->Progress());
    return true;
  };
  EXPECT_EQ(run.ToTheEnd().state, 0);
  ASSERT_THAT(seen, SizeIs(20));
  for (size_t i = 0; i < seen.size(); ++i) EXPECT_DOUBLE_EQ(seen[i], static_cast<double>(i) / 20);
}

TEST_F(FileMediaSrcTest, EmptyAndBackwardRangesEnd) {
  for (const auto& ranges : std::vector<std::vector<FileMediaSrc::Range>>{
           {{100, 100}},
           {{500, 100}},
           {{0, 0}, {0, 0}},
           {{INT64_MIN, INT64_MAX}, {INT64_MAX, INT64_MIN}},
           {{5000, 6000}}}) {
    SourceRun run(WriteCamera());
    run.source->SetRanges(ranges);
    EXPECT_EQ(run.ToTheEnd().state, 0);
  }
}

// ---- pacing

TEST_F(FileMediaSrcTest, PacedReadingTakesTheLengthOfWhatItReads) {
  SourceRun run(Write({MotionTrack(4)}));
  run.source->SetPaced(true);
  std::vector<std::chrono::steady_clock::time_point> at;
  run.data->on_packet = [&](MediaInfo*) {
    at.push_back(std::chrono::steady_clock::now());
    return true;
  };
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(run.ToTheEnd().state, 0);
  ASSERT_THAT(at, SizeIs(4));
  for (size_t i = 0; i < at.size(); ++i) {
    // Never early; how late depends on the machine.
    EXPECT_GE(at[i] - begin, std::chrono::milliseconds(20 * i)) << "packet " << i;
  }
}

TEST_F(FileMediaSrcTest, AnInterruptEndsThePause) {
  // The second packet is due in an hour.
  SourceRun run(Write({MotionTrack(3, 3600 * 1000)}));
  run.source->SetPaced(true);
  Gate first;
  run.data->on_packet = [&](MediaInfo*) {
    first.Open();
    return true;
  };
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  first.Wait();
  run.source->Interrupt();
  EXPECT_EQ(run.WaitFor(), kCancelledReport);
  run.Finish();
  EXPECT_THAT(run.data->stamps, SizeIs(1));
}

TEST_F(FileMediaSrcTest, CloseAndStopEndThePauseToo) {
  for (const bool close_first : {true, false}) {
    SourceRun run(Write({MotionTrack(3, 3600 * 1000)}));
    run.source->SetPaced(true);
    Gate first;
    run.data->on_packet = [&](MediaInfo*) {
      first.Open();
      return true;
    };
    ASSERT_TRUE(run.source->Prepare());
    run.source->Start();
    first.Wait();
    if (close_first) run.source->Close();
    run.source->Stop();
    EXPECT_THAT(run.data->stamps, SizeIs(1));
    EXPECT_THAT(run.Reports(), IsEmpty());
  }
}

// ---- silent audio

TEST_F(FileMediaSrcTest, SilentAudioKeepsUpWithTheVideoWithoutADrift) {
  H264Options options;
  options.frames = 90;
  SourceRun run(Write({ToMp4Track(EncodeH264(options), 90000)}));
  run.source->SetAddSilentAudio(true);
  run.audio->on_open = [](MediaInfo* info) {
    EXPECT_EQ(info->params->codec_id, AV_CODEC_ID_AAC);
    EXPECT_EQ(info->params->sample_rate, 48000);
    EXPECT_EQ(info->params->ch_layout.nb_channels, 2);
    EXPECT_EQ(info->params->format, AV_SAMPLE_FMT_FLTP);
    EXPECT_EQ(info->stream->time_base.den, 48000);
    return true;
  };
  run.audio->on_packet = [&](MediaInfo*) {
    const int64_t video_ms = av_rescale_q(run.video->stamps.back().dts, {1, 90000}, {1, 1000});
    EXPECT_LE(run.audio->stamps.back().dts, video_ms * 48);
    return true;
  };
  const Report report = run.ToTheEnd();
  // The last picture decodes at 89 / 30 s: 2967 ms, one frame before the end.
  EXPECT_EQ(report, Ended(3000));
  ASSERT_THAT(run.audio->stamps, SizeIs(2967 * 48000 / 1024000 + 1));
  for (size_t i = 0; i < run.audio->stamps.size(); ++i) {
    const int64_t ms = static_cast<int64_t>(i) * 1024000 / 48000;  // 0, 21, 42, 64, ...
    EXPECT_EQ(run.audio->stamps[i], (Stamps{ms * 48, ms * 48}));
    EXPECT_EQ(run.audio->packets[i]->size, 0);
    EXPECT_EQ(run.audio->packets[i]->flags, AV_PKT_FLAG_KEY);
    EXPECT_EQ(run.audio->packets[i]->stream_index, run.audio->info()->stream->index);
  }
  EXPECT_EQ(run.audio->info()->stream->index, 1) << "no other stream's";
}

TEST_F(FileMediaSrcTest, SilentAudioIsNotAddedToAFileWithSoundOrWithoutVideo) {
  {
    SourceRun run(WriteCamera());
    run.source->SetAddSilentAudio(true);
    run.ToTheEnd();
    for (const auto& packet : run.audio->packets) EXPECT_GT(packet->size, 0);
  }
  {
    SourceRun run(Write({MotionTrack(5)}));
    run.source->SetAddSilentAudio(true);
    EXPECT_EQ(run.ToTheEnd().state, 0);
    EXPECT_THAT(run.audio->packets, IsEmpty());
    EXPECT_THAT(run.journal.Entries(), IsSupersetOf({"audio open", "audio close"}));
  }
}

TEST_F(FileMediaSrcTest, ARefusedSilentFrameFailsTheRun) {
  SourceRun run(Write({ToMp4Track(EncodeH264(), 90000)}));
  run.source->SetAddSilentAudio(true);
  run.audio->on_packet = [&](MediaInfo* info) {
    info->error = 51;
    return run.audio->packets.size() < 3;
  };
  EXPECT_EQ(run.ToTheEnd(), kErrorReport);
  EXPECT_EQ(run.source->error_code, 51);
  EXPECT_THAT(run.audio->packets, SizeIs(3)) << "nothing comes after the refusal";
}

// ---- failures

TEST_F(FileMediaSrcTest, AnInputThatCannotBeOpenedFailsAtOnce) {
  const RecordLog log;
  SourceRun run(PathOf("missing.mp4"));
  EXPECT_FALSE(run.source->Prepare());
  EXPECT_EQ(run.source->error_code, 1);
  EXPECT_EQ(run.source->open_result(), AVERROR(ENOENT));
  EXPECT_THAT(run.Reports(), IsEmpty()) << "nothing is reported before the start";
  run.source->Start();
  EXPECT_EQ(run.WaitFor(), kErrorReport);
  run.Finish();
  EXPECT_THAT(run.journal.Entries(), IsEmpty());
  EXPECT_THAT(run.Reports(), SizeIs(1));
  EXPECT_THAT(log.Records(), Contains(SourceRecord("VERBOSE", 306, "file media src to start.")));
}

TEST_F(FileMediaSrcTest, AConsumerThatRefusesToOpenFailsTheRunAndNothingIsRead) {
  SourceRun run(WriteCamera());
  run.data->on_open = [](MediaInfo* info) {
    info->error = 61;
    return false;
  };
  EXPECT_FALSE(run.source->Prepare());
  EXPECT_EQ(run.source->error_code, 61);
  const std::vector<std::string> prepared{"video open", "audio open", "data open", "video close",
                                          "audio close"};
  EXPECT_THAT(run.journal.Entries(), ElementsAreArray(prepared));
  run.source->Start();
  EXPECT_EQ(run.WaitFor(), kErrorReport);
  run.Finish();
  // Those that were closed while preparing are not closed again.
  std::vector<std::string> all = prepared;
  all.emplace_back("data close");
  EXPECT_THAT(run.journal.Entries(), ElementsAreArray(all));
}

TEST_F(FileMediaSrcTest, AReadErrorIsReportedWithCodeOne) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < 100; ++i) track.Add(Bytes(2000, 1), 10);
  const std::string path = PathOf("input.mp4");
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  WriteMp4(path, {track}, layout);
  const auto bytes = std::make_shared<MemorySource>(ReadFile(path));
  bytes->FailFrom(100000, AVERROR(EIO));
  SourceRun run("memory");
  run.source->SetIOSource(bytes);
  EXPECT_EQ(run.ToTheEnd(), kErrorReport);
  EXPECT_EQ(run.source->error_code, 1);
  EXPECT_EQ(run.source->read_result(), AVERROR(EIO));
  EXPECT_THAT(run.data->stamps, SizeIs(AllOf(Ge(30U), Le(60U))));
  EXPECT_THAT(run.journal.Entries(), Not(Contains("data notify 0"))) << "no end after an error";
  EXPECT_EQ(run.journal.Entries().back(), "data close");
}

TEST_F(FileMediaSrcTest, ARefusedPacketFailsTheRun) {
  SourceRun run(WriteCamera());
  run.audio->on_packet = [&](MediaInfo* info) {
    info->error = 71;
    return run.audio->packets.size() < 5;
  };
  EXPECT_EQ(run.ToTheEnd(), kErrorReport);
  EXPECT_EQ(run.source->error_code, 71);
  EXPECT_THAT(run.audio->packets, SizeIs(5));
  EXPECT_THAT(run.Reports(), SizeIs(1));
  for (const auto& consumer : {run.video, run.audio, run.data}) {
    EXPECT_TRUE(consumer->info()->ended);
  }
}

TEST_F(FileMediaSrcTest, AConsumerThatThrowsFailsTheRun) {
  const RecordLog log;
  SourceRun run(WriteCamera());
  run.data->on_packet = [](MediaInfo* info) -> bool {
    info->error = 81;
    throw std::runtime_error("out of luck");
  };
  EXPECT_EQ(run.ToTheEnd(), kErrorReport);
  EXPECT_EQ(run.source->error_code, 81);
  EXPECT_THAT(run.data->packets, SizeIs(1));
  EXPECT_EQ(run.journal.Entries().back(), "data close");
  const auto records = log.Records();
  EXPECT_TRUE(std::any_of(records.begin(), records.end(), [](const LoggedRecord& record) {
    return record.level == "ERROR" && record.text == "consumer failed: out of luck";
  }));
}

TEST_F(FileMediaSrcTest, AConsumerThatThrowsElsewhereFailsTheRunToo) {
  for (const int32_t code : {MediaMessage::kStart, MediaMessage::kNewRange, MediaMessage::kEnd}) {
    SourceRun run(WriteCamera());
    if (code == MediaMessage::kNewRange) run.source->SetRanges({{0, 100}, {500, 600}});
    run.video->on_notify = [code](MediaInfo* info, int32_t told) -> bool {
      info->error = 82;
      if (told == code) throw std::runtime_error("out of luck");
      return true;
    };
    EXPECT_EQ(run.ToTheEnd(), kErrorReport) << "notification " << code;
    EXPECT_EQ(run.source->error_code, 82);
  }
  SourceRun run(WriteCamera());
  run.audio->on_close = [](MediaInfo* info) -> bool {
    info->error = 83;
    throw std::bad_alloc();
  };
  run.ToTheEnd();
  EXPECT_THAT(run.Reports(), SizeIs(2));
  EXPECT_EQ(run.WaitFor(2), kErrorReport);
  EXPECT_EQ(run.source->error_code, 83);
  EXPECT_EQ(run.journal.Entries().back(), "data close") << "the others are closed all the same";
}

TEST_F(FileMediaSrcTest, ARefusedEndFailsTheRun) {
  SourceRun run(WriteCamera());
  run.audio->on_notify = [](MediaInfo* info, int32_t code) {
    info->error = 91;
    return code != MediaMessage::kEnd;
  };
  EXPECT_EQ(run.ToTheEnd(), kErrorReport);
  EXPECT_EQ(run.source->error_code, 91);
  EXPECT_THAT(run.journal.Entries(), Not(Contains("data notify 0")));
  EXPECT_THAT(run.Reports(), SizeIs(1));
}

TEST_F(FileMediaSrcTest, ARefusedStartChangesNothing) {
  SourceRun run(WriteCamera());
  run.video->on_notify = [](MediaInfo*, int32_t code) { return code != MediaMessage::kStart; };
  EXPECT_EQ(run.ToTheEnd().state, 0);
}

TEST_F(FileMediaSrcTest, AConsumerThatFailsToCloseIsReported) {
  SourceRun run(WriteCamera());
  run.video->on_close = [](MediaInfo* info) {
    info->error = 101;
    return false;
  };
  run.ToTheEnd();
  ASSERT_THAT(run.Reports(), SizeIs(2));
  EXPECT_EQ(run.WaitFor(2), kErrorReport);
  EXPECT_EQ(run.source->error_code, 101);
  EXPECT_EQ(run.journal.Entries().back(), "data close") << "the others are closed all the same";
}

// ---- interrupts, and the end of reading

TEST_F(FileMediaSrcTest, AnInterruptWhileReadingEndsIt) {
  SourceRun run(WriteCamera());
  Gate third;
  Gate interrupted;
  run.data->on_packet = [&](MediaInfo* info) {
    if (run.data->packets.size() == 3) {
      third.Open();
      interrupted.Wait();
      // The data record is marked only at the end of the input.
      EXPECT_FALSE(info->ended);
      EXPECT_TRUE(run.video->info()->ended);
      EXPECT_TRUE(run.audio->info()->ended);
    }
    return true;
  };
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  third.Wait();
  run.source->Interrupt();
  interrupted.Open();
  EXPECT_EQ(run.WaitFor(), kCancelledReport);
  run.Finish();
  EXPECT_THAT(run.data->packets, SizeIs(3)) << "no packet after the interrupt";
  EXPECT_THAT(run.Reports(), SizeIs(1));
  const auto entries = run.journal.Entries();
  EXPECT_THAT(entries, IsSupersetOf({"video interrupt", "audio interrupt", "data interrupt"}));
  EXPECT_THAT(entries, Not(Contains("data notify 0")));
  EXPECT_THAT(std::vector<std::string>(entries.end() - 3, entries.end()),
              ElementsAre("video close", "audio close", "data close"));
}

TEST_F(FileMediaSrcTest, EveryInterruptIsReported) {
  SourceRun run(WriteCamera());
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  run.source->Interrupt();
  run.source->Interrupt();
  EXPECT_EQ(run.WaitFor(2), kCancelledReport);
}

TEST_F(FileMediaSrcTest, AnInterruptBeforeTheStartIsReportedWithIt) {
  SourceRun run(WriteCamera());
  ASSERT_TRUE(run.source->Prepare());
  run.source->Interrupt();
  EXPECT_THAT(run.journal.Entries(), Contains("data interrupt"));
  EXPECT_THAT(run.Reports(), IsEmpty()) << "there is no thread yet to report on";
  run.source->Start();
  EXPECT_EQ(run.WaitFor(), kCancelledReport);
  run.Finish();
  EXPECT_THAT(run.data->packets, IsEmpty());
  EXPECT_THAT(run.Reports(), SizeIs(1));
}

TEST_F(FileMediaSrcTest, AnInterruptWhileAConsumerOpensIsForgottenByNobody) {
  SourceRun run(WriteCamera());
  run.data->on_open = [&](MediaInfo*) {
    run.source->Interrupt();
    return true;
  };
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  EXPECT_EQ(run.WaitFor(), kCancelledReport);
  EXPECT_THAT(run.data->packets, IsEmpty());
}

TEST_F(FileMediaSrcTest, AnInterruptWhileTheEndIsToldIsReportedAfterIt) {
  SourceRun run(WriteCamera());
  Gate at_end;
  Gate interrupted;
  run.data->on_notify = [&](MediaInfo*, int32_t code) {
    if (code == MediaMessage::kEnd) {
      at_end.Open();
      interrupted.Wait();
    }
    return true;
  };
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  at_end.Wait();
  run.source->Interrupt();
  interrupted.Open();
  EXPECT_EQ(run.WaitFor(2), kCancelledReport);
  EXPECT_EQ(run.Reports()[0].state, 0);
}

TEST_F(FileMediaSrcTest, NothingComesAfterClose) {
  SourceRun run(WriteCamera());
  Gate third;
  run.data->on_packet = [&](MediaInfo*) {
    if (run.data->packets.size() == 3) third.Open();
    return true;
  };
  run.source->SetPaced(true);  // a second: it must not be over before it is closed
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  third.Wait();
  run.source->Close();
  const auto entries = run.journal.Entries();
  EXPECT_THAT(std::vector<std::string>(entries.end() - 3, entries.end()),
              ElementsAre("video close", "audio close", "data close"));
  run.source->Interrupt();
  EXPECT_EQ(run.WaitFor(), kCancelledReport) << "the thread still answers";
  run.source->Stop();
  EXPECT_THAT(run.journal.Entries(), Contains("data interrupt"));
  EXPECT_EQ(CountOf(run.journal.Entries(), "data packet"), CountOf(entries, "data packet"));
}

TEST_F(FileMediaSrcTest, EventsThatComeTooLateDoNothing) {
  SourceRun run(WriteCamera());
  ASSERT_TRUE(run.source->Prepare());
  run.source->Start();
  EXPECT_EQ(run.WaitFor().state, 0);
  run.source->Close();
  const auto closed = run.journal.Entries();
  for (const int32_t what : {0, 1, 2, 5, 6, 99}) {
    run.source->HandleEvent(std::make_shared<Event>(what));
  }
  EXPECT_EQ(run.journal.Entries(), closed);
  EXPECT_THAT(run.Reports(), SizeIs(1));
}

TEST_F(FileMediaSrcTest, CloseAndStopTellWhatTheyDoOnce) {
  const RecordLog log;
  const std::string path = WriteCamera();
  {
    SourceRun run(path);
    ASSERT_TRUE(run.source->Prepare());
    run.source->Start();
    EXPECT_EQ(run.WaitFor().state, 0);
    run.source->Close();
    run.source->Close();
    run.source->Stop();
    run.source->Stop();
    EXPECT_EQ(run.source->demuxer(), nullptr);
  }
  std::vector<LoggedRecord> records = log.Records();
  records.erase(std::remove_if(records.begin(), records.end(),
                               [](const LoggedRecord& record) {
                                 return record.site.find("file_media_src") == std::string::npos;
                               }),
                records.end());
  ASSERT_THAT(records, SizeIs(10));
  EXPECT_THAT(std::vector<LoggedRecord>(records.begin(), records.end() - 1),
              ElementsAre(SourceRecord("VERBOSE", 306, "file media src to start."),
                          SourceRecord("VERBOSE", 73, path + " on end."),
                          SourceRecord("INFO", 112, "estimate audio frame duration:21"),
                          SourceRecord("INFO", 117, "estimate video frame duration:33"),
                          SourceRecord("VERBOSE", 557, "perform close"),
                          SourceRecord("VERBOSE", 294, "file_media_src:" + path + " closed."),
                          SourceRecord("VERBOSE", 285, "want to close twice."),
                          SourceRecord("VERBOSE", 300, "file_media_src:" + path + " released."),
                          SourceRecord("VERBOSE", 285, "want to close twice.")));
  EXPECT_EQ(records.back().text, "~FileMediaSrc:");
}

TEST_F(FileMediaSrcTest, NeverStartedItClosesAndStopsWithoutWaiting) {
  for (const bool prepared : {true, false}) {
    SourceRun run(WriteCamera());
    if (prepared) {
      EXPECT_TRUE(run.source->Prepare());
    }
    run.source->Close();
    run.source->Stop();
    run.source->Close();
    run.source->Start();  // too late: nothing happens
    EXPECT_THAT(run.Reports(), IsEmpty());
  }
}

TEST_F(FileMediaSrcTest, StartedWithoutPreparingItFails) {
  SourceRun run(WriteCamera());
  run.source->Start();
  EXPECT_EQ(run.WaitFor(), kErrorReport);
}

TEST_F(FileMediaSrcTest, InterruptsAtAnyMomentEndInOneCleanWay) {
  const std::string path = WriteCamera();
  for (int round = 0; round < 60; ++round) {
    SourceRun run(path);
    ASSERT_TRUE(run.source->Prepare());
    std::thread owner([&] {
      run.source->Start();
      // Spread over the whole run, by work and not by time.
      for (int i = 0; i < round * 40; ++i) run.journal.Add("wait");
      run.source->Interrupt();
      run.source->Close();
      run.source->Stop();
    });
    owner.join();
    std::vector<std::string> entries = run.journal.Entries();
    entries.erase(std::remove(entries.begin(), entries.end(), "wait"), entries.end());
    ASSERT_GE(entries.size(), 3U);
    EXPECT_THAT(std::vector<std::string>(entries.end() - 3, entries.end()),
                ElementsAre("video close", "audio close", "data close"));
  }
}
}  // namespace
}  // namespace lum
