// A bit set whose size is fixed at construction.
#ifndef QVXMEDIA_EDITOR_DYNAMIC_BITSET_H_
#define QVXMEDIA_EDITOR_DYNAMIC_BITSET_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lum {

/// Not thread-safe: one thread at a time.
class DynamicBitset {
 public:
  /// `count` bits, all clear.
  explicit DynamicBitset(size_t count)
      : count_(count), words_((count + kWordBits - 1) / kWordBits, 0) {}

  /// Sets or clears bit `i`, which must be below the count.
  void Set(size_t i, bool value) {
    const uint32_t mask = uint32_t{1} << (i % kWordBits);
    uint32_t& word = words_[i / kWordBits];
    word = value ? word | mask : word & ~mask;
  }

  /// True when every bit is set; true for a count of 0.
  [[nodiscard]] bool All() const {
    for (size_t i = 0; i < count_; ++i) {
      if ((words_[i / kWordBits] >> (i % kWordBits) & 1U) == 0) return false;
    }
    return true;
  }

 private:
  static constexpr size_t kWordBits = 32;

  size_t count_;
  std::vector<uint32_t> words_;
};

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_DYNAMIC_BITSET_H_
