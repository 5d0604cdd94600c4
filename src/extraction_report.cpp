#include "extraction_report.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <system_error>

#include "av_toolbox/address.h"
#include "av_toolbox/ffmpeg_util.h"

namespace lum::vela {
namespace {

constexpr uint32_t kCammTag = MKTAG('c', 'a', 'm', 'm');

constexpr std::array<const char*, CammProcessedFilter::kTypes> kTypeNames = {
    "angle-axis", "exposure",    "gyroscope", "acceleration",
    "position",   "minimal GPS", "GPS",       "magnetic field"};

bool IsCamm(const AVStream& stream) { return stream.codecpar->codec_tag == kCammTag; }

// MP4 and its kin name the kind of a data track with four characters. Other containers have a
// number there, or nothing, or as MPEG-TS one name for metadata of any kind.
bool HasName(const AVStream& stream) {
  const uint32_t tag = stream.codecpar->codec_tag;
  return tag > 0xFFFFFF && tag != MKTAG('K', 'L', 'V', 'A');
}

std::string Name(const AVStream& stream) {
  std::array<char, AV_FOURCC_MAX_STRING_SIZE> text{};
  return av_fourcc_make_string(text.data(), stream.codecpar->codec_tag);
}

// As far as the container says.
int64_t PacketCount(const AVStream& stream) {
  return std::max<int64_t>(stream.nb_frames, compat::IndexEntryCount(&stream));
}

// With "?" for control characters, which a terminal might obey.
std::string Printable(const std::string& given) {
  std::string text;
  for (size_t i = 0; i < given.size(); ++i) {
    const auto byte = static_cast<unsigned char>(given[i]);
    const auto next = static_cast<unsigned char>(i + 1 < given.size() ? given[i + 1] : 0);
    // UTF-8 has a second set of control characters, in two bytes.
    const bool wide = byte == 0xC2 && next >= 0x80 && next < 0xA0;
    if (wide) ++i;
    text += wide || byte < 0x20 || byte == 0x7F ? '?' : given[i];
  }
  return text;
}

// The report on one extraction, line by line.
class Report {
 public:
  Report(const std::string& source_path, const FileMediaSrc& source,
         const CammProcessedFilter& filter)
      : input_(Quoted(ShownName(source_path))),
        source_(source),
        filter_(filter),
        tally_(filter.tally()) {}

  std::vector<std::string> Lines() {
    if (source_.open_result() != 0) {
      Add("cannot open ", input_, ": ", Reason(source_.open_result()));
      return std::move(lines_);
    }
    const AVStream* stream =
        source_.demuxer() != nullptr ? source_.demuxer()->DataStream() : nullptr;
    if (source_.demuxer() != nullptr && stream == nullptr) {
      Add(input_, " has no data stream: there is no motion metadata to extract");
    } else if (stream != nullptr) {
      CheckStream(*stream);
    }
    if (source_.prepared()) CheckInputWhole(stream);
    // What another kind of track seems to hold says nothing.
    if (stream != nullptr && (IsCamm(*stream) || !HasName(*stream)))
      CheckSamples(1000 * av_q2d(stream->time_base));
    CheckOutputs();
    if (!source_.prepared() || (stream != nullptr && NothingExtracted())) {
      Add("nothing was extracted from ", input_);
    }
    return std::move(lines_);
  }

 private:
  template <typename... Parts>
  void Add(const Parts&... parts) {
    std::ostringstream line;
    (line << ... << parts);
    lines_.push_back(line.str());
  }

  // What the demuxer knows better than the code that FFmpeg gave.
  [[nodiscard]] std::string Reason(int error) const {
    const bool known = source_.demuxer() != nullptr && !source_.demuxer()->InputProblem().empty();
    return known ? Printable(source_.demuxer()->InputProblem()) : FFmpegErrorString(error);
  }

  [[nodiscard]] bool NothingExtracted() const {
    return std::min(filter_.gyro_count(), filter_.accelerate_count()) == 0 &&
           filter_.exposure_count() == 0 && filter_.gps_count() == 0;
  }

  void CheckStream(const AVStream& chosen) {
    std::ostringstream others;
    for (unsigned i = 0; i < source_.demuxer()->StreamCount(); ++i) {
      const AVStream* stream = source_.demuxer()->GetStream(i);
      if (stream == &chosen || !IsCamm(*stream)) continue;
      others << "; stream " << i << " ('camm', " << PacketCount(*stream) << " packets) was not";
    }
    if (IsCamm(chosen)) {
      if (others.str().empty()) return;
      Add("note: of the motion tracks of ", input_, ", stream ", chosen.index, " (",
          PacketCount(chosen), " packets) was read", others.str());
    } else if (HasName(chosen)) {
      Add("stream ", chosen.index, " of ", input_, ", which was read, is tagged '", Name(chosen),
          "', not 'camm'",
          others.str().empty() ? std::string("; no stream of the file is") : others.str());
    } else {
      Add("note: stream ", chosen.index, " of ", input_,
          " was read as motion metadata: its container does not say what it is", others.str());
    }
  }

  void CheckInputWhole(const AVStream* stream) {
    const int64_t promised = stream != nullptr ? compat::IndexEntryCount(stream) : 0;
    std::ostringstream so_far;
    so_far << " after " << tally_.packets;
    if (promised > 0) so_far << " of " << promised;
    so_far << " motion packets";
    const bool ended = source_.outcome() == RunOutcome::kEnded;
    const bool failed = source_.outcome() == RunOutcome::kReadFailed;
    const char* pipe = source_.demuxer()->IsSeekable()
                           ? ""
                           : " (it comes through a pipe, where an index at its end comes too late)";
    if (failed) {
      Add("reading ", input_, " failed", so_far.str(), ": ", Reason(source_.read_result()), pipe);
    } else if (!ended && source_.outcome() != RunOutcome::kCanceled) {
      Add("the extraction of ", input_, " stopped", so_far.str(), "; the log has the reason");
    }
    if (tally_.corrupt_packets > 0) {
      Add(input_, " is damaged or ends early: ", tally_.corrupt_packets,
          " motion packets are cut or corrupt");
    }
    if (promised == 0 && stream != nullptr && stream->nb_frames > 0 && tally_.packets == 0) {
      // FFmpeg leaves an index empty, without an error, in each of these cases.
      Add("none of the ", stream->nb_frames, " motion packets of ", input_,
          " was read: the track's edit list leaves them all out, its index is broken, or there was"
          " no memory for it");
    } else if (ended && tally_.packets < promised) {
      Add(input_, " ends early: ", tally_.packets, " of ", promised, " motion packets were there",
          pipe);
    } else if (const int64_t missing = source_.demuxer()->MissingBytes(); missing > 0) {
      const bool all_there = ended && tally_.corrupt_packets == 0;
      Add(input_, " ends early: ", missing, " bytes that its index names are missing",
          all_there ? ", none of them motion packets" : "");
    }
  }

  void CheckSamples(double tick_ms) {
    std::ostringstream left_out;
    for (size_t type = 0; type < tally_.left_out.size(); ++type) {
      if (tally_.left_out[type] == 0) continue;
      left_out << (left_out.str().empty() ? "" : ", ") << tally_.left_out[type] << ' '
               << kTypeNames[type] << " (type " << type << ')';
    }
    if (tally_.unknown > 0) {
      left_out << (left_out.str().empty() ? "" : ", ") << tally_.unknown << " of unknown types";
    }
    if (!left_out.str().empty()) {
      Add("note: samples of ", input_, " that are not extracted: ", left_out.str());
    }
    if (tally_.cut > 0) {
      Add(tally_.cut, " samples of ", input_, " are cut short by the end of their packet");
    }
    if (tally_.reread > 0) {
      Add(tally_.reread, " samples were found in the bytes of samples of ", input_,
          " that are not extracted: they need not be real, and later pairs in gyro.dat may have"
          " shifted");
    }
    CheckPairs(tick_ms);
  }

  void CheckPairs(double tick_ms) {
    const size_t gyro = filter_.gyro_count();
    const size_t accelerate = filter_.accelerate_count();
    if (accelerate > gyro) {
      Add(accelerate - gyro,
          " accelerometer samples have no gyroscope partner and are not in gyro.dat (", accelerate,
          " and ", gyro, " samples)");
    } else if (gyro > accelerate) {
      Add("note: ", gyro - accelerate,
          " gyroscope samples have no accelerometer partner and are not in gyro.dat (", gyro,
          " and ", accelerate, " samples)");
    }
    // From half an interval on, another accelerometer sample may be nearer than the partner; beyond
    // a whole one, it is.
    const PairTimes& times = filter_.pair_times();
    const double interval = times.interval();
    if (interval <= 0 || times.largest_gap() <= interval / 2) return;
    Add(times.largest_gap() <= interval ? "note: " : "",
        "accelerometer and gyroscope samples that stand together in gyro.dat are up to ",
        times.largest_gap() * tick_ms, " ms apart (accelerometer samples come every ",
        interval * tick_ms, " ms)");
  }

  void CheckOutputs() {
    for (const auto& problem : filter_.problems()) {
      const std::string reason = problem.error == OutputFile::kIsKept
                                     ? "it is the source itself"
                                     : std::generic_category().message(problem.error);
      if (problem.created) {
        Add(Quoted(problem.path), " is not whole: ", reason);
      } else {
        Add("cannot create ", Quoted(problem.path), ": ", reason);
      }
    }
  }

  const std::string input_;
  const FileMediaSrc& source_;
  const CammProcessedFilter& filter_;
  const CammProcessedFilter::Tally& tally_;
  std::vector<std::string> lines_;
};

}  // namespace

std::string Quoted(const std::string& path) { return "'" + Printable(path) + "'"; }

std::vector<std::string> ExtractionReport(const std::string& source_path,
                                          const FileMediaSrc& source,
                                          const CammProcessedFilter& filter) {
  return Report(source_path, source, filter).Lines();
}

}  // namespace lum::vela
