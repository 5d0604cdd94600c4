#include "extraction_report.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <system_error>

#include "av_toolbox/ffmpeg_util.h"

namespace {

constexpr uint32_t kCammTag = MKTAG('c', 'a', 'm', 'm');

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

std::string Reason(int error) { return std::generic_category().message(error); }

std::string TagName(uint32_t tag) {
  if (tag == 0) return "untagged";
  std::array<char, AV_FOURCC_MAX_STRING_SIZE> text{};
  return "tagged " + Quoted(av_fourcc_make_string(text.data(), tag));
}

void CheckStream(const std::string& input, const lum::Demuxer& demuxer,
                 std::vector<std::string>& lines) {
  const AVStream* chosen = demuxer.DataStream();
  if (chosen == nullptr) {
    lines.push_back(input + " has no data stream: there is no motion metadata to extract");
    return;
  }
  if (chosen->codecpar->codec_tag == kCammTag) return;
  std::ostringstream line;
  line << "stream " << chosen->index << " of " << input << ", which was read, is "
       << TagName(chosen->codecpar->codec_tag) << ", not 'camm'";
  const AVStream* camm = nullptr;
  for (unsigned i = 0; i < demuxer.StreamCount() && camm == nullptr; ++i) {
    const AVStream* stream = demuxer.GetStream(i);
    if (stream->codecpar->codec_tag == kCammTag) camm = stream;
  }
  if (camm != nullptr) {
    line << "; stream " << camm->index << " is, but was not chosen";
  } else {
    line << "; no stream of the file is";
  }
  lines.push_back(line.str());
}

void CheckInputWhole(const std::string& input, const lum::FileMediaSrc& source,
                     const CammProcessedFilter& filter, int32_t result,
                     std::vector<std::string>& lines) {
  constexpr int32_t kEnded = 0;
  constexpr int32_t kCanceled = 1;
  std::ostringstream line;
  if (source.read_result() != 0) {
    line << "reading " << input << " failed after " << filter.packet_count()
         << " motion packets: " << lum::FFmpegErrorString(source.read_result()) << '\n';
  } else if (result != kEnded && result != kCanceled) {
    line << "the extraction of " << input << " stopped after " << filter.packet_count()
         << " motion packets; the log has the reason\n";
  }
  if (filter.corrupt_packet_count() > 0) {
    line << input << " is damaged or ends early: " << filter.corrupt_packet_count()
         << " motion packets are cut or corrupt\n";
  }
  const AVStream* stream = source.demuxer()->DataStream();
  const int64_t promised = stream != nullptr ? lum::compat::IndexEntryCount(stream) : 0;
  const bool read_through = source.read_result() != 0 || result == kEnded;
  if (promised == 0 && stream != nullptr && stream->nb_frames > 0 && filter.packet_count() == 0) {
    // FFmpeg leaves an index empty, without an error, when there is no memory for it.
    line << "none of the " << stream->nb_frames << " motion packets of " << input
         << " was read: no memory for its index, or it is broken\n";
  } else if (read_through && filter.packet_count() < promised) {
    line << input << " ends early: " << filter.packet_count() << " of " << promised
         << " motion packets were there\n";
  } else if (const int64_t missing = source.demuxer()->MissingBytes(); missing > 0) {
    line << input << " ends early: " << missing
         << " bytes that its index names are missing, none of them motion packets\n";
  }
  std::istringstream all(line.str());
  for (std::string one; std::getline(all, one);) lines.push_back(one);
}

void CheckOutputs(const CammProcessedFilter& filter, std::vector<std::string>& lines) {
  for (const auto& problem : filter.problems()) {
    lines.push_back(problem.created
                        ? Quoted(problem.path) + " is not whole: " + Reason(problem.error)
                        : "cannot create " + Quoted(problem.path) + ": " + Reason(problem.error));
  }
  if (filter.accelerate_count() > filter.gyro_count()) {
    std::ostringstream line;
    line << filter.accelerate_count() - filter.gyro_count()
         << " accelerometer samples have no gyroscope partner and are not in gyro.dat";
    lines.push_back(line.str());
  }
}

}  // namespace

std::vector<std::string> ExtractionProblems(const std::string& source_path,
                                            const lum::FileMediaSrc& source,
                                            const CammProcessedFilter& filter, int32_t result) {
  const std::string input = Quoted(source_path);
  if (source.open_result() != 0) {
    return {"cannot open " + input + ": " + lum::FFmpegErrorString(source.open_result())};
  }
  std::vector<std::string> lines;
  if (source.demuxer() != nullptr) {
    CheckStream(input, *source.demuxer(), lines);
    if (source.prepared()) CheckInputWhole(input, source, filter, result, lines);
  }
  CheckOutputs(filter, lines);
  if (!source.prepared()) lines.push_back("nothing was extracted from " + input);
  return lines;
}
