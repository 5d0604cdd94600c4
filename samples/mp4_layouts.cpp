#include "samples/mp4_layouts.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <utility>

namespace motrace::samples {
namespace {

constexpr std::uint32_t kMovieTimescale = 1000;
// The header of the largest box, mdat, is always the long one: its files may pass 4 GiB.
constexpr std::uint64_t kMediaHeaderSize = 16;

void Append(Bytes& out, std::uint64_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

/// Big-endian numbers of one width in bytes. Negative ones wrap.
Bytes Ints(unsigned width, std::initializer_list<std::uint64_t> values) {
  Bytes out;
  for (const std::uint64_t value : values) Append(out, value, width);
  return out;
}
Bytes U16(std::uint64_t value) { return Ints(2, {value}); }
Bytes U32(std::uint64_t value) { return Ints(4, {value}); }
Bytes U64(std::uint64_t value) { return Ints(8, {value}); }
Bytes Zeros(std::size_t count) { return Bytes(count, 0); }
Bytes Text(const std::string& text) { return {text.begin(), text.end()}; }

Bytes Box(const std::string& type, std::initializer_list<Bytes> parts) {
  const Bytes content = Concat(parts);
  return Concat({U32(content.size() + 8), Text(type), content});
}
Bytes FullBox(const std::string& type, unsigned version, unsigned flags,
              std::initializer_list<Bytes> parts) {
  return Box(type, {U32(version << 24 | flags), Concat(parts)});
}
Bytes SampleEntry(const std::string& type, std::initializer_list<Bytes> parts) {
  return Box(type, {Zeros(6), U16(1 /*data reference*/), Concat(parts)});
}

/// The transformation matrix of mvhd and tkhd: identity.
Bytes Matrix() { return Ints(4, {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000}); }

/// An MPEG-4 descriptor whose content is shorter than 128 bytes (ISO/IEC 14496-1, 8.3.3).
Bytes Descriptor(std::uint8_t tag, const Bytes& content) {
  return Concat({{tag, static_cast<std::uint8_t>(content.size())}, content});
}

/// stts, ctts and stsc are runs of equal values: how often, and what.
class Runs {
 public:
  void Add(std::uint32_t value) {
    if (runs_.empty() || runs_.back().second != value) runs_.emplace_back(0, value);
    ++runs_.back().first;
  }
  [[nodiscard]] const std::vector<std::pair<std::uint32_t, std::uint32_t>>& all() const {
    return runs_;
  }
  [[nodiscard]] Bytes Table(const std::string& type, unsigned version) const {
    Bytes entries = U32(runs_.size());
    for (const auto& [count, value] : runs_) {
      Append(entries, count, 4);
      Append(entries, value, 4);
    }
    return FullBox(type, version, 0, {entries});
  }

 private:
  std::vector<std::pair<std::uint32_t, std::uint32_t>> runs_;
};

/// A table of 32-bit numbers after their count.
Bytes Table(const std::string& type, const Bytes& before, const std::vector<std::uint32_t>& all) {
  Bytes entries = U32(all.size());
  for (const std::uint32_t entry : all) Append(entries, entry, 4);
  return FullBox(type, 0, 0, {before, entries});
}

/// Consecutive samples of one track that lie together in the file.
struct Chunk {
  std::size_t track = 0;
  std::size_t first = 0;
  std::size_t count = 0;
  std::uint64_t decode_time = 0;
  std::uint64_t bytes = 0;
  std::uint64_t offset = 0;  // in the file
  bool starts_slice = false;
};

}  // namespace

Mp4Track Mp4Track::Video(const Bytes& avcc, int width, int height, std::uint32_t timescale) {
  const Bytes size =
      Ints(2, {static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height)});
  constexpr std::uint64_t kDotsPerInch = 72 << 16;
  return {"vide",
          SampleEntry("avc1",
                      {Zeros(16), size, Ints(4, {kDotsPerInch, kDotsPerInch, 0}),
                       U16(1 /*frames per sample*/), Zeros(32 /*compressor name*/),
                       Ints(2, {/*depth=*/24, /*no colour table=*/0xFFFF}), Box("avcC", {avcc})}),
          timescale};
}

Mp4Track Mp4Track::Audio(const Bytes& audio_specific_config, int channels,
                         std::uint32_t sample_rate, std::uint32_t timescale) {
  // Object type: AAC; stream type: audio; buffer size and bit rates: unknown.
  const Bytes decoder =
      Descriptor(4, Concat({{0x40, 0x15}, Zeros(11), Descriptor(5, audio_specific_config)}));
  const Bytes stream = Descriptor(3, Concat({Zeros(3), decoder, Descriptor(6, {2})}));
  return {"soun",
          SampleEntry("mp4a", {Zeros(8), Ints(2, {static_cast<std::uint64_t>(channels), 16, 0, 0}),
                               U32(static_cast<std::uint64_t>(sample_rate) << 16),
                               FullBox("esds", 0, 0, {stream})}),
          timescale};
}

Mp4Track Mp4Track::Data(const std::string& handler, const std::string& sample_entry,
                        std::uint32_t timescale) {
  Bytes entry;
  if (sample_entry == "tmcd") {  // ticks a second, ticks a frame, frames a second
    entry = Concat({Zeros(8), Ints(4, {timescale, std::max(timescale / 30, 1U)}), {30, 0}});
  }
  return {handler, SampleEntry(sample_entry, {entry}), timescale};
}

void Mp4Track::Add(const Bytes& payload, std::uint32_t duration, std::int32_t composition_offset,
                   bool sync) {
  samples_.push_back({arena_.size(), static_cast<std::uint32_t>(payload.size()), duration,
                      composition_offset, sync, /*hole=*/false});
  arena_.insert(arena_.end(), payload.begin(), payload.end());
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
      : tracks_(tracks), layout_(layout), fragmented_(layout.order == Mp4Order::kFragmented) {
    file_.exceptions(std::ios::badbit | std::ios::failbit);
    file_.open(path, std::ios::binary);
    PlanChunks();
    Write(Box("ftyp",
              {Text(fragmented_ ? "iso6" : "isom"), U32(0x200), Text("isomiso2iso6avc1mp41")}));
    if (fragmented_) {
      Write(Movie());
      WriteFragments();
    } else if (layout.order == Mp4Order::kMoovLast) {
      WriteMediaData();
      Write(Movie());
    } else {
      // The offsets in moov depend on its size, its size not on the offsets.
      PlaceChunks(position_ + Movie().size());
      Write(Movie());
      WriteMediaData();
    }
    file_.close();
    std::filesystem::resize_file(path, position_);  // a hole at the end is part of the file
  }

 private:
  using Sample = Mp4Track::Sample;

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
    constexpr auto kNone = std::numeric_limits<std::uint64_t>::max();
    for (;;) {
      std::uint64_t slice = kNone;
      for (std::size_t t = 0; t < tracks_.size(); ++t) {
        if (cursors[t].sample < tracks_[t].samples_.size()) slice = std::min(slice, slice_of(t));
      }
      if (slice == kNone) return;
      bool starts_slice = true;
      for (std::size_t t = 0; t < tracks_.size(); ++t) {
        Cursor& cursor = cursors[t];
        Chunk chunk{t, cursor.sample, 0, cursor.time, 0, 0, starts_slice};
        const std::vector<Sample>& samples = tracks_[t].samples_;
        for (; cursor.sample < samples.size() && slice_of(t) <= slice; ++cursor.sample) {
          chunk.bytes += samples[cursor.sample].size;
          cursor.time += samples[cursor.sample].duration;
          ++chunk.count;
        }
        if (chunk.count == 0) continue;
        chunks_.push_back(chunk);
        starts_slice = slice_ms == 0;
      }
    }
  }

  /// mdat is to begin here.
  void PlaceChunks(std::uint64_t media_data) {
    std::uint64_t offset = media_data + kMediaHeaderSize + layout_.leading_gap;
    for (Chunk& chunk : chunks_) {
      chunk.offset = offset;
      offset += chunk.bytes;
    }
  }

  [[nodiscard]] Bytes Movie() const {
    std::uint64_t duration = 0;
    Bytes tracks;
    Bytes defaults;
    for (std::size_t t = 0; t < tracks_.size(); ++t) {
      duration = std::max(duration, MovieDuration(tracks_[t]));
      tracks = Concat({tracks, Track(t)});
      // Sample description 1; no default duration, size, flags: every sample has its own.
      defaults = Concat({defaults, FullBox("trex", 0, 0, {Ints(4, {t + 1, 1, 0, 0, 0})})});
    }
    return Box("moov", {FullBox("mvhd", 1, 0,
                                {Zeros(16 /*creation, modification*/), U32(kMovieTimescale),
                                 U64(duration), U32(0x10000 /*rate*/), U16(0x100 /*volume*/),
                                 Zeros(10), Matrix(), Zeros(24), U32(tracks_.size() + 1)}),
                        tracks, fragmented_ ? Box("mvex", {defaults}) : Bytes()});
  }

  /// A track's duration in the movie's time scale: that of its edit list when it has one.
  [[nodiscard]] std::uint64_t MovieDuration(const Mp4Track& track) const {
    std::uint64_t edited = 0;
    for (const Mp4Edit& edit : track.edits) edited += edit.segment_duration;
    return track.edits.empty() ? MediaDuration(track) * kMovieTimescale / track.timescale_ : edited;
  }
  [[nodiscard]] std::uint64_t MediaDuration(const Mp4Track& track) const {
    return track.media_duration.value_or(fragmented_ ? 0 : track.total_duration_);
  }

  [[nodiscard]] Bytes Track(std::size_t index) const {
    const Mp4Track& track = tracks_[index];
    Bytes edits = U32(track.edits.size());
    for (const Mp4Edit& edit : track.edits) {
      edits = Concat({edits,
                      Ints(8, {edit.segment_duration, static_cast<std::uint64_t>(edit.media_time)}),
                      Ints(2, {static_cast<std::uint16_t>(edit.rate), 0})});
    }
    Bytes media_header = FullBox("nmhd", 0, 0, {});
    if (track.handler_ == "vide") media_header = FullBox("vmhd", 0, 1, {Zeros(8)});
    if (track.handler_ == "soun") media_header = FullBox("smhd", 0, 0, {Zeros(4)});
    return Box("trak",
               {FullBox("tkhd", 1, /*enabled, in movie, in preview=*/7,
                        {Zeros(16), Ints(4, {index + 1, 0}), U64(MovieDuration(track)), Zeros(12),
                         U16(track.handler_ == "soun" ? 0x100 : 0), U16(0), Matrix(), Zeros(8)}),
                track.edits.empty() ? Bytes() : Box("edts", {FullBox("elst", 1, 0, {edits})}),
                Box("mdia",
                    {FullBox("mdhd", 1, 0,
                             {Zeros(16), U32(track.timescale_), U64(MediaDuration(track)),
                              Ints(2, {/*language: undetermined=*/0x55C4, 0})}),
                     FullBox("hdlr", 0, 0, {Zeros(4), Text(track.handler_), Zeros(13)}),
                     Box("minf", {media_header,
                                  Box("dinf", {FullBox("dref", 0, 0,
                                                       {U32(1), FullBox("url ", 0,
                                                                        /*in this file=*/1, {})})}),
                                  SampleTable(index)})})});
  }

  [[nodiscard]] Bytes SampleTable(std::size_t index) const {
    const Mp4Track& track = tracks_[index];
    const std::vector<Sample> samples = fragmented_ ? std::vector<Sample>() : track.samples_;
    Runs durations;
    Runs offsets;
    std::vector<std::uint32_t> sync;
    std::vector<std::uint32_t> sizes;
    for (std::size_t i = 0; i < samples.size(); ++i) {
      if (i + track.samples_without_time < samples.size()) durations.Add(samples[i].duration);
      offsets.Add(static_cast<std::uint32_t>(samples[i].composition_offset));
      if (samples[i].sync) sync.push_back(static_cast<std::uint32_t>(i + 1));
      sizes.push_back(samples[i].size);
    }
    const bool has_offsets =
        offsets.all().size() > 1 || (!samples.empty() && offsets.all()[0].second != 0);

    Runs samples_per_chunk;
    Bytes chunk_offsets;
    std::uint32_t chunks = 0;
    for (const Chunk& chunk : chunks_) {
      if (chunk.track != index || fragmented_) continue;
      samples_per_chunk.Add(static_cast<std::uint32_t>(chunk.count));
      Append(chunk_offsets, chunk.offset, 8);
      ++chunks;
    }
    Bytes chunk_runs = U32(samples_per_chunk.all().size());
    std::uint32_t first_chunk = 1;
    for (const auto& [count, per_chunk] : samples_per_chunk.all()) {
      chunk_runs = Concat({chunk_runs, Ints(4, {first_chunk, per_chunk, 1})});
      first_chunk += count;
    }
    return Box("stbl",
               {FullBox("stsd", 0, 0, {U32(1), track.sample_entry_}), durations.Table("stts", 0),
                has_offsets ? offsets.Table("ctts", 1) : Bytes(),
                sync.size() < samples.size() ? Table("stss", {}, sync) : Bytes(),
                Table("stsz", U32(0), sizes), FullBox("stsc", 0, 0, {chunk_runs}),
                FullBox("co64", 0, 0, {U32(chunks), chunk_offsets})});
  }

  void WriteFragments() {
    for (auto begin = chunks_.begin(); begin != chunks_.end();) {
      const auto end = std::find_if(begin + 1, chunks_.end(),
                                    [](const Chunk& chunk) { return chunk.starts_slice; });
      // The data offsets in moof depend on its size, its size not on the offsets.
      Write(Fragment(begin, end, Fragment(begin, end, 0).size() + kMediaHeaderSize));
      std::uint64_t bytes = 0;
      for (auto chunk = begin; chunk != end; ++chunk) bytes += chunk->bytes;
      WriteMediaHeader(bytes);
      for (; begin != end; ++begin) WriteChunk(*begin);
    }
  }

  /// moof of some chunks, one track run each.
  [[nodiscard]] Bytes Fragment(std::vector<Chunk>::const_iterator begin,
                               std::vector<Chunk>::const_iterator end,
                               std::uint64_t data_offset) const {
    Bytes runs;
    for (auto chunk = begin; chunk != end; ++chunk) {
      const Mp4Track& track = tracks_[chunk->track];
      Bytes samples;
      for (std::size_t i = chunk->first; i < chunk->first + chunk->count; ++i) {
        const Sample& sample = track.samples_[i];
        const std::uint64_t flags =
            sample.sync ? 0x02000000 : 0x01010000;  // depends on no other; on another
        for (const std::uint64_t field :
             {std::uint64_t{sample.duration}, std::uint64_t{sample.size}, flags,
              static_cast<std::uint64_t>(sample.composition_offset)}) {
          Append(samples, field, 4);
        }
      }
      runs = Concat(
          {runs,
           Box("traf",
               {FullBox("tfhd", 0, /*default-base-is-moof=*/0x020000, {U32(chunk->track + 1)}),
                FullBox("tfdt", 1, 0, {U64(track.first_decode_time + chunk->decode_time)}),
                // Data offset; duration, size, flags, composition offset of each.
                FullBox("trun", 1, 0x000F01, {Ints(4, {chunk->count, data_offset}), samples})})});
      data_offset += chunk->bytes;
    }
    const auto sequence = static_cast<std::uint64_t>(begin - chunks_.begin()) + 1;
    return Box("moof", {FullBox("mfhd", 0, 0, {U32(sequence)}), runs});
  }

  void WriteMediaHeader(std::uint64_t payload) {
    Write(Concat({U32(1 /*the size follows*/), Text("mdat"), U64(payload + kMediaHeaderSize)}));
  }

  void WriteMediaData() {
    PlaceChunks(position_);
    std::uint64_t payload = layout_.leading_gap;
    for (const Chunk& chunk : chunks_) payload += chunk.bytes;
    WriteMediaHeader(payload);
    Skip(layout_.leading_gap);
    for (const Chunk& chunk : chunks_) WriteChunk(chunk);
  }

  void WriteChunk(const Chunk& chunk) {
    const Mp4Track& track = tracks_[chunk.track];
    for (std::size_t i = chunk.first; i < chunk.first + chunk.count; ++i) {
      const Sample& sample = track.samples_[i];
      if (sample.hole) {
        Skip(sample.size);
      } else {
        Write(track.arena_.data() + sample.arena_offset, sample.size);
      }
    }
  }

  void Write(const Bytes& bytes) { Write(bytes.data(), bytes.size()); }
  void Write(const std::uint8_t* data, std::size_t size) {
    file_.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    position_ += size;
  }
  void Skip(std::uint64_t size) {
    position_ += size;
    if (size > 0) file_.seekp(static_cast<std::streamoff>(position_));
  }

  const std::vector<Mp4Track>& tracks_;
  const Mp4Layout& layout_;
  const bool fragmented_;
  std::ofstream file_;
  std::uint64_t position_ = 0;
  std::vector<Chunk> chunks_;  // file order
};

void WriteMp4(const std::filesystem::path& path, const std::vector<Mp4Track>& tracks,
              const Mp4Layout& layout) {
  const Mp4FileWriter written(path, tracks, layout);
}

Mp4Track ToMp4Track(const EncodedStream& stream, std::uint32_t timescale, bool with_edit_list) {
  const AVCodecParameters& parameters = *stream.parameters;
  Mp4Track track =
      parameters.codec_type == AVMEDIA_TYPE_VIDEO
          ? Mp4Track::Video(stream.extradata(), parameters.width, parameters.height, timescale)
          : Mp4Track::Audio(stream.extradata(), parameters.ch_layout.nb_channels,
                            static_cast<std::uint32_t>(parameters.sample_rate), timescale);
  const AVRational track_base{1, static_cast<int>(timescale)};
  const auto ticks = [&](std::int64_t time) {
    return av_rescale_q(time, stream.time_base, track_base);
  };
  const auto& packets = stream.packets;
  std::int64_t end = 0;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    const auto& packet = packets[i];
    const std::int64_t next =
        i + 1 < packets.size() ? packets[i + 1].dts : packet.dts + packet.duration;
    track.Add(packet.data, static_cast<std::uint32_t>(ticks(next) - ticks(packet.dts)),
              static_cast<std::int32_t>(ticks(packet.pts) - ticks(packet.dts)), packet.key);
    end = std::max(end, packet.pts + packet.duration);
  }
  // Decode times count from 0 in the file, so time zero stands at -(first dts).
  const std::int64_t zero = packets.empty() ? 0 : -ticks(packets.front().dts);
  if (with_edit_list && zero != 0) {
    constexpr AVRational kMovieBase{1, 1000};
    track.edits.push_back(
        {static_cast<std::uint64_t>(av_rescale_q(end, stream.time_base, kMovieBase)), zero, 1});
  }
  return track;
}

Mp4Track CameraTrack(const CameraOptions& options) {
  Mp4Track track = Mp4Track::Camm(options.timescale);
  RecordCamera(options, [&track](const Bytes& payload, std::uint32_t duration) {
    track.Add(payload, duration);
  });
  return track;
}

}  // namespace motrace::samples
