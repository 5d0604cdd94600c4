#include "camm/track_writer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "file_reader.h"
#include "mp4_boxes.h"
#include "output_file.h"
#include "time_conversion.h"

namespace camm {
namespace {

using mp4::Type;

constexpr std::uint32_t kOwnMovieScale = 1000;
constexpr std::int64_t kMax32 = std::numeric_limits<std::uint32_t>::max();
// The format has 32 bits without sign; common readers take the upper half for mistakes.
constexpr std::int64_t kMaxDelta = std::numeric_limits<std::int32_t>::max();
// The same is true of composition offsets, where FFmpeg gives up the whole table.
constexpr std::int64_t kMaxOffset = (std::int64_t{1} << 28) - 1;
constexpr std::int64_t kMostBridges = 1000;  // packets without a byte
constexpr std::uint32_t kPacketsInChunk = 1024;
constexpr std::uint32_t kMediaHeader = 16;  // of mdat, with the long size

struct Unsuitable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::int64_t Ticks(std::int64_t time_ns, std::int64_t scale) {
  return MulDiv(time_ns, scale, kNanosecondsPerSecond);
}

/// Whether all times read back to the nanosecond.
bool IsExact(const std::vector<std::int64_t>& times_ns, std::int64_t scale) {
  return std::all_of(times_ns.begin(), times_ns.end(), [scale](std::int64_t time_ns) {
    return MulDiv(Ticks(time_ns, scale), kNanosecondsPerSecond, scale) == time_ns;
  });
}

/// Whether the tables can hold the times; see TrackWriter.
bool Fits(const std::vector<std::int64_t>& times_ns, std::int64_t scale) {
  std::int64_t earliest = 0;
  std::int64_t bridges = 0;
  std::int64_t backwards = 0;
  for (const std::int64_t time_ns : times_ns) earliest = std::min(earliest, Ticks(time_ns, scale));
  if (earliest < -kMaxOffset) return false;
  std::int64_t latest = earliest;
  for (const std::int64_t time_ns : times_ns) {
    const std::int64_t ticks = Ticks(time_ns, scale);
    const std::int64_t ahead = SaturatingSub(ticks, latest);
    bridges = SaturatingAdd(bridges, std::max<std::int64_t>(ahead, 0) / kMaxDelta);
    backwards = std::max(backwards, -ahead);
    latest = std::max(latest, ticks);
  }
  return bridges <= kMostBridges && backwards - earliest <= kMaxOffset;
}

std::uint32_t ChooseTimeScale(const std::vector<std::int64_t>& times_ns, std::uint32_t wanted) {
  std::int64_t divisor = kNanosecondsPerSecond;
  for (const std::int64_t time_ns : times_ns) divisor = std::gcd(divisor, time_ns);
  for (const std::uint32_t scale :
       {wanted, 1000U, 24000U, 30000U, 48000U, 60000U, 90000U, 1'000'000U,
        static_cast<std::uint32_t>(kNanosecondsPerSecond / divisor)}) {
    if (scale > 0 && IsExact(times_ns, scale) && Fits(times_ns, scale)) return scale;
  }
  for (auto scale = static_cast<std::uint32_t>(kNanosecondsPerSecond); scale > 0; scale /= 10) {
    if (Fits(times_ns, scale)) return scale;
  }
  throw OutputError("the samples' times lie too far apart");
}

/// A packet in the track's tables.
struct Entry {
  std::uint32_t delta;  ///< to the next, in ticks
  std::int32_t offset;  ///< of the presentation, in ticks
  std::uint32_t size;
};

/// stts and ctts are runs of equal values.
class RunTable {
 public:
  void Add(std::uint32_t value) {
    if (runs_.empty() || runs_.back().second != value) runs_.emplace_back(0, value);
    ++runs_.back().first;
  }
  [[nodiscard]] bool AllZero() const {
    return runs_.empty() || (runs_.size() == 1 && runs_[0].second == 0);
  }
  void Write(mp4::Writer& out, std::uint32_t type, unsigned version) const {
    out.FullBox(type, version, 0, [&] {
      out.U32(runs_.size());
      for (const auto& [count, value] : runs_) {
        out.U32(count);
        out.U32(value);
      }
    });
  }

 private:
  std::vector<std::pair<std::uint32_t, std::uint32_t>> runs_;
};

/// The packets' tables, with what bridges gaps.
class Tables {
 public:
  Tables(const std::vector<std::int64_t>& times_ns, const std::vector<std::uint32_t>& sizes,
         std::uint32_t scale) {
    std::vector<std::int64_t> ticks;
    ticks.reserve(times_ns.size());
    for (const std::int64_t time_ns : times_ns) ticks.push_back(Ticks(time_ns, scale));
    const std::int64_t earliest =
        std::min<std::int64_t>(0, *std::min_element(ticks.begin(), ticks.end()));
    entries_.reserve(sizes.size() + 1);
    std::int64_t decode_time = earliest;  // of the next packet; the table counts it from 0
    for (std::size_t i = 0; i < ticks.size(); ++i) {
      AdvanceTo(std::max(decode_time, ticks[i]), decode_time, earliest);
      entries_.push_back(
          {0, static_cast<std::int32_t>(ticks[i] - decode_time + earliest), sizes[i]});
    }
    // The last packet lasts as long as the last before it that isn't followed by one of its time.
    const auto lasting = std::find_if(entries_.rbegin(), entries_.rend(),
                                      [](const Entry& entry) { return entry.delta > 0; });
    if (lasting != entries_.rend()) entries_.back().delta = lasting->delta;
    for (const Entry& entry : entries_) duration_ += entry.delta;
    ends_ = SaturatingAdd(earliest, duration_);
    negative_ = earliest < 0;
  }

  [[nodiscard]] std::int64_t duration() const { return duration_; }
  /// When the last packet ends, in ticks.
  [[nodiscard]] std::int64_t ends() const { return std::max<std::int64_t>(ends_, 0); }
  [[nodiscard]] bool negative() const { return negative_; }

  void Write(mp4::Writer& out, std::uint64_t first_byte) const {
    RunTable deltas;
    RunTable offsets;
    for (const Entry& entry : entries_) {
      deltas.Add(entry.delta);
      offsets.Add(static_cast<std::uint32_t>(entry.offset));
    }
    deltas.Write(out, Type("stts"), 0);
    if (!offsets.AllZero()) offsets.Write(out, Type("ctts"), 1);
    WriteSizes(out);
    WriteChunks(out, first_byte);
  }

 private:
  /// Goes on to a later time: the last packet lasts till then, with empty ones where its duration
  /// can't hold that, or where there is no packet yet.
  void AdvanceTo(std::int64_t target, std::int64_t& decode_time, std::int64_t earliest) {
    const auto bridge = [&] { entries_.push_back({0, static_cast<std::int32_t>(earliest), 0}); };
    if (entries_.empty() && target > decode_time) bridge();
    while (target > decode_time) {
      const std::int64_t step = std::min(target - decode_time, kMaxDelta);
      entries_.back().delta = static_cast<std::uint32_t>(step);
      decode_time += step;
      if (target > decode_time) bridge();
    }
  }

  void WriteSizes(mp4::Writer& out) const {
    const bool equal = std::all_of(entries_.begin(), entries_.end(), [this](const Entry& entry) {
      return entry.size == entries_[0].size;
    });
    out.FullBox(Type("stsz"), 0, 0, [&] {
      out.U32(equal ? entries_[0].size : 0);
      out.U32(entries_.size());
      if (equal) return;
      for (const Entry& entry : entries_) out.U32(entry.size);
    });
  }

  void WriteChunks(mp4::Writer& out, std::uint64_t offset) const {
    std::vector<std::uint64_t> chunks;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (i % kPacketsInChunk == 0) chunks.push_back(offset);
      offset += entries_[i].size;
    }
    const std::size_t rest = entries_.size() % kPacketsInChunk;
    out.FullBox(Type("stsc"), 0, 0, [&] {
      const bool several = chunks.size() > 1 && rest != 0;
      const auto run = [&out](std::size_t first_chunk, std::size_t packets) {
        out.U32(first_chunk);
        out.U32(packets);
        out.U32(1);  // sample description
      };
      out.U32(several ? 2 : 1);
      run(1, chunks.size() > 1 || rest == 0 ? kPacketsInChunk : rest);
      if (several) run(chunks.size(), rest);
    });
    const bool wide = chunks.back() > std::numeric_limits<std::uint32_t>::max();
    out.FullBox(wide ? Type("co64") : Type("stco"), 0, 0, [&] {
      out.U32(chunks.size());
      for (const std::uint64_t chunk : chunks) wide ? out.U64(chunk) : out.U32(chunk);
    });
  }

  std::vector<Entry> entries_;
  std::int64_t duration_ = 0;
  std::int64_t ends_ = 0;
  bool negative_ = false;
};

/// What the new track's boxes say besides its packets.
struct TrackHeader {
  std::uint32_t id = 1;
  std::uint32_t time_scale = 0;
  std::uint32_t movie_scale = kOwnMovieScale;
  bool with_edit_list = false;
};

void WriteMatrix(mp4::Writer& out) {  // identity
  for (const std::uint32_t element : {0x10000U, 0U, 0U, 0U, 0x10000U, 0U, 0U, 0U, 0x40000000U}) {
    out.U32(element);
  }
}

/// In the movie's time scale, rounded up: an edit must not cut the last packet off.
std::uint64_t MovieDuration(const Tables& tables, const TrackHeader& header) {
  return static_cast<std::uint64_t>(
      SaturatingAdd(MulDiv(tables.ends(), header.movie_scale, header.time_scale), 1));
}

void WriteTrack(mp4::Writer& out, const TrackHeader& header, const Tables& tables,
                std::uint64_t first_byte) {
  const std::uint64_t duration = MovieDuration(tables, header);
  out.Box(Type("trak"), [&] {
    out.FullBox(Type("tkhd"), 1, /*enabled, in the movie=*/3, [&] {
      out.Zeros(16);  // creation, modification: unknown
      out.U32(header.id);
      out.Zeros(4);
      out.U64(duration);
      out.Zeros(16);  // reserved, layer, group, volume
      WriteMatrix(out);
      out.Zeros(8);  // width, height
    });
    if (header.with_edit_list) {
      out.Box(Type("edts"), [&] {
        out.FullBox(Type("elst"), 1, 0, [&] {
          out.U32(1);
          out.U64(duration);
          out.U64(0);        // media time
          out.U32(0x10000);  // rate
        });
      });
    }
    out.Box(Type("mdia"), [&] {
      out.FullBox(Type("mdhd"), 1, 0, [&] {
        out.Zeros(16);
        out.U32(header.time_scale);
        out.U64(static_cast<std::uint64_t>(tables.duration()));
        out.U16(0x55C4);  // language: undetermined
        out.U16(0);
      });
      out.FullBox(Type("hdlr"), 0, 0, [&] {
        out.U32(0);
        out.U32(Type("meta"));
        out.Zeros(12);
        static constexpr char kName[] = "Camera Motion Metadata";
        out.Append({reinterpret_cast<const std::uint8_t*>(kName), sizeof kName});
      });
      out.Box(Type("minf"), [&] {
        out.FullBox(Type("nmhd"), 0, 0, [] {});
        out.Box(Type("dinf"), [&] {
          out.FullBox(Type("dref"), 0, 0, [&] {
            out.U32(1);
            out.FullBox(Type("url "), 0, /*in this file=*/1, [] {});
          });
        });
        out.Box(Type("stbl"), [&] {
          out.FullBox(Type("stsd"), 0, 0, [&] {
            out.U32(1);
            out.Box(Type("camm"), [&] {
              out.Zeros(6);
              out.U16(1);  // data reference
            });
          });
          tables.Write(out, first_byte);
        });
      });
    });
  });
}

void WriteOwnMovieHeader(mp4::Writer& out) {
  out.FullBox(Type("mvhd"), 1, 0, [&] {
    out.Zeros(16);
    out.U32(kOwnMovieScale);
    out.U64(0);        // duration: set with the others'
    out.U32(0x10000);  // rate
    out.U16(0x100);    // volume
    out.Zeros(10);
    WriteMatrix(out);
    out.Zeros(24);
    out.U32(1);  // the next track's id
  });
}

/// A copy of the movie's header with another duration and next track id.
void WriteMovieHeader(mp4::Writer& out, mp4::View whole, std::uint64_t duration,
                      std::uint32_t next_id) {
  const std::size_t start = out.bytes.size();
  out.Append(whole);
  const bool long_times = out.bytes[start + 8] == 1;
  const std::size_t duration_at = start + 12 + (long_times ? 20 : 12);
  const std::size_t needed = duration_at + (long_times ? 8 : 4) + 80;
  if (out.bytes.size() < needed) throw Unsuitable("its movie header is too short");
  if (long_times) {
    out.PatchU32(duration_at, duration >> 32);
    out.PatchU32(duration_at + 4, duration);
  } else {
    out.PatchU32(duration_at, std::min<std::uint64_t>(duration, kMax32));
  }
  out.PatchU32(out.bytes.size() - 4, next_id);
}

/// The video: its index, and how its bytes are taken over.
class Source {
 public:
  Source(const std::string& path, ExistingTrack existing) : file_(path), existing_(existing) {
    if (!file_.ok()) throw Unsuitable(std::generic_category().message(errno));
    if (file_.Size() < 0) throw Unsuitable("it is not a regular file");
    layout_ = ReadLayout(file_);
    const mp4::TopBox* moov = layout_.Find(Type("moov"));
    if (layout_.cut_type == Type("mdat") || layout_.cut_type == Type("moov")) {
      throw Unsuitable("the file is cut off");
    }
    if (moov == nullptr) throw Unsuitable("it is no MP4 or QuickTime file");
    moov_ = *moov;
    auto content = ReadContent(file_, moov_, mp4::kMovieLimit);
    if (!content) throw Unsuitable("its index can't be read");
    content_ = std::move(*content);
    auto movie = mp4::ParseMovie(view());
    if (!movie) throw Unsuitable("its index is broken");
    movie_ = std::move(*movie);
    if (movie_.fragmented || layout_.Find(Type("moof")) != nullptr) {
      throw Unsuitable("it is in fragments, which can't be added to; remux it without them first");
    }
    if (existing == ExistingTrack::kRefuse) {
      for (const mp4::Track& track : movie_.tracks) {
        if (IsMotion(track)) throw Unsuitable("it holds a camm track already");
      }
    }
  }

  /// Everything but the index, at the same places.
  void CopyTo(OutputFile& out) {
    // At the file's end the index leaves no trace; elsewhere its bytes must go on being there.
    const bool index_is_last = moov_.offset + moov_.size == layout_.end;
    out.AppendFrom(file_.descriptor(), 0, index_is_last ? moov_.offset : layout_.end);
    if (!index_is_last) {
      static constexpr std::array<std::uint8_t, 4> kFree{'f', 'r', 'e', 'e'};
      out.Patch(moov_.offset + 4, kFree.data(), kFree.size());
    }
    const mp4::TopBox& last = layout_.boxes.back();
    if (!last.to_the_end || index_is_last) return;
    // Its size is to be stated now. A long one needs eight bytes more, which QuickTime files keep
    // free in front of it.
    mp4::Writer size;
    if (last.size <= kMax32) {
      size.U32(last.size);
      return out.Patch(last.offset, size.bytes.data(), size.bytes.size());
    }
    if (layout_.boxes.size() < 2) throw Unsuitable("its media data has no size");
    const mp4::TopBox& before = layout_.boxes[layout_.boxes.size() - 2];
    if (before.size != 8 || (before.type != Type("wide") && before.type != Type("free"))) {
      throw Unsuitable("its media data has no size, and no room for one");
    }
    size.U32(1);
    size.U32(last.type);
    size.U64(last.size + 8);
    out.Patch(before.offset, size.bytes.data(), size.bytes.size());
  }

  /// What follows the last box: not a box, so that it can stand after the new ones.
  void CopyTrailerTo(OutputFile& out) {
    const auto size = static_cast<std::uint64_t>(file_.Size());
    if (size > layout_.end) out.AppendFrom(file_.descriptor(), layout_.end, size - layout_.end);
  }

  [[nodiscard]] TrackHeader NewTrack() const {
    TrackHeader header;
    header.movie_scale = movie_.time_scale;
    std::uint32_t largest = 0;
    for (const mp4::Track& track : movie_.tracks) {
      largest = std::max(largest, track.id);
      header.with_edit_list = header.with_edit_list || !track.edits.empty();
    }
    if (const mp4::Track* replaced = Replaced()) {
      header.id = replaced->id;  // other tracks may refer to it
    } else if (largest == kMax32) {
      throw Unsuitable("its track numbers are used up");
    } else {
      header.id = largest + 1;
    }
    return header;
  }

  /// The children of the index: the video's, and the new track's.
  template <typename WriteNew>
  void WriteIndex(mp4::Writer& out, std::uint64_t duration, WriteNew&& write_new) const {
    const mp4::Track* replaced = Replaced();
    std::uint32_t next_id = NewTrack().id;
    std::size_t last_track = 0;
    const std::vector<mp4::Child> children = mp4::Children(view());
    for (std::size_t i = 0; i < children.size(); ++i) {
      if (children[i].type == Type("trak")) last_track = i;
    }
    for (const mp4::Track& track : movie_.tracks) next_id = std::max(next_id, track.id);
    bool written = false;
    std::size_t track_number = 0;
    for (std::size_t i = 0; i < children.size(); ++i) {
      if (children[i].type == Type("mvhd")) {
        WriteMovieHeader(out, children[i].whole, std::max(duration, movie_.duration),
                         next_id < kMax32 ? next_id + 1 : next_id);
        continue;
      }
      if (children[i].type != Type("trak")) {
        out.Append(children[i].whole);
        continue;
      }
      const mp4::Track& track = movie_.tracks[track_number++];
      const bool goes = existing_ == ExistingTrack::kReplace && IsMotion(track);
      if (!goes) out.Append(track.whole);
      if (&track == replaced || (i == last_track && !written)) {
        write_new();
        written = true;
      }
    }
    if (!written) write_new();
  }

 private:
  static bool IsMotion(const mp4::Track& track) { return track.entry == Type("camm"); }
  [[nodiscard]] mp4::View view() const { return {content_.data(), content_.size()}; }
  [[nodiscard]] const mp4::Track* Replaced() const {
    if (existing_ != ExistingTrack::kReplace) return nullptr;
    const auto found = std::find_if(movie_.tracks.begin(), movie_.tracks.end(), IsMotion);
    return found != movie_.tracks.end() ? &*found : nullptr;
  }

  FileReader file_;
  ExistingTrack existing_;
  mp4::Layout layout_;
  mp4::TopBox moov_{};
  mp4::Bytes content_;  // of moov
  mp4::Movie movie_;
};

}  // namespace

struct TrackWriter::State {
  State(const std::string& output_path, const WriterOptions& writer_options)
      : path(output_path), options(writer_options) {}

  /// Runs a step unless one has failed before.
  template <typename Step>
  void Try(Step&& step) {
    if (!error.empty()) return;
    try {
      step();
    } catch (const Unsuitable& problem) {
      error = options.video + ": " + problem.what();
    } catch (const OutputError& problem) {
      error = path + ": " + problem.what();
    } catch (const std::bad_alloc&) {
      error = path + ": not enough memory";
    }
    if (!error.empty()) out.reset();
  }

  void Begin() {
    if (!options.video.empty()) source.emplace(options.video, options.existing);
    std::error_code ignored;
    if (source && std::filesystem::equivalent(options.video, path, ignored)) {
      throw OutputError("it is the input, which is never written to");
    }
    out.emplace(path, options.overwrite);
    if (source) {
      source->CopyTo(*out);
    } else {
      mp4::Writer start;
      start.Box(Type("ftyp"), [&] {
        start.U32(Type("isom"));
        start.U32(0x200);
        for (const std::uint32_t brand : {Type("isom"), Type("iso2"), Type("mp41")})
          start.U32(brand);
      });
      out->Append(start.bytes.data(), start.bytes.size());
    }
    media_data = out->size();
    AppendMediaHeader(
        [this](const std::uint8_t* data, std::size_t size) { out->Append(data, size); });
  }

  template <typename Put>
  void AppendMediaHeader(Put&& put) const {
    mp4::Writer header;
    header.U32(1);  // the size follows
    header.U32(Type("mdat"));
    header.U64(out->size() - media_data);
    put(header.bytes.data(), header.bytes.size());
  }

  void End(WriteResult& result) {
    AppendMediaHeader(
        [this](const std::uint8_t* data, std::size_t size) { out->Patch(media_data, data, size); });
    TrackHeader header = source ? source->NewTrack() : TrackHeader{};
    header.time_scale = ChooseTimeScale(times_ns, options.time_scale);
    const Tables tables(times_ns, sizes, header.time_scale);
    // With an edit list readers leave out what lies before time zero.
    header.with_edit_list = header.with_edit_list && !tables.negative();

    mp4::Writer index;
    index.Box(Type("moov"), [&] {
      const auto write_track = [&] {
        WriteTrack(index, header, tables, media_data + kMediaHeader);
      };
      const std::uint64_t duration = MovieDuration(tables, header);
      if (source) return source->WriteIndex(index, duration, write_track);
      mp4::Writer movie_header;
      WriteOwnMovieHeader(movie_header);
      WriteMovieHeader(index, {movie_header.bytes.data(), movie_header.bytes.size()}, duration,
                       header.id + 1);
      write_track();
    });
    if (index.bytes.size() > static_cast<std::size_t>(kMax32)) {
      throw OutputError("the index would be larger than 4 GiB");
    }
    out->Append(index.bytes.data(), index.bytes.size());
    if (source) source->CopyTrailerTo(*out);
    out->Commit();

    result.status = Status::kWhole;
    result.packets = static_cast<std::int64_t>(times_ns.size());
    result.time_scale = header.time_scale;
    for (const std::int64_t time_ns : times_ns) {
      const std::int64_t again =
          MulDiv(Ticks(time_ns, header.time_scale), kNanosecondsPerSecond, header.time_scale);
      result.rounding_ns = std::max(result.rounding_ns, std::abs(SaturatingSub(again, time_ns)));
    }
  }

  std::string path;
  WriterOptions options;
  std::string error;
  std::optional<Source> source;
  std::optional<OutputFile> out;
  std::uint64_t media_data = 0;  // where the new mdat begins
  std::vector<std::int64_t> times_ns;
  std::vector<std::uint32_t> sizes;
  std::vector<std::uint8_t> encoded;  // used again
};

TrackWriter::TrackWriter(const std::string& path, const WriterOptions& options)
    : state_(std::make_unique<State>(path, options)) {
  state_->Try([this] { state_->Begin(); });
}

TrackWriter::~TrackWriter() = default;

bool TrackWriter::ok() const { return state_->error.empty(); }

void TrackWriter::Add(std::int64_t time_ns, const Sample& sample) {
  state_->encoded.clear();
  Encode(sample, state_->encoded);
  AddPacket(time_ns, state_->encoded.data(), state_->encoded.size());
}

void TrackWriter::AddPacket(std::int64_t time_ns, const std::uint8_t* data, std::size_t size) {
  if (size == 0) return;
  State& state = *state_;
  state.Try([&] {
    if (state.sizes.size() + kMostBridges >= static_cast<std::size_t>(kMax32) ||
        size > static_cast<std::size_t>(kMax32)) {
      throw OutputError("a track can't hold that much");
    }
    if (time_ns == kNoTime) time_ns = state.times_ns.empty() ? 0 : state.times_ns.back();
    state.out->Append(data, size);
    state.times_ns.push_back(time_ns);
    state.sizes.push_back(static_cast<std::uint32_t>(size));
  });
}

WriteResult TrackWriter::Finish() {
  State& state = *state_;
  WriteResult result;
  if (state.error.empty() && state.times_ns.empty()) {
    result.status = Status::kNoSamples;
    state.error = state.path + ": there is nothing to write";
  }
  state.Try([&] { state.End(result); });
  result.error = state.error;
  state.out.reset();
  return result;
}

}  // namespace camm
