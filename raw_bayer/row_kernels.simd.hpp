// The row kernels' one source, compiled once per instruction set after OpenCV's universal
// intrinsics. It defines the table LUM_KERNELS. No include guard: it is not a header.

#include <cstring>

#include "raw_bayer/row_kernels.h"

// Pairs of samples below are taken as the low and high half of 32-bit lanes.
#if CV_SIMD && defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__

namespace lum::raw::kernels {
namespace {

using cv::v_float32;
using cv::v_uint16;
using cv::v_uint32;
using Sample = std::uint16_t;

constexpr int kLanes = v_uint16::nlanes;

/// Columns of the widest rows, plus those of a vector, do not fit an int.
using Column = std::ptrdiff_t;

inline v_uint16 Load(const Sample* from) { return cv::vx_load(from); }
inline v_uint32 Pairs(const Sample* from) { return cv::v_reinterpret_as_u32(Load(from)); }
inline v_uint16 Samples(const v_uint32& pairs) { return cv::v_reinterpret_as_u16(pairs); }

inline v_uint32 First(const v_uint32& pairs) { return pairs & cv::vx_setall_u32(0x0000ffffU); }
inline v_uint32 Second(const v_uint32& pairs) { return cv::v_shr<16>(pairs); }
/// The second ones of two vectors of pairs, by way of signed numbers: unsigned ones take SSE2 many
/// steps to pack.
inline v_uint16 PackSecond(const v_uint32& a, const v_uint32& b) {
  const auto second = [](const v_uint32& pairs) {
    return cv::v_shr<16>(cv::v_reinterpret_as_s32(pairs));
  };
  return cv::v_reinterpret_as_u16(cv::v_pack(second(a), second(b)));
}
inline v_uint16 WithFirst(const v_uint32& pairs, const v_uint32& first) {
  return Samples((pairs & cv::vx_setall_u32(0xffff0000U)) | first);
}
inline v_uint16 WithSecond(const v_uint32& pairs, const v_uint32& second) {
  return Samples(First(pairs) | cv::v_shl<16>(second));
}

/// The processor's own prefetching ends with each page, which is a quarter of a row.
inline void Prefetch(const Sample* from) {
#if defined(__GNUC__)
  __builtin_prefetch(from);
#else
  static_cast<void>(from);
#endif
}

inline v_uint16 Max(const v_uint16& a) { return a; }
template <typename... Vectors>
inline v_uint16 Max(const v_uint16& a, const Vectors&... others) {
  return cv::v_max(a, Max(others...));
}

inline v_uint16 Sum(const v_uint16& a) { return a; }
template <typename... Vectors>
inline v_uint16 Sum(const v_uint16& a, const Vectors&... others) {
  return cv::v_add_wrap(a, Sum(others...));
}

/// The truncated mean of 1 << kShift vectors, within 16 bits: the sum of the truncated quotients is
/// below the mean by less than 1 << kShift, and the sum modulo 65536 says by how much.
template <int kShift, typename... Vectors>
inline v_uint16 Mean(const Vectors&... vectors) {
  static_assert(sizeof...(Vectors) == 1 << kShift, "a mean of that many");
  const v_uint16 least = Sum(cv::v_shr<kShift>(vectors)...);
  const v_uint16 missing = cv::v_sub_wrap(cv::v_shr<kShift>(Sum(vectors...)), least);
  return cv::v_add_wrap(least, missing & cv::vx_setall_u16(0xffff >> kShift));
}

/// What to do with a vector of samples: only look for bad ones, write those with bad ones, or write
/// each. The last spares a branch that goes either way where bad samples are frequent.
enum class Visit { kFind, kSparse, kDense };

/// Which samples are bad, for one rate.
class Judge {
 public:
  explicit Judge(const Screen& screen)
      : high_(cv::vx_setall_u16(screen.high)),
        low_(cv::vx_setall_u16(screen.low)),
        whole_(cv::vx_setall_u16(screen.whole)),
        rate_(screen.rate),
        useful_(screen.useful) {}

  /// Finds the good samples. @return whether any is bad; only where one is, or in a dense visit,
  /// `good` is set.
  template <Visit kVisit>
  bool FindGood(const v_uint16& samples, const v_uint16& brightest, v_uint16& good) const {
    const v_uint16 zero = cv::vx_setzero_u16();
    if (useful_) {
      // Both differences saturate at 0.
      const v_uint16 bound =
          cv::v_min(samples, cv::v_mul_hi(samples, high_) + cv::vx_setall_u16(1));
      const v_uint16 surely_good = (bound - brightest) == zero;
      if (kVisit != Visit::kDense && cv::v_check_all(surely_good)) {
        return false;
      }
      const v_uint16 quotient = cv::v_mul_hi(samples, low_) | (samples & whole_);
      good = (quotient - brightest) == zero;
      if (!cv::v_check_any(good ^ surely_good)) {
        return kVisit != Visit::kDense || !cv::v_check_all(good);
      }
    }
    v_uint32 s0, s1, m0, m1;
    cv::v_expand(samples, s0, s1);
    cv::v_expand(brightest, m0, m1);
    const v_uint32 good0 = NotOutshining(s0, m0);
    const v_uint32 good1 = NotOutshining(s1, m1);
    good = cv::v_reinterpret_as_u16(
        cv::v_pack(cv::v_reinterpret_as_s32(good0), cv::v_reinterpret_as_s32(good1)));
    return !cv::v_check_all(good);
  }

 private:
  /// The rule itself.
  v_uint32 NotOutshining(const v_uint32& samples, const v_uint32& brightest) const {
#if CV_NEON && !defined(__aarch64__)
    // 32-bit NEON divides by an estimate and knows no denormal numbers; its scalar unit is exact.
    std::uint32_t sample[v_uint32::nlanes], limit[v_uint32::nlanes];
    cv::v_store(sample, samples);
    cv::v_store(limit, brightest);
    for (int i = 0; i < v_uint32::nlanes; ++i) {
      const bool good = static_cast<float>(sample[i]) / rate_ <= static_cast<float>(limit[i]);
      limit[i] = good ? 0xffffffffU : 0;
    }
    return cv::vx_load(limit);
#else
    return cv::v_reinterpret_as_u32(Float(samples) / cv::vx_setall_f32(rate_) <= Float(brightest));
#endif
  }
  static v_float32 Float(const v_uint32& v) { return cv::v_cvt_f32(cv::v_reinterpret_as_s32(v)); }

  v_uint16 high_, low_, whole_;
  float rate_;
  bool useful_;
};

/// The surroundings of a vector of samples from column `x` on, as `FixBadPixels` sees them.
class Cross {
 public:
  Cross(const RepairRow& row, Column x) : row_(row), x_(x) {}

  v_uint16 Brightest() const {
    return Max(Load(At(-1)), Load(At(0) - 1), Load(At(0) + 1), Load(At(1)));
  }
  /// Means of the samples two away at sites of red or blue, of the diagonals at green ones.
  v_uint16 Repaired() const {
    const v_uint16 even_lanes = Samples(cv::vx_setall_u32(0x0000ffffU));
    const v_uint16 coloured = ((x_ ^ row_.y) & 1) == 0 ? even_lanes : ~even_lanes;
    const auto either = [&](const Sample* same_colour, const Sample* diagonal) {
      return cv::v_select(coloured, Load(same_colour), Load(diagonal));
    };
    return Mean<2>(either(At(-2), At(-1) - 1), either(At(0) - 2, At(-1) + 1),
                   either(At(0) + 2, At(1) - 1), either(At(2), At(1) + 1));
  }

 private:
  const Sample* At(int dy) const { return row_.rows[2 + dy] + x_; }
  const RepairRow& row_;
  Column x_;
};

/// The same for `FixBadPixels2`.
class Square {
 public:
  Square(const RepairRow& row, Column x) {
    int i = 0;
    for (int dy = -1; dy <= 1; ++dy) {
      for (int dx = -1; dx <= 1; ++dx) {
        if (dx != 0 || dy != 0) {
          around_[i++] = Load(row.rows[2 + dy] + x + dx);
        }
      }
    }
  }

  v_uint16 Brightest() const {
    return Max(around_[0], around_[1], around_[2], around_[3], around_[4], around_[5], around_[6],
               around_[7]);
  }
  v_uint16 Repaired() const {
    return Mean<3>(around_[0], around_[1], around_[2], around_[3], around_[4], around_[5],
                   around_[6], around_[7]);
  }

 private:
  v_uint16 around_[8];
};

/// @return whether a sample of the vector from column `x` on is bad.
template <typename Around, Visit kVisit>
inline bool VisitVector(const RepairRow& row, const Judge& judge, Column x) {
  Prefetch(row.ahead + x);
  const Around around(row, x);
  const v_uint16 samples = Load(row.rows[2] + x);
  v_uint16 good;
  const bool bad = judge.FindGood<kVisit>(samples, around.Brightest(), good);
  if ((bad && kVisit == Visit::kSparse) || kVisit == Visit::kDense) {
    cv::v_store(row.out + x, cv::v_select(good, samples, around.Repaired()));
  }
  return bad;
}

/// Visits the samples from `x` to `end` in vectors. The last of them may begin earlier than the one
/// before ends: its samples come out the same again, as nothing reads `out`.
/// @return where a search stopped, else `end`.
template <typename Around>
int Fix(const RepairRow& row, const Screen& screen, int first, int end) {
  const Judge judge(screen);
  const Column last = end - kLanes;
  Column x = first;
  if (row.out == nullptr) {
    for (; x < end; x += kLanes) {
      const Column at = x < last ? x : last;
      if (VisitVector<Around, Visit::kFind>(row, judge, at)) {
        return static_cast<int>(at);
      }
    }
    return end;
  }
  // Each run goes the way that suits the run before it.
  constexpr int kRun = 32;
  bool dense = false;
  while (x < end) {
    int vectors = 0;
    int with_bad = 0;
    for (; vectors < kRun && x < end; ++vectors, x += kLanes) {
      const Column at = x < last ? x : last;
      with_bad += (dense ? VisitVector<Around, Visit::kDense>(row, judge, at)
                         : VisitVector<Around, Visit::kSparse>(row, judge, at))
                      ? 1
                      : 0;
    }
    dense = 4 * with_bad > vectors;
  }
  return end;
}

/// Calls `work(x)` for the vectors of a span of cells; the last may begin before the end of the one
/// before.
template <typename Work>
inline void ForVectors(int cells, const Work& work) {
  const Column last = cells - kLanes;
  for (Column x = 0; x < last; x += kLanes) {
    work(x);
  }
  work(last);
}

void Split(const SplitSpan& span) {
  ForVectors(span.cells, [&](Column x) {
    v_uint32 tops[2];
    v_uint32 bottoms[2];
    for (int i = 0; i < 2; ++i) {
      const Column rx = 2 * x + Column{i} * kLanes;
      Prefetch(span.ahead[0] + rx);
      Prefetch(span.ahead[1] + rx);
      const v_uint32 top = Pairs(span.raw[1] + rx);     // red, green
      const v_uint32 bottom = Pairs(span.raw[2] + rx);  // green, blue
      const v_uint32 greens = Second(top) + First(bottom);
      const v_uint32 at_red =
          greens + First(Pairs(span.raw[0] + rx)) + First(Pairs(span.raw[1] + rx - 1));
      // The load one further ends at the first sample after the span, at most in the border.
      const v_uint32 at_blue =
          greens + Second(Pairs(span.raw[2] + rx + 1)) + Second(Pairs(span.raw[3] + rx));
      cv::v_store(span.g[0] + rx, WithFirst(top, cv::v_shr<2>(at_red)));
      cv::v_store(span.g[1] + rx, WithSecond(bottom, cv::v_shr<2>(at_blue)));
      tops[i] = top;
      bottoms[i] = bottom;
    }
    cv::v_store(span.r + x, PackSecond(cv::v_shl<16>(tops[0]), cv::v_shl<16>(tops[1])));
    cv::v_store(span.b + x, PackSecond(bottoms[0], bottoms[1]));
  });
}

void Merge(const MergeSpan& span) {
  ForVectors(span.cells, [&](Column x) {
    v_uint32 red[2], blue[2];
    cv::v_expand(Load(span.r + x), red[0], red[1]);
    cv::v_expand(Load(span.b + x), blue[0], blue[1]);
    for (int i = 0; i < 2; ++i) {
      const Column rx = 2 * x + Column{i} * kLanes;
      cv::v_store(span.raw[0] + rx, WithFirst(Pairs(span.g[0] + rx), red[i]));
      cv::v_store(span.raw[1] + rx, WithSecond(Pairs(span.g[1] + rx), blue[i]));
    }
  });
}

void Stream(Sample* to, const Sample* from, std::size_t samples) {
  // Whole lines of the cache, so that none is written in two ways.
  constexpr std::size_t kLine = 64;
  static_assert(kLine % (kLanes * sizeof(Sample)) == 0, "a line holds whole vectors");
  const std::size_t skipped = (0 - reinterpret_cast<std::uintptr_t>(to)) % kLine / sizeof(Sample);
  std::size_t i = skipped < samples ? skipped : samples;
  std::memcpy(to, from, i * sizeof(Sample));
  for (; i + kLine / sizeof(Sample) <= samples; i += kLine / sizeof(Sample)) {
    for (std::size_t j = 0; j < kLine / sizeof(Sample); j += kLanes) {
      cv::v_store_aligned_nocache(to + i + j, Load(from + i + j));
    }
  }
  std::memcpy(to + i, from + i, (samples - i) * sizeof(Sample));
}

void FinishStreaming() {
#if CV_SSE2
  _mm_sfence();
#endif
}

}  // namespace

const Kernels LUM_KERNELS = {
    LUM_KERNELS_NAME, kLanes, Fix<Cross>, Fix<Square>, Split, Merge, Stream, FinishStreaming};

}  // namespace lum::raw::kernels

#else  // No vectors that the code above can use.

const lum::raw::kernels::Kernels lum::raw::kernels::LUM_KERNELS = {
    "none", 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

#endif
