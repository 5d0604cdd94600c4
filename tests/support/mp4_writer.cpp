#include "support/mp4_writer.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace motrace::testing {
namespace {

/// Big-endian box content; boxes nest by Begin and End.
class BoxBuilder {
 public:
  void U8(std::uint64_t value) { out_.push_back(static_cast<std::uint8_t>(value)); }
  void U16(std::uint64_t value) { BigEndian(value, 2); }
  void U24(std::uint64_t value) { BigEndian(value, 3); }
  void U32(std::uint64_t value) { BigEndian(value, 4); }
  void U64(std::uint64_t value) { BigEndian(value, 8); }
  void Zeros(std::size_t count) { out_.insert(out_.end(), count, 0); }
  void Raw(const Bytes& bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }
  void Text(const std::string& text) { out_.insert(out_.end(), text.begin(), text.end()); }

  void Begin(const std::string& type) {
    open_.push_back(out_.size());
    U32(0);
    Text(type);
  }
  void BeginFull(const std::string& type, unsigned version, unsigned flags) {
    Begin(type);
    U8(version);
    U24(flags);
  }
  void End() {
    PatchU32(open_.back(), out_.size() - open_.back());
    open_.pop_back();
  }

  void PatchU32(std::size_t at, std::uint64_t value) {
    for (unsigned i = 0; i < 4; ++i)
      out_[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
  }
  [[nodiscard]] std::size_t size() const { return out_.size(); }
  [[nodiscard]] const Bytes& bytes() const { return out_; }

 private:
  void BigEndian(std::uint64_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;) U8(value >> (8 * i));
  }

  Bytes out_;
  std::vector<std::size_t> open_;  // offsets of the boxes not yet ended
};

/// The transformation matrix of mvhd and tkhd: identity.
void IdentityMatrix(BoxBuilder& box) {
  for (const std::uint32_t value : {0x10000U, 0U, 0U, 0U, 0x10000U, 0U, 0U, 0U, 0x40000000U}) {
    box.U32(value);
  }
}

void SampleEntryHeader(BoxBuilder& box, const std::string& type) {
  box.Begin(type);
  box.Zeros(6);
  box.U16(1);  // data reference
}

/// An MPEG-4 descriptor whose content is shorter than 128 bytes (ISO/IEC 14496-1, 8.3.3).
Bytes Descriptor(std::uint8_t tag, const Bytes& content) {
  return Concat({{tag, static_cast<std::uint8_t>(content.size())}, content});
}

/// Consecutive samples of one track that lie together in the file.
struct Chunk {
  std::size_t track = 0;
  std::size_t first = 0;
  std::size_t count = 0;
  std::uint64_t first_decode_time = 0;
  std::uint64_t bytes = 0;
  std::uint64_t file_offset = 0;
};

/// stts, ctts and stsc are runs of equal values.
template <typename Key>
struct Run {
  std::uint32_t count;
  Key value;
};

template <typename Key>
void AddToRuns(std::vector<Run<Key>>& runs, Key value) {
  if (runs.empty() || runs.back().value != value) runs.push_back({0, value});
  ++runs.back().count;
}

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

[[noreturn]] void FailWrite(const std::filesystem::path& path) {
  throw std::system_error(errno, std::generic_category(), "write " + path.string());
}

}  // namespace

Mp4Track::Mp4Track(std::string handler, Bytes sample_entry, std::uint32_t timescale)
    : handler_(std::move(handler)), sample_entry_(std::move(sample_entry)), timescale_(timescale) {}

Mp4Track Mp4Track::Video(const Bytes& avcc, int width, int height, std::uint32_t timescale) {
  BoxBuilder entry;
  SampleEntryHeader(entry, "avc1");
  entry.Zeros(16);
  entry.U16(static_cast<std::uint64_t>(width));
  entry.U16(static_cast<std::uint64_t>(height));
  entry.U32(0x480000);  // 72 dpi
  entry.U32(0x480000);
  entry.U32(0);
  entry.U16(1);       // frames per sample
  entry.Zeros(32);    // compressor name
  entry.U16(24);      // depth
  entry.U16(0xFFFF);  // no colour table
  entry.Begin("avcC");
  entry.Raw(avcc);
  entry.End();
  entry.End();
  Mp4Track track("vide", entry.bytes(), timescale);
  track.width_ = width;
  track.height_ = height;
  return track;
}

Mp4Track Mp4Track::Audio(const Bytes& audio_specific_config, int channels,
                         std::uint32_t sample_rate, std::uint32_t timescale) {
  // Object type: AAC; stream type: audio; buffer size and bit rates: unknown.
  const Bytes unknown(11, 0);
  const Bytes decoder =
      Descriptor(0x04, Concat({{0x40, 0x15}, unknown, Descriptor(0x05, audio_specific_config)}));
  const Bytes stream_header{0, 1, 0};  // stream id, flags
  const Bytes elementary_stream =
      Descriptor(0x03, Concat({stream_header, decoder, Descriptor(0x06, {0x02})}));

  BoxBuilder entry;
  SampleEntryHeader(entry, "mp4a");
  entry.Zeros(8);
  entry.U16(static_cast<std::uint64_t>(channels));
  entry.U16(16);
  entry.U32(0);
  entry.U32(static_cast<std::uint64_t>(sample_rate) << 16);
  entry.BeginFull("esds", 0, 0);
  entry.Raw(elementary_stream);
  entry.End();
  entry.End();
  return {"soun", entry.bytes(), timescale};
}

Mp4Track Mp4Track::Data(const std::string& handler, const std::string& sample_entry,
                        std::uint32_t timescale) {
  BoxBuilder entry;
  SampleEntryHeader(entry, sample_entry);
  if (sample_entry == "tmcd") {
    entry.U32(0);                             // reserved
    entry.U32(0);                             // non-drop-frame
    entry.U32(timescale);                     // ticks per second
    entry.U32(std::max(timescale / 30, 1U));  // ticks per frame
    entry.U8(30);
    entry.U8(0);
  }
  entry.End();
  return {handler, entry.bytes(), timescale};
}

void Mp4Track::Add(const Bytes& payload, std::uint32_t duration, std::int32_t composition_offset,
                   bool sync) {
  Add(payload.data(), payload.size(), duration, composition_offset, sync);
}

void Mp4Track::Add(const std::uint8_t* data, std::size_t size, std::uint32_t duration,
                   std::int32_t composition_offset, bool sync) {
  samples_.push_back({arena_.size(), static_cast<std::uint32_t>(size), duration, composition_offset,
                      sync, /*hole=*/false});
  arena_.insert(arena_.end(), data, data + size);
  total_duration_ += duration;
}

void Mp4Track::AddHole(std::uint32_t size, std::uint32_t duration, bool sync) {
  samples_.push_back({arena_.size(), size, duration, 0, sync, /*hole=*/true});
  total_duration_ += duration;
}

/// Plans where everything goes, then writes it once from front to back.
class Mp4FileWriter {
 public:
  Mp4FileWriter(const std::filesystem::path& path, const std::vector<Mp4Track>& tracks,
                const Mp4Layout& layout)
      : path_(path), tracks_(tracks), layout_(layout), file_(std::fopen(path.c_str(), "wb")) {
    if (!file_) FailWrite(path_);
    PlanChunks();
  }

  void Write() {
    WriteBytes(FileType());
    switch (layout_.order) {
      case Mp4Order::kMoovLast:
        WriteMediaData(BeginMediaData());
        WriteBytes(Movie());
        break;
      case Mp4Order::kMoovFirst:
        // The offsets in moov depend on its size, its size not on the offsets.
        PlaceChunks(position_ + Movie().size() + MediaHeaderSize());
        WriteBytes(Movie());
        WriteMediaData(BeginMediaData());
        break;
      case Mp4Order::kFragmented:
        WriteBytes(Movie());
        WriteFragments();
        break;
    }
    // What a hole left behind the last byte written becomes part of the file.
    if (std::fflush(file_.get()) != 0 ||
        ftruncate(fileno(file_.get()), static_cast<off_t>(position_)) != 0 ||
        std::fclose(file_.release()) != 0) {
      FailWrite(path_);
    }
  }

 private:
  // ---- where the samples go

  void PlanChunks() {
    struct Cursor {
      std::size_t sample = 0;
      std::uint64_t time = 0;
    };
    std::vector<Cursor> cursors(tracks_.size());
    const std::uint64_t slice_ms = layout_.interleave_ms;
    const auto slice_of = [&](std::size_t t) {
      return slice_ms == 0 ? 0 : cursors[t].time * 1000 / tracks_[t].timescale_ / slice_ms;
    };
    for (;;) {
      std::uint64_t slice = std::numeric_limits<std::uint64_t>::max();
      bool any = false;
      for (std::size_t t = 0; t < tracks_.size(); ++t) {
        if (cursors[t].sample == tracks_[t].samples_.size()) continue;
        slice = std::min(slice, slice_of(t));
        any = true;
      }
      if (!any) break;
      for (std::size_t t = 0; t < tracks_.size(); ++t) {
        const std::vector<Mp4Sample>& samples = tracks_[t].samples_;
        Cursor& cursor = cursors[t];
        Chunk chunk;
        chunk.track = t;
        chunk.first = cursor.sample;
        chunk.first_decode_time = cursor.time;
        while (cursor.sample < samples.size() && (slice_ms == 0 || slice_of(t) <= slice)) {
          chunk.bytes += samples[cursor.sample].size;
          cursor.time += samples[cursor.sample].duration;
          ++cursor.sample;
          ++chunk.count;
        }
        if (chunk.count > 0) {
          chunks_.push_back(chunk);
          slice_starts_.push_back(slice_starts_.empty() || slice != last_slice_ || slice_ms == 0);
          last_slice_ = slice;
          payload_bytes_ += chunk.bytes;
        }
      }
    }
    payload_bytes_ += layout_.order == Mp4Order::kFragmented ? 0 : layout_.leading_gap;
    // Generous: moov may stand before the samples and moves their offsets.
    constexpr std::uint64_t kOffsetLimit = 0xF0000000;
    wide_ = layout_.force_64bit || payload_bytes_ > kOffsetLimit;
  }

  void PlaceChunks(std::uint64_t first_byte) {
    first_byte += layout_.leading_gap;
    for (Chunk& chunk : chunks_) {
      chunk.file_offset = first_byte;
      first_byte += chunk.bytes;
    }
  }

  [[nodiscard]] std::uint64_t MediaHeaderSize() const { return wide_ ? 16 : 8; }

  // ---- boxes

  [[nodiscard]] Bytes FileType() const {
    BoxBuilder box;
    box.Begin("ftyp");
    box.Text(layout_.order == Mp4Order::kFragmented ? "iso6" : "isom");
    box.U32(0x200);
    box.Text("isomiso2iso6avc1mp41");
    box.End();
    return box.bytes();
  }

  [[nodiscard]] Bytes Movie() const {
    BoxBuilder box;
    box.Begin("moov");
    std::uint64_t duration = 0;
    for (const Mp4Track& track : tracks_) duration = std::max(duration, MovieDuration(track));
    box.BeginFull("mvhd", 1, 0);
    box.U64(0);  // creation, modification
    box.U64(0);
    box.U32(layout_.movie_timescale);
    box.U64(duration);
    box.U32(0x10000);  // rate 1.0
    box.U16(0x100);    // volume 1.0
    box.Zeros(10);
    IdentityMatrix(box);
    box.Zeros(24);
    box.U32(tracks_.size() + 1);  // next track id
    box.End();
    for (std::size_t t = 0; t < tracks_.size(); ++t) Track(box, t);
    if (layout_.order == Mp4Order::kFragmented) {
      box.Begin("mvex");
      for (std::size_t t = 0; t < tracks_.size(); ++t) {
        box.BeginFull("trex", 0, 0);
        box.U32(t + 1);
        box.U32(1);     // sample description
        box.Zeros(12);  // default duration, size, flags: every sample has its own
        box.End();
      }
      box.End();
    }
    box.End();
    return box.bytes();
  }

  /// A track's duration in the movie's time scale: that of its edit list when it has one.
  [[nodiscard]] std::uint64_t MovieDuration(const Mp4Track& track) const {
    if (!track.edits.empty()) {
      std::uint64_t sum = 0;
      for (const Mp4Edit& edit : track.edits) sum += edit.segment_duration;
      return sum;
    }
    return MediaDuration(track) * layout_.movie_timescale / track.timescale_;
  }

  [[nodiscard]] std::uint64_t MediaDuration(const Mp4Track& track) const {
    if (track.media_duration) return *track.media_duration;
    return layout_.order == Mp4Order::kFragmented ? 0 : track.total_duration_;
  }

  void Track(BoxBuilder& box, std::size_t index) const {
    const Mp4Track& track = tracks_[index];
    const bool audio = track.handler_ == "soun";
    box.Begin("trak");

    box.BeginFull("tkhd", 1, /*enabled, in movie, in preview=*/7);
    box.U64(0);
    box.U64(0);
    box.U32(index + 1);
    box.U32(0);
    box.U64(MovieDuration(track));
    box.Zeros(12);
    box.U16(audio ? 0x100 : 0);  // volume
    box.U16(0);
    IdentityMatrix(box);
    box.U32(static_cast<std::uint64_t>(track.width_) << 16);
    box.U32(static_cast<std::uint64_t>(track.height_) << 16);
    box.End();

    if (!track.edits.empty()) {
      box.Begin("edts");
      box.BeginFull("elst", 1, 0);
      box.U32(track.edits.size());
      for (const Mp4Edit& edit : track.edits) {
        box.U64(edit.segment_duration);
        box.U64(static_cast<std::uint64_t>(edit.media_time));
        box.U16(static_cast<std::uint16_t>(edit.rate));
        box.U16(0);
      }
      box.End();
      box.End();
    }

    box.Begin("mdia");
    box.BeginFull("mdhd", 1, 0);
    box.U64(0);
    box.U64(0);
    box.U32(track.timescale_);
    box.U64(MediaDuration(track));
    box.U16(0x55C4);  // language: undetermined
    box.U16(0);
    box.End();
    box.BeginFull("hdlr", 0, 0);
    box.U32(0);
    box.Text(track.handler_);
    box.Zeros(12);
    box.U8(0);  // empty name
    box.End();
    box.Begin("minf");
    if (track.handler_ == "vide") {
      box.BeginFull("vmhd", 0, 1);
      box.Zeros(8);
    } else if (audio) {
      box.BeginFull("smhd", 0, 0);
      box.Zeros(4);
    } else {
      box.BeginFull("nmhd", 0, 0);
    }
    box.End();
    box.Begin("dinf");
    box.BeginFull("dref", 0, 0);
    box.U32(1);
    box.BeginFull("url ", 0, /*in this file=*/1);
    box.End();
    box.End();
    box.End();
    SampleTable(box, index);
    box.End();
    box.End();
    box.End();
  }

  void SampleTable(BoxBuilder& box, std::size_t index) const {
    const Mp4Track& track = tracks_[index];
    static const std::vector<Mp4Sample> kNone;
    const std::vector<Mp4Sample>& samples =
        layout_.order == Mp4Order::kFragmented ? kNone : track.samples_;

    box.Begin("stbl");
    box.BeginFull("stsd", 0, 0);
    box.U32(1);
    box.Raw(track.sample_entry_);
    box.End();

    std::vector<Run<std::uint32_t>> durations;
    std::vector<Run<std::int32_t>> offsets;
    const std::size_t timed = samples.size() - std::min(samples.size(), track.samples_without_time);
    for (std::size_t i = 0; i < timed; ++i) AddToRuns(durations, samples[i].duration);
    for (const Mp4Sample& sample : samples) AddToRuns(offsets, sample.composition_offset);
    box.BeginFull("stts", 0, 0);
    box.U32(durations.size());
    for (const auto& run : durations) {
      box.U32(run.count);
      box.U32(run.value);
    }
    box.End();
    if (offsets.size() > 1 || (!offsets.empty() && offsets[0].value != 0)) {
      const bool negative = std::any_of(offsets.begin(), offsets.end(),
                                        [](const auto& run) { return run.value < 0; });
      box.BeginFull("ctts", negative ? 1 : 0, 0);
      box.U32(offsets.size());
      for (const auto& run : offsets) {
        box.U32(run.count);
        box.U32(static_cast<std::uint32_t>(run.value));
      }
      box.End();
    }

    std::vector<std::size_t> sync;
    for (std::size_t i = 0; i < samples.size(); ++i) {
      if (samples[i].sync) sync.push_back(i + 1);
    }
    if (sync.size() < samples.size()) {
      box.BeginFull("stss", 0, 0);
      box.U32(sync.size());
      for (const std::size_t number : sync) box.U32(number);
      box.End();
    }

    const bool same_size =
        !samples.empty() && std::all_of(samples.begin(), samples.end(), [&](const Mp4Sample& s) {
          return s.size == samples[0].size;
        });
    box.BeginFull("stsz", 0, 0);
    box.U32(same_size ? samples[0].size : 0);
    box.U32(samples.size());
    if (!same_size) {
      for (const Mp4Sample& sample : samples) box.U32(sample.size);
    }
    box.End();

    std::vector<const Chunk*> chunks;
    if (!samples.empty()) {
      for (const Chunk& chunk : chunks_) {
        if (chunk.track == index) chunks.push_back(&chunk);
      }
    }
    std::vector<Run<std::size_t>> samples_per_chunk;
    for (const Chunk* chunk : chunks) AddToRuns(samples_per_chunk, chunk->count);
    box.BeginFull("stsc", 0, 0);
    box.U32(samples_per_chunk.size());
    std::uint32_t first_chunk = 1;
    for (const auto& run : samples_per_chunk) {
      box.U32(first_chunk);
      box.U32(run.value);
      box.U32(1);  // sample description
      first_chunk += run.count;
    }
    box.End();
    box.BeginFull(wide_ ? "co64" : "stco", 0, 0);
    box.U32(chunks.size());
    for (const Chunk* chunk : chunks) {
      if (wide_) {
        box.U64(chunk->file_offset);
      } else {
        box.U32(chunk->file_offset);
      }
    }
    box.End();
    box.End();
  }

  void WriteFragments() {
    std::uint32_t sequence = 0;
    for (std::size_t begin = 0; begin < chunks_.size();) {
      std::size_t end = begin + 1;
      while (end < chunks_.size() && !slice_starts_[end]) ++end;
      WriteFragment(++sequence, begin, end);
      begin = end;
    }
  }

  /// moof and mdat of the chunks [begin, end): one track run each.
  void WriteFragment(std::uint32_t sequence, std::size_t begin, std::size_t end) {
    BoxBuilder box;
    std::vector<std::size_t> data_offset_fields;
    std::uint64_t payload = 0;
    box.Begin("moof");
    box.BeginFull("mfhd", 0, 0);
    box.U32(sequence);
    box.End();
    for (std::size_t c = begin; c < end; ++c) {
      const Chunk& chunk = chunks_[c];
      const Mp4Track& track = tracks_[chunk.track];
      box.Begin("traf");
      box.BeginFull("tfhd", 0, /*default-base-is-moof=*/0x020000);
      box.U32(chunk.track + 1);
      box.End();
      box.BeginFull("tfdt", 1, 0);
      box.U64(track.first_decode_time + chunk.first_decode_time);
      box.End();
      // Data offset; duration, size, flags and composition offset of each sample.
      box.BeginFull("trun", 1, 0x000F01);
      box.U32(chunk.count);
      data_offset_fields.push_back(box.size());
      box.U32(0);
      for (std::size_t i = chunk.first; i < chunk.first + chunk.count; ++i) {
        const Mp4Sample& sample = track.samples_[i];
        box.U32(sample.duration);
        box.U32(sample.size);
        box.U32(sample.sync ? 0x02000000 : 0x01010000);  // depends on no other; on another
        box.U32(static_cast<std::uint32_t>(sample.composition_offset));
      }
      box.End();
      box.End();
      payload += chunk.bytes;
    }
    box.End();
    const bool wide = payload > 0xF0000000;
    std::uint64_t offset = box.size() + (wide ? 16 : 8);
    for (std::size_t c = begin; c < end; ++c) {
      box.PatchU32(data_offset_fields[c - begin], offset);
      offset += chunks_[c].bytes;
    }
    WriteBytes(box.bytes());
    WriteBytes(MediaHeader(payload, wide));
    for (std::size_t c = begin; c < end; ++c) WriteChunk(chunks_[c]);
  }

  // ---- bytes

  [[nodiscard]] static Bytes MediaHeader(std::uint64_t payload, bool wide) {
    BoxBuilder box;
    box.U32(wide ? 1 : payload + 8);
    box.Text("mdat");
    if (wide) box.U64(payload + 16);
    return box.bytes();
  }

  std::uint64_t BeginMediaData() {
    WriteBytes(MediaHeader(payload_bytes_, wide_));
    return position_;
  }

  void WriteMediaData(std::uint64_t first_byte) {
    PlaceChunks(first_byte);
    Skip(layout_.leading_gap);
    for (const Chunk& chunk : chunks_) WriteChunk(chunk);
  }

  void WriteChunk(const Chunk& chunk) {
    const Mp4Track& track = tracks_[chunk.track];
    for (std::size_t i = chunk.first; i < chunk.first + chunk.count; ++i) {
      const Mp4Sample& sample = track.samples_[i];
      if (sample.hole) {
        Skip(sample.size);
      } else {
        WriteBytes(track.arena_.data() + sample.arena_offset, sample.size);
      }
    }
  }

  void WriteBytes(const Bytes& bytes) { WriteBytes(bytes.data(), bytes.size()); }
  void WriteBytes(const std::uint8_t* data, std::size_t size) {
    if (size > 0 && std::fwrite(data, 1, size, file_.get()) != size) FailWrite(path_);
    position_ += size;
  }

  void Skip(std::uint64_t size) {
    if (size == 0) return;
    position_ += size;
    if (fseeko(file_.get(), static_cast<off_t>(position_), SEEK_SET) != 0) FailWrite(path_);
  }

  const std::filesystem::path& path_;
  const std::vector<Mp4Track>& tracks_;
  const Mp4Layout& layout_;
  std::unique_ptr<std::FILE, CloseFile> file_;
  std::uint64_t position_ = 0;
  std::vector<Chunk> chunks_;       // file order
  std::vector<bool> slice_starts_;  // per chunk: the first of its interleaving slice
  std::uint64_t last_slice_ = 0;
  std::uint64_t payload_bytes_ = 0;
  bool wide_ = false;
};

void WriteMp4(const std::filesystem::path& path, const std::vector<Mp4Track>& tracks,
              const Mp4Layout& layout) {
  Mp4FileWriter(path, tracks, layout).Write();
}

}  // namespace motrace::testing
