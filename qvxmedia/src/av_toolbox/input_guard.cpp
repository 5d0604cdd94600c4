#include "av_toolbox/input_guard.h"

#include <algorithm>

extern "C" {
#include <libavutil/avstring.h>
}

#include "av_toolbox/ffmpeg_util.h"

namespace lum {
namespace {

// FFmpeg parses what it has read for probing in one go, before it is asked for here again: at least
// that much is judged as a whole.
constexpr size_t kBeginning = size_t{64} * 1024;

constexpr std::string_view kFragmentRun = "trun";
constexpr std::string_view kFragmentIndex = "sidx";
constexpr std::string_view kCompressedHeader = "dcomzlib";
static_assert(kCompressedHeader.size() == InputGuard::kLongestMark);
constexpr std::string_view kMarks[] = {kFragmentRun, kFragmentIndex, kCompressedHeader};

constexpr const char* kListFormats[] = {"concat", "dash", "hls", "imf", "sdp", "vobsub"};

constexpr char kFragmentsWithoutTrack[] = "it has fragments, and a track without a number";
constexpr char kHeaderIsCompressed[] = "its header is compressed";

bool StartsWith(std::string_view bytes, std::string_view beginning) {
  return bytes.substr(0, beginning.size()) == beginning;
}

// Where the first mark, or what may become one with the next bytes, begins; not at 0.
size_t FindMark(std::string_view bytes) {
  size_t first = bytes.size();
  for (const std::string_view mark : kMarks) {
    first = std::min(first, bytes.find(mark, 1));
    for (size_t length = mark.size() - 1; length > 0; --length) {
      if (length >= bytes.size()) continue;
      const size_t at = bytes.size() - length;
      if (bytes.substr(at) == mark.substr(0, length)) first = std::min(first, at);
    }
  }
  return first;
}

// Whether a track header (ISO/IEC 14496-12, 8.3.2), from its type on, has a number that FFmpeg
// holds as a negative one.
bool HasUnusableNumber(std::string_view header) {
  constexpr size_t kVersion = 4;
  if (header.size() <= kVersion) return false;
  const size_t number = header[kVersion] == 1 ? 24 : 16;
  return number < header.size() && (static_cast<uint8_t>(header[number]) & 0x80) != 0;
}

// Whether a track does not begin with its header, or has an unusable number. It goes by the types'
// bytes wherever they stand, since FFmpeg parses boxes also where none belong.
bool HasOddTrack(std::string_view bytes) {
  constexpr size_t kToFirstBox = 8;
  constexpr size_t kNone = std::string_view::npos;
  for (size_t at = bytes.find("trak"); at != kNone; at = bytes.find("trak", at + 1)) {
    const size_t first_box = at + kToFirstBox;
    if (first_box + 4 <= bytes.size() && !StartsWith(bytes.substr(first_box), "tkhd")) return true;
  }
  for (size_t at = bytes.find("tkhd"); at != kNone; at = bytes.find("tkhd", at + 1)) {
    if (HasUnusableNumber(bytes.substr(at))) return true;
  }
  return false;
}

}  // namespace

std::string InputGuard::ListRefusal(const AVFormatContext* format) {
  if (format == nullptr || format->iformat == nullptr) return {};
  for (const char* name : kListFormats) {
    if (av_match_name(name, format->iformat->name) == 0) continue;
    return std::string("it is a list of other files or addresses (") + name +
           "), and only what is named is read";
  }
  return {};
}

const std::string& InputGuard::Refusal() {
  if (refusal_.empty()) refusal_ = ListRefusal(format_);
  return refusal_;
}

size_t InputGuard::Admit(std::string_view bytes) {
  if (off_ || IsOtherFormat()) return bytes.size();
  LookAtBeginning(bytes);
  if (StartsWith(bytes, kFragmentRun) && HasTrackWithoutNumber()) refusal_ = kFragmentsWithoutTrack;
  if (StartsWith(bytes, kCompressedHeader)) refusal_ = kHeaderIsCompressed;
  if (!refusal_.empty()) return 0;
  fragmented_ = fragmented_ || StartsWith(bytes, kFragmentRun) || StartsWith(bytes, kFragmentIndex);
  const size_t admitted = FindMark(bytes);
  position_ += static_cast<int64_t>(admitted);
  return admitted;
}

// Unknown while the input is probed.
bool InputGuard::IsOtherFormat() const {
  return format_ != nullptr && format_->iformat != nullptr && !IsMp4(*format_);
}

bool InputGuard::HasTrackWithoutNumber() const {
  if (format_ == nullptr) return false;
  return std::any_of(format_->streams, format_->streams + format_->nb_streams,
                     [](const AVStream* stream) { return stream->id < 0; });
}

void InputGuard::LookAtBeginning(std::string_view bytes) {
  const auto seen = static_cast<int64_t>(beginning_.size());
  if (beginning_.size() >= kBeginning || position_ > seen ||
      position_ + static_cast<int64_t>(bytes.size()) <= seen) {
    return;
  }
  beginning_ += bytes.substr(static_cast<size_t>(seen - position_), kBeginning - beginning_.size());
  const bool runs = beginning_.find(kFragmentRun) != std::string::npos;
  if (runs && HasOddTrack(beginning_)) refusal_ = kFragmentsWithoutTrack;
}

}  // namespace lum
