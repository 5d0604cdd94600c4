#include "camm/recording.h"

#include <algorithm>
#include <utility>

#include "av_toolbox/demuxer.h"
#include "av_toolbox/ffmpeg_util.h"
#include "base/log_message.h"
#include "ffmpeg_input.h"

namespace camm {
namespace {

constexpr std::uint32_t kTag = MKTAG('c', 'a', 'm', 'm');

std::int64_t DurationNs(std::int64_t value, AVRational time_base) {
  return value < 0 ? -1 : ToNanoseconds(value, time_base);
}

std::string Counted(std::int64_t count, const char* one, const char* many) {
  return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

std::string Describe(ProblemKind kind, unsigned type, std::int64_t count) {
  switch (kind) {
    case ProblemKind::kUnknownType:
      return Counted(count, "sample", "samples") + " of the unknown type " + std::to_string(type) +
             ": the rest of the packet is left out";
    case ProblemKind::kCutSample:
      return Counted(count, "sample is", "samples are") + " cut off by the end of the packet";
    case ProblemKind::kReservedBytes:
      return Counted(count, "sample has", "samples have") + " reserved bytes that are not zero";
    case ProblemKind::kMissingTime:
      return Counted(count, "packet has", "packets have") + " no time";
    case ProblemKind::kTruncatedFile:
      return "the file ends " + Counted(count, "byte", "bytes") + " before the data it names";
    case ProblemKind::kReadError:
      return "reading stopped before the end";
    case ProblemKind::kSeveralTracks:
      return "the file holds " + std::to_string(count) + " camm tracks";
  }
  return {};
}

/// Collects what is wrong: one entry a kind and type, in order of appearance.
class Problems {
 public:
  void Add(ProblemKind kind, std::int64_t time_ns, unsigned type = 0, std::int64_t count = 1) {
    const auto same = std::find_if(all_.begin(), all_.end(), [&](const Entry& entry) {
      return entry.problem.kind == kind && entry.type == type;
    });
    if (same != all_.end()) {
      same->problem.count += count;
    } else if (all_.size() < kMost) {
      all_.push_back({type, {kind, count, time_ns, {}}});
    }
  }

  [[nodiscard]] std::vector<Problem> Take() const {
    std::vector<Problem> taken;
    for (const Entry& entry : all_) {
      taken.push_back(entry.problem);
      taken.back().text = Describe(entry.problem.kind, entry.type, entry.problem.count);
    }
    return taken;
  }

 private:
  struct Entry {
    unsigned type;
    Problem problem;
  };
  static constexpr std::size_t kMost = 100;  // garbage has up to 65,536 types
  std::vector<Entry> all_;
};

bool Damages(ProblemKind kind) {
  return kind != ProblemKind::kReservedBytes && kind != ProblemKind::kSeveralTracks;
}

/// One reading of a file.
class Reader {
 public:
  Reader(const Input& input, const ReadOptions& options)
      : options_(options), demuxer_(PlainPath(input.path)) {
    const int opened = demuxer_.Open(nullptr, input.io);
    // A video whose decoder settings are broken fails too; the motion track can be read all the
    // same.
    if (opened != 0 && demuxer_.StreamCount() == 0) {
      result_.error = demuxer_.InputProblem().empty() ? lum::FFmpegErrorString(opened)
                                                      : demuxer_.InputProblem();
      return;
    }
    DescribeFile();
    PickTrack();
    if (result_.status == Status::kWhole) Begin();
  }

  /// Reads the track's next packet; its bytes live until the next call.
  /// @return false at the end, and where there is nothing to read.
  bool Next(Packet& packet) {
    if (result_.status != Status::kWhole) return false;
    int error = 0;
    while ((error = demuxer_.ReadPacket(packet_)) == 0) {
      if (!others_skipped_) AfterFirstPacket();
      if (packet_->stream_index != picked_->stream_index) continue;
      ++result_.packets;
      std::int64_t time_ns = ToNanoseconds(packet_->pts, time_base_);
      if (time_ns == kNoTime) {
        problems_.Add(ProblemKind::kMissingTime, kNoTime);
      } else {
        time_ns = SaturatingSub(time_ns, origin_ns_);
      }
      packet = {time_ns, packet_->data, static_cast<std::size_t>(std::max(packet_->size, 0))};
      return true;
    }
    if (error != AVERROR_EOF) {
      problems_.Add(ProblemKind::kReadError, kNoTime);
      result_.error =
          demuxer_.InputProblem().empty() ? lum::FFmpegErrorString(error) : demuxer_.InputProblem();
    }
    return false;
  }

  [[nodiscard]] Problems& problems() { return problems_; }

  /// The result of what was read, judged by what was found in it.
  /// @param empty whether nothing was found.
  ReadResult Finish(bool empty) {
    if (result_.status != Status::kWhole) return std::move(result_);
    result_.problems = problems_.Take();
    const bool damaged = std::any_of(result_.problems.begin(), result_.problems.end(),
                                     [](const Problem& problem) { return Damages(problem.kind); });
    if (empty) {
      result_.status = Status::kNoSamples;
      if (result_.error.empty()) result_.error = "the camm track holds no sample";
    } else if (damaged) {
      result_.status = Status::kPartial;
    }
    return std::move(result_);
  }

 private:
  void DescribeFile() {
    const AVFormatContext& context = *demuxer_.Context();
    result_.format = context.iformat->name;
    result_.duration_ns = DurationNs(context.duration, AVRational{1, AV_TIME_BASE});
    const AVStream* video = demuxer_.VideoStream();
    bool has_index = false;  // where one stream is counted, all are
    for (unsigned i = 0; i < demuxer_.StreamCount(); ++i) {
      has_index = has_index || demuxer_.GetStream(i)->nb_frames > 0;
    }
    for (unsigned i = 0; i < demuxer_.StreamCount(); ++i) {
      const AVStream* stream = demuxer_.GetStream(i);
      if (stream->codecpar->codec_tag != kTag) continue;
      Track track;
      track.stream_index = static_cast<int>(i);
      if (has_index) track.packets = lum::compat::IndexEntryCount(stream);
      track.time_base_num = stream->time_base.num;
      track.time_base_den = stream->time_base.den;
      track.start_ns = ToNanoseconds(stream->start_time, stream->time_base);
      track.duration_ns = DurationNs(stream->duration, stream->time_base);
      result_.tracks.push_back(track);
    }
    if (video == nullptr) return;
    result_.video.stream_index = video->index;
    result_.video.codec = avcodec_get_name(video->codecpar->codec_id);
    result_.video.width = video->codecpar->width;
    result_.video.height = video->codecpar->height;
    if (video->nb_frames > 0) result_.video.frames = video->nb_frames;
    if (video->avg_frame_rate.num > 0 && video->avg_frame_rate.den > 0) {
      result_.video.frame_rate_hz = av_q2d(video->avg_frame_rate);
    }
    result_.video.start_ns = ToNanoseconds(video->start_time, video->time_base);
    result_.video.duration_ns = DurationNs(video->duration, video->time_base);
  }

  void PickTrack() {
    std::vector<Track>& tracks = result_.tracks;
    const auto wanted = std::find_if(tracks.begin(), tracks.end(), [this](const Track& track) {
      return options_.stream_index >= 0 ? track.stream_index == options_.stream_index
                                        : track.packets != 0;
    });
    if (wanted != tracks.end()) {
      picked_ = &*wanted;
    } else if (options_.stream_index < 0 && !tracks.empty()) {
      picked_ = &tracks.front();  // all are empty
    } else {
      result_.status = Status::kNoTrack;
      result_.error = tracks.empty() ? "there is no camm track"
                                     : "stream " + std::to_string(options_.stream_index) +
                                           " is not a camm track";
      return;
    }
    picked_->read = true;
    result_.status = Status::kWhole;
  }

  /// The container then steps over the other streams' bytes, as far as it can.
  void SkipOtherStreams() {
    for (unsigned i = 0; i < demuxer_.StreamCount(); ++i) {
      if (static_cast<int>(i) != picked_->stream_index) demuxer_.DiscardStream(i);
    }
  }

  void Begin() {
    if (options_.on_open) options_.on_open(result_);
    if (result_.tracks.size() > 1) {
      problems_.Add(ProblemKind::kSeveralTracks, kNoTime, 0,
                    static_cast<std::int64_t>(result_.tracks.size()));
    }
    if (const std::int64_t missing = demuxer_.MissingBytes(); missing > 0) {
      problems_.Add(ProblemKind::kTruncatedFile, kNoTime, 0, missing);
    }
    time_base_ = demuxer_.GetStream(static_cast<unsigned>(picked_->stream_index))->time_base;
  }

  /// The origin may be a packet of any stream: only after it can the others be skipped. Where it is
  /// none, after the first packet all the same: the demuxer then knows how FFmpeg reads this file,
  /// and can read the rest by its index.
  void AfterFirstPacket() {
    if (options_.origin == Origin::kFirstPacket && !FindOrigin()) return;
    others_skipped_ = true;
    SkipOtherStreams();
  }

  bool FindOrigin() {
    const std::int64_t placed = packet_->dts != AV_NOPTS_VALUE ? packet_->dts : packet_->pts;
    const AVStream* stream = demuxer_.GetStream(static_cast<unsigned>(packet_->stream_index));
    const std::int64_t time = ToNanoseconds(placed, stream->time_base);
    if (time == kNoTime) return false;
    origin_ns_ = time;
    return true;
  }

  const ReadOptions options_;
  lum::Demuxer demuxer_;
  Track* picked_ = nullptr;  // in `result_`; the vector no longer changes
  ReadResult result_;
  Problems problems_;
  AVRational time_base_{0, 1};
  bool others_skipped_ = false;
  std::int64_t origin_ns_ = 0;
  std::shared_ptr<lum::QVXPacket> packet_;
};

/// A reader, with the samples of each packet counted and their defects noted.
class SampleCounter {
 public:
  SampleCounter(Reader& reader, std::function<void(const TimedSample&)> on_sample)
      : reader_(reader), on_sample_(std::move(on_sample)) {}

  bool NextPacket() {
    Packet packet{};
    if (!reader_.Next(packet)) return false;
    time_ns_ = packet.time_ns;
    Decode(packet.data, packet.size, sample_of_packet_, defect_of_packet_);
    return true;
  }

  ReadResult Finish() {
    ReadResult result = reader_.Finish(
        std::all_of(counts_.begin(), counts_.end(), [](auto count) { return count == 0; }));
    result.counts = counts_;
    return result;
  }

 private:
  void OnDefect(const Defect& defect) {
    switch (defect.kind) {
      case DefectKind::kUnknownType:
        return reader_.problems().Add(ProblemKind::kUnknownType, time_ns_, defect.type);
      case DefectKind::kCutSample:
        return reader_.problems().Add(ProblemKind::kCutSample, time_ns_);
      case DefectKind::kReservedBytes:
        return reader_.problems().Add(ProblemKind::kReservedBytes, time_ns_);
    }
  }

  Reader& reader_;
  const std::function<void(const TimedSample&)> on_sample_;
  std::array<std::int64_t, kTypeCount> counts_{};
  std::int64_t time_ns_ = kNoTime;
  // Made once: a packet usually holds one sample, and there are millions of them.
  const std::function<void(const Sample&)> sample_of_packet_ = [this](const Sample& sample) {
    ++counts_[sample.index()];
    on_sample_({time_ns_, sample});
  };
  const std::function<void(const Defect&)> defect_of_packet_ = [this](const Defect& defect) {
    OnDefect(defect);
  };
};

}  // namespace

void SilenceMessages() {
  av_log_set_level(AV_LOG_QUIET);
  lum::GetLogConfig().min_level = static_cast<int32_t>(lum::LogLevel::kError) + 1;
}

ReadResult StreamPackets(const Input& input, const ReadOptions& options,
                         const std::function<void(const Packet&)>& on_packet) {
  Reader reader(input, options);
  bool empty = true;
  for (Packet packet{}; reader.Next(packet); empty = false) on_packet(packet);
  return reader.Finish(empty);
}

ReadResult Stream(const Input& input, const ReadOptions& options,
                  const std::function<void(const TimedSample&)>& on_sample) {
  Reader reader(input, options);
  SampleCounter samples(reader, on_sample);
  while (samples.NextPacket()) {
  }
  return samples.Finish();
}

struct SampleReader::State {
  State(const Input& input, const ReadOptions& options)
      : reader(input, options),
        samples(reader, [this](const TimedSample& sample) { batch->push_back(sample); }) {}

  std::vector<TimedSample>* batch = nullptr;
  Reader reader;
  SampleCounter samples;
};

SampleReader::SampleReader(const Input& input, const ReadOptions& options)
    : state_(std::make_unique<State>(input, options)) {}

SampleReader::~SampleReader() = default;

bool SampleReader::Next(std::vector<TimedSample>& batch, std::size_t at_least) {
  batch.clear();
  state_->batch = &batch;
  while (batch.size() < at_least && state_->samples.NextPacket()) {
  }
  return !batch.empty();
}

ReadResult SampleReader::Finish() { return state_->samples.Finish(); }

Recording Read(const Input& input, const ReadOptions& options) {
  Recording recording;
  recording.result = Stream(input, options, [&recording](const TimedSample& sample) {
    std::visit(
        [&](const auto& value) {
          using Type = std::decay_t<decltype(value)>;
          recording.Of<Type>().push_back({sample.time_ns, value});
        },
        sample.sample);
  });
  return recording;
}

}  // namespace camm
