#include "camm/samples.h"

#include <cstring>

namespace camm {
namespace {

static_assert(sizeof(float) == 4 && sizeof(double) == 8, "fields are IEEE 754 as stored");
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "samples are read and written in the host's byte order, which must be little-endian"
#endif

std::uint16_t ReadU16(const std::uint8_t* at) {
  return static_cast<std::uint16_t>(at[0] | at[1] << 8);
}

template <typename T>
Sample ReadFields(const std::uint8_t* at) {
  T sample;
  T::Fields(sample, [&at](std::string_view, auto& field) {
    std::memcpy(&field, at, sizeof field);
    at += sizeof field;
  });
  return sample;
}

template <std::size_t... kTypes>
Sample ReadSample(std::size_t type, const std::uint8_t* at, std::index_sequence<kTypes...>) {
  using Reader = Sample (*)(const std::uint8_t*);
  static constexpr Reader kReaders[] = {&ReadFields<std::variant_alternative_t<kTypes, Sample>>...};
  static_assert(((std::variant_alternative_t<kTypes, Sample>::kType == kTypes) && ...));
  return kReaders[type](at);
}

template <std::size_t... kTypes>
std::string_view NameOf(std::size_t type, std::index_sequence<kTypes...>) {
  static constexpr std::string_view kNames[] = {
      std::variant_alternative_t<kTypes, Sample>::kName...};
  return kNames[type];
}

}  // namespace

std::string_view TypeName(std::size_t type) {
  return NameOf(type, std::make_index_sequence<kTypeCount>());
}

void Decode(const std::uint8_t* data, std::size_t size,
            const std::function<void(const Sample&)>& on_sample,
            const std::function<void(const Defect&)>& on_defect) {
  std::size_t at = 0;
  while (at < size) {
    if (size - at < kHeaderSize) return on_defect({DefectKind::kCutSample, at, 0});
    const unsigned type = ReadU16(data + at + 2);
    if (ReadU16(data + at) != 0) on_defect({DefectKind::kReservedBytes, at, type});
    if (type >= kTypeCount) return on_defect({DefectKind::kUnknownType, at, type});
    if (size - at - kHeaderSize < kPayloadSize[type]) {
      return on_defect({DefectKind::kCutSample, at, type});
    }
    on_sample(ReadSample(type, data + at + kHeaderSize, std::make_index_sequence<kTypeCount>()));
    at += kHeaderSize + kPayloadSize[type];
  }
}

void Encode(const Sample& sample, std::vector<std::uint8_t>& out) {
  const auto append = [&out](const void* bytes, std::size_t size) {
    const std::size_t end = out.size();
    out.resize(end + size);
    std::memcpy(out.data() + end, bytes, size);
  };
  const std::uint16_t header[] = {0, static_cast<std::uint16_t>(sample.index())};
  append(header, sizeof header);
  std::visit(
      [&append](const auto& fields) {
        std::decay_t<decltype(fields)>::Fields(
            fields,
            [&append](std::string_view, const auto& field) { append(&field, sizeof field); });
      },
      sample);
}

}  // namespace camm
