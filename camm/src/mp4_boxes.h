// The boxes of ISO base media files (ISO/IEC 14496-12; QuickTime files are alike): reading them
// from a file or from memory, within bounds whatever the bytes say, and making them.
#ifndef CAMM_SRC_MP4_BOXES_H_
#define CAMM_SRC_MP4_BOXES_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace camm::mp4 {

using Bytes = std::vector<std::uint8_t>;

/// A box's type as a number.
constexpr std::uint32_t Type(const char (&code)[5]) {
  std::uint32_t type = 0;
  for (int i = 0; i < 4; ++i) type = type << 8 | static_cast<std::uint8_t>(code[i]);
  return type;
}

/// Bytes that somebody else owns.
struct View {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;

  [[nodiscard]] View From(std::size_t at) const {
    return at < size ? View{data + at, size - at} : View{};
  }
};

/// Reads big-endian numbers one after another. After the end everything is 0 and `ok` false.
class Cursor {
 public:
  explicit Cursor(View view) : view_(view) {}

  std::uint16_t U16() { return static_cast<std::uint16_t>(Number(2)); }
  std::uint32_t U32() { return static_cast<std::uint32_t>(Number(4)); }
  std::uint64_t U64() { return Number(8); }
  /// Four or eight bytes, as version 0 and 1 of a box store times.
  std::uint64_t Time(unsigned version) { return Number(version == 1 ? 8 : 4); }
  void Skip(std::size_t count) { Take(count); }
  /// Version and flags; returns the version.
  unsigned Version() { return U32() >> 24; }
  [[nodiscard]] std::size_t left() const { return view_.size; }
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  const std::uint8_t* Take(std::size_t count);
  std::uint64_t Number(std::size_t width);

  View view_;
  bool ok_ = true;
};

/// A box inside another one.
struct Child {
  std::uint32_t type = 0;
  View whole;
  View content;
};

/// The boxes that lie one after another in `parent`, up to the first that does not fit in.
std::vector<Child> Children(View parent);
/// The content of the first box of the type; nothing where there is none.
std::optional<View> Find(View parent, std::uint32_t type);
/// The same down a path.
std::optional<View> Find(View parent, std::initializer_list<std::uint32_t> path);

/// One entry of an edit list.
struct Edit {
  std::uint64_t duration = 0;    ///< in the movie's time scale; 0: to the end
  std::int64_t media_time = -1;  ///< in the track's; -1: nothing is presented
};

struct Track {
  View whole;  ///< the `trak` box
  std::uint32_t id = 0;
  std::uint32_t handler = 0;
  std::uint32_t entry = 0;  ///< type of the first sample entry
  std::uint32_t time_scale = 0;
  std::vector<Edit> edits;
  View table;                 ///< content of `stbl`
  std::uint32_t samples = 0;  ///< as `stsz` or `stz2` counts them
};

struct Movie {
  std::uint32_t time_scale = 0;
  std::uint64_t duration = 0;
  bool fragmented = false;  ///< more samples may lie in fragments
  std::vector<Track> tracks;
};

/// @param moov content of the `moov` box; must outlive the result.
/// @return nothing where the movie's header or a track is broken.
std::optional<Movie> ParseMovie(View moov);

/// The times of a track's samples, without edits, in decoding order: calls
/// `visit(decode_time, composition_time)` in the track's time scale for each sample that `stts`
/// names and `Track::samples` counts.
/// @return false where the tables are broken or `visit` returned false.
bool VisitTimes(const Track& track, const std::function<bool(std::int64_t, std::int64_t)>& visit);

/// Bytes at any place: a file, or what stands for one.
class Reader {
 public:
  Reader() = default;
  virtual ~Reader() = default;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  /// In bytes; negative when unknown.
  virtual std::int64_t Size() = 0;
  /// @return whether all `size` bytes were read.
  virtual bool ReadAt(std::uint64_t offset, std::uint8_t* to, std::size_t size) = 0;
};

/// A box of the file itself.
struct TopBox {
  std::uint32_t type = 0;
  std::uint64_t offset = 0;
  std::uint32_t header = 0;  ///< bytes before the content
  std::uint64_t size = 0;    ///< header included
  bool to_the_end = false;   ///< its size is stored as 0: all the rest of the file
};

struct Layout {
  std::vector<TopBox> boxes;
  /// Where the last whole box ends. What follows is not a box, or one that the file's end cuts off.
  std::uint64_t end = 0;
  std::uint32_t cut_type = 0;  ///< the type in the header of the latter

  [[nodiscard]] const TopBox* Find(std::uint32_t type) const;
};

/// The file's boxes in order. Empty where it does not begin with one.
Layout ReadLayout(Reader& file);

/// The content of a box. Nothing where it can't be read or is larger than `limit` bytes.
std::optional<Bytes> ReadContent(Reader& file, const TopBox& box, std::uint64_t limit);

/// The largest `moov` that is read into memory.
inline constexpr std::uint64_t kMovieLimit = std::uint64_t{1} << 30;

/// Appends big-endian numbers and boxes to a buffer.
class Writer {
 public:
  Bytes bytes;

  void U16(std::uint64_t value) { Number(value, 2); }
  void U32(std::uint64_t value) { Number(value, 4); }
  void U64(std::uint64_t value) { Number(value, 8); }
  void Zeros(std::size_t count) { bytes.resize(bytes.size() + count); }
  void Append(View view) { bytes.insert(bytes.end(), view.data, view.data + view.size); }
  /// Writes over four bytes that are there already.
  void PatchU32(std::size_t at, std::uint64_t value);

  /// A box whose content `fill` writes.
  template <typename Fill>
  void Box(std::uint32_t type, Fill&& fill) {
    const std::size_t start = bytes.size();
    U32(0);
    U32(type);
    fill();
    PatchU32(start, bytes.size() - start);
  }
  /// The same with version and flags.
  template <typename Fill>
  void FullBox(std::uint32_t type, unsigned version, unsigned flags, Fill&& fill) {
    Box(type, [&] {
      U32(version << 24 | flags);
      fill();
    });
  }

 private:
  void Number(std::uint64_t value, unsigned width);
};

}  // namespace camm::mp4

#endif  // CAMM_SRC_MP4_BOXES_H_
