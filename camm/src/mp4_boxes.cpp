#include "mp4_boxes.h"

#include <algorithm>
#include <initializer_list>

namespace camm::mp4 {
namespace {

constexpr std::size_t kShortHeader = 8;
constexpr std::size_t kLongHeader = 16;
constexpr std::size_t kMostBoxes = 1'000'000;  // at one level: more is garbage

/// The size and header length that a box's first bytes state, of `available` bytes.
struct Header {
  std::uint32_t type = 0;
  std::uint32_t length = 0;
  std::uint64_t size = 0;
};

std::optional<Header> ParseHeader(View start, std::uint64_t available) {
  Cursor cursor(start);
  Header header;
  header.size = cursor.U32();
  header.type = cursor.U32();
  header.length = kShortHeader;
  if (header.size == 1) {
    header.size = cursor.U64();
    header.length = kLongHeader;
  } else if (header.size == 0) {
    header.size = available;
  }
  if (!cursor.ok() || header.size < header.length) return std::nullopt;
  return header;
}

/// Runs of equal values, as `stts` and `ctts` store them, value by value.
class Runs {
 public:
  explicit Runs(std::optional<View> table) : cursor_(table.value_or(View{})) {
    if (!table) return;
    cursor_.Version();
    runs_ = cursor_.U32();
  }
  /// @return false after the last.
  bool Next(std::uint32_t& value) {
    while (left_ == 0) {
      if (runs_ == 0 || cursor_.left() < 8) return false;
      --runs_;
      left_ = cursor_.U32();
      value_ = cursor_.U32();
    }
    --left_;
    value = value_;
    return true;
  }

 private:
  Cursor cursor_;
  std::uint32_t runs_ = 0;
  std::uint32_t left_ = 0;
  std::uint32_t value_ = 0;
};

std::vector<Edit> ParseEdits(View content) {
  Cursor cursor(content);
  const unsigned version = cursor.Version();
  std::uint32_t count = cursor.U32();
  std::vector<Edit> edits;
  for (; count > 0 && cursor.left() >= (version == 1 ? 20 : 12); --count) {
    Edit edit;
    edit.duration = cursor.Time(version);
    const std::uint64_t media_time = cursor.Time(version);
    edit.media_time = version == 1 ? static_cast<std::int64_t>(media_time)
                                   : static_cast<std::int32_t>(media_time);
    cursor.U32();  // rate
    edits.push_back(edit);
  }
  return edits;
}

std::optional<Track> ParseTrack(const Child& trak) {
  Track track;
  track.whole = trak.whole;
  const auto header = Find(trak.content, Type("tkhd"));
  const auto media = Find(trak.content, Type("mdia"));
  if (!header || !media) return std::nullopt;
  const auto media_header = Find(*media, Type("mdhd"));
  const auto handler = Find(*media, Type("hdlr"));
  const auto table = Find(*media, {Type("minf"), Type("stbl")});
  if (!media_header || !handler || !table) return std::nullopt;
  track.table = *table;

  Cursor cursor(*header);
  unsigned version = cursor.Version();
  cursor.Skip(version == 1 ? 16 : 8);
  track.id = cursor.U32();
  bool ok = cursor.ok();

  cursor = Cursor(*media_header);
  version = cursor.Version();
  cursor.Skip(version == 1 ? 16 : 8);
  track.time_scale = cursor.U32();
  ok = ok && cursor.ok() && track.time_scale > 0;

  cursor = Cursor(handler->From(8));
  track.handler = cursor.U32();

  if (const auto entries = Find(*table, Type("stsd"))) {
    cursor = Cursor(entries->From(12));  // version, count, the first entry's size
    track.entry = cursor.U32();
  }
  auto sizes = Find(*table, Type("stsz"));
  if (!sizes) sizes = Find(*table, Type("stz2"));
  if (sizes) {
    cursor = Cursor(sizes->From(8));
    track.samples = cursor.U32();  // may be anything: the sizes may be one for all
  }
  if (const auto edits = Find(trak.content, {Type("edts"), Type("elst")})) {
    track.edits = ParseEdits(*edits);
  }
  if (!ok) return std::nullopt;
  return track;
}

}  // namespace

const std::uint8_t* Cursor::Take(std::size_t count) {
  if (count > view_.size) {
    ok_ = false;
    view_ = {};
    return nullptr;
  }
  const std::uint8_t* taken = view_.data;
  view_.data += count;
  view_.size -= count;
  return taken;
}

std::uint64_t Cursor::Number(std::size_t width) {
  const std::uint8_t* at = Take(width);
  if (at == nullptr) return 0;
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) value = value << 8 | at[i];
  return value;
}

std::vector<Child> Children(View parent) {
  std::vector<Child> children;
  while (parent.size >= kShortHeader && children.size() < kMostBoxes) {
    const auto header = ParseHeader(parent, parent.size);
    if (!header || header->size > parent.size) break;
    const auto size = static_cast<std::size_t>(header->size);
    children.push_back(
        {header->type, {parent.data, size}, {parent.data + header->length, size - header->length}});
    parent = parent.From(size);
  }
  return children;
}

std::optional<View> Find(View parent, std::uint32_t type) {
  for (const Child& child : Children(parent)) {
    if (child.type == type) return child.content;
  }
  return std::nullopt;
}

std::optional<View> Find(View parent, std::initializer_list<std::uint32_t> path) {
  std::optional<View> found = parent;
  for (const std::uint32_t type : path) {
    if (found) found = Find(*found, type);
  }
  return found;
}

std::optional<Movie> ParseMovie(View moov) {
  Movie movie;
  bool has_header = false;
  for (const Child& child : Children(moov)) {
    if (child.type == Type("mvhd")) {
      Cursor cursor(child.content);
      const unsigned version = cursor.Version();
      cursor.Skip(version == 1 ? 16 : 8);
      movie.time_scale = cursor.U32();
      movie.duration = cursor.Time(version);
      has_header = cursor.ok() && movie.time_scale > 0;
    } else if (child.type == Type("mvex")) {
      movie.fragmented = true;
    } else if (child.type == Type("trak")) {
      auto track = ParseTrack(child);
      if (!track) return std::nullopt;
      movie.tracks.push_back(std::move(*track));
    }
  }
  if (!has_header) return std::nullopt;
  return movie;
}

bool VisitTimes(const Track& track, const std::function<bool(std::int64_t, std::int64_t)>& visit) {
  const auto durations = Find(track.table, Type("stts"));
  if (!durations) return false;
  Runs deltas(durations);
  Runs offsets(Find(track.table, Type("ctts")));
  std::int64_t decode_time = 0;
  std::uint32_t delta = 0;
  for (std::uint32_t i = 0; i < track.samples; ++i) {
    // A table that ends early leaves the rest without times of their own: the last delta goes on.
    std::uint32_t offset = 0;
    offsets.Next(offset);
    if (!visit(decode_time, decode_time + static_cast<std::int32_t>(offset))) return false;
    deltas.Next(delta);
    decode_time += delta;  // of 2^32 samples at most, each below 2^32: no overflow
  }
  return true;
}

const TopBox* Layout::Find(std::uint32_t type) const {
  const auto found = std::find_if(boxes.begin(), boxes.end(),
                                  [type](const TopBox& box) { return box.type == type; });
  return found != boxes.end() ? &*found : nullptr;
}

Layout ReadLayout(Reader& file) {
  Layout layout;
  const std::int64_t stated = file.Size();
  const std::uint64_t size = stated > 0 ? static_cast<std::uint64_t>(stated) : 0;
  while (size - layout.end >= kShortHeader && layout.boxes.size() < kMostBoxes) {
    const std::uint64_t available = size - layout.end;
    std::uint8_t start[kLongHeader] = {};
    const std::size_t length = available < kLongHeader ? kShortHeader : kLongHeader;
    if (!file.ReadAt(layout.end, start, length)) break;
    const auto header = ParseHeader({start, length}, available);
    if (!header) break;
    if (header->size > available) {
      layout.cut_type = header->type;
      break;
    }
    Cursor cursor({start, length});
    layout.boxes.push_back(
        {header->type, layout.end, header->length, header->size, cursor.U32() == 0});
    layout.end += header->size;
  }
  return layout;
}

std::optional<Bytes> ReadContent(Reader& file, const TopBox& box, std::uint64_t limit) {
  const std::uint64_t size = box.size - box.header;
  if (size > limit) return std::nullopt;
  Bytes content(static_cast<std::size_t>(size));
  if (!file.ReadAt(box.offset + box.header, content.data(), content.size())) return std::nullopt;
  return content;
}

void Writer::Number(std::uint64_t value, unsigned width) {
  for (unsigned i = width; i-- > 0;) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void Writer::PatchU32(std::size_t at, std::uint64_t value) {
  for (std::size_t i = 0; i < 4; ++i) {
    bytes[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
  }
}

}  // namespace camm::mp4
