#include "av_toolbox/mp4_boxes.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace lum {
namespace {

constexpr int64_t kHeaderSize = 8;
constexpr int64_t kLargestScanned = int64_t{64} * 1024;  // bytes
constexpr uint32_t kPlainDescription = 16;               // bytes

// Beside the one `moov`.
constexpr std::string_view kTopLevel[] = {"ftyp", "free", "skip", "wide", "mdat", "uuid"};

constexpr struct {
  std::string_view parent;
  std::string_view child;
} kPlain[] = {{"trak", "tkhd"}, {"trak", "edts"}, {"trak", "mdia"}, {"edts", "elst"},
              {"mdia", "mdhd"}, {"mdia", "hdlr"}, {"mdia", "minf"}, {"minf", "nmhd"},
              {"minf", "gmhd"}, {"minf", "hdlr"}, {"minf", "dinf"}, {"minf", "stbl"},
              {"dinf", "dref"}, {"stbl", "stsd"}, {"stbl", "stts"}, {"stbl", "stsz"},
              {"stbl", "stsc"}, {"stbl", "stco"}, {"stbl", "co64"}};

constexpr std::string_view kContainers[] = {"trak", "edts", "mdia", "minf", "dinf", "stbl"};
// They may be large, and tell of their own track only.
constexpr std::string_view kTables[] = {"stts", "stsz", "stz2", "stsc", "stco", "co64",
                                        "stss", "stps", "ctts", "cslg", "sdtp", "elst"};
// What FFmpeg's reader would apply to the last track it has met, or to the whole file, wherever it
// meets it.
constexpr std::string_view kFarReaching[] = {"moov", "trak", "cmov", "mvex", "moof", "traf",
                                             "trun", "stsd", "stsc", "ctts", "cslg", "sdtp",
                                             "senc", "saiz", "saio", "tenc", "adrm"};

template <typename List>
bool Contains(const List& list, std::string_view type) {
  return std::find(std::begin(list), std::end(list), type) != std::end(list);
}

uint64_t BigEndian(const uint8_t* bytes, int count) {
  uint64_t value = 0;
  for (int i = 0; i < count; ++i) value = value << 8 | bytes[i];
  return value;
}

struct Box {
  std::string type;
  int64_t begin = 0;  // of the payload
  int64_t end = 0;
};

class Boxes {
 public:
  explicit Boxes(const ByteInput& input) : input_(input) {}

  // Calls look(box) for each of the boxes in [begin, end), until one of them gives false. What is
  // left may be too short for a box, as FFmpeg allows.
  // @return false when one did, or when the bytes are no row of boxes.
  template <typename Look>
  bool All(int64_t begin, int64_t end, Look look) const {
    while (end - begin >= kHeaderSize) {
      Box box;
      if (!ReadBox(begin, end, box) || !look(box)) return false;
      begin = box.end;
    }
    return true;
  }

  [[nodiscard]] bool IsPlain(const Box& box) const {
    if (box.type == "stsd") return HoldsPlainDescription(box);
    if (!Contains(kContainers, box.type)) return true;
    return All(box.begin, box.end, [&](const Box& child) {
      const bool expected = std::any_of(
          std::begin(kPlain), std::end(kPlain),
          [&](const auto& pair) { return pair.parent == box.type && pair.child == child.type; });
      return expected && IsPlain(child);
    });
  }

  [[nodiscard]] bool ConcernsItselfOnly(const Box& box) const {
    if (Contains(kTables, box.type)) return true;
    if (Contains(kContainers, box.type)) {
      return All(box.begin, box.end, [this](const Box& child) {
        return child.type != "trak" && ConcernsItselfOnly(child);
      });
    }
    if (box.type != "stsd" && Contains(kFarReaching, box.type)) return false;
    if (box.end - box.begin > kLargestScanned) return false;
    std::string payload(static_cast<size_t>(box.end - box.begin), '\0');
    if (!input_.ReadAt(box.begin, reinterpret_cast<uint8_t*>(payload.data()), payload.size())) {
      return false;
    }
    return std::none_of(std::begin(kFarReaching), std::end(kFarReaching),
                        [&](auto type) { return payload.find(type) != std::string::npos; });
  }

  // The number that a track's header gives; 0, which is none, without a header.
  [[nodiscard]] uint32_t TrackId(const Box& track) const {
    uint32_t id = 0;
    All(track.begin, track.end, [&](const Box& box) {
      if (box.type != "tkhd") return true;
      std::array<uint8_t, 24> header{};
      if (box.end - box.begin < static_cast<int64_t>(header.size()) ||
          !input_.ReadAt(box.begin, header.data(), header.size())) {
        return false;
      }
      id = static_cast<uint32_t>(BigEndian(&header[header[0] == 1 ? 20 : 12], 4));
      return true;
    });
    return id;
  }

 private:
  // One sample description without room for boxes inside.
  [[nodiscard]] bool HoldsPlainDescription(const Box& list) const {
    std::array<uint8_t, 12> bytes{};  // version and flags, count, size of the first
    return list.end - list.begin == int64_t{8} + kPlainDescription &&
           input_.ReadAt(list.begin, bytes.data(), bytes.size()) && BigEndian(&bytes[4], 4) == 1 &&
           BigEndian(&bytes[8], 4) == kPlainDescription;
  }

  bool ReadBox(int64_t begin, int64_t end, Box& box) const {
    std::array<uint8_t, kHeaderSize> header{};
    if (!input_.ReadAt(begin, header.data(), header.size())) return false;
    box.type.assign(reinterpret_cast<const char*>(&header[4]), 4);
    box.begin = begin + kHeaderSize;
    auto size = static_cast<int64_t>(BigEndian(header.data(), 4));
    if (size == 0) size = end - begin;  // up to the end
    if (size == 1) {                    // 64 bits follow
      if (end - box.begin < kHeaderSize ||
          !input_.ReadAt(box.begin, header.data(), header.size())) {
        return false;
      }
      size = static_cast<int64_t>(BigEndian(header.data(), 8));
      box.begin += kHeaderSize;
    }
    if (size < box.begin - begin || size > end - begin) return false;
    box.end = begin + size;
    return true;
  }

  const ByteInput& input_;
};

}  // namespace

bool IsPlainTrack(const ByteInput& input, int64_t size, uint32_t track_id) {
  const Boxes boxes(input);
  int movies = 0;
  int tracks = 0;  // of that number
  return boxes.All(0, size,
                   [&](const Box& top) {
                     if (top.type != "moov") return Contains(kTopLevel, top.type);
                     ++movies;
                     return boxes.All(top.begin, top.end, [&](const Box& box) {
                       const bool wanted = box.type == "trak" && boxes.TrackId(box) == track_id;
                       tracks += static_cast<int>(wanted);
                       return wanted ? boxes.IsPlain(box) : boxes.ConcernsItselfOnly(box);
                     });
                   }) &&
         movies == 1 && tracks == 1;
}

void PrefetchMovie(const ByteInput& input, int64_t size) {
  Boxes(input).All(0, size, [&](const Box& box) {
    if (box.type != "moov") return Contains(kTopLevel, box.type);
    input.Prefetch(box.begin, static_cast<size_t>(box.end - box.begin));
    return false;
  });
}

}  // namespace lum
