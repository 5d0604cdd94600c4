// The row kernels' one source, included by one file per instruction set after OpenCV's universal
// intrinsics. It defines the table LUM_RAW_KERNELS. No include guard: it is no header.

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

inline v_uint16 Load(const Sample* from) { return cv::vx_load(from); }
inline v_uint32 Pairs(const Sample* from) { return cv::v_reinterpret_as_u32(Load(from)); }
inline v_uint16 Samples(const v_uint32& pairs) { return cv::v_reinterpret_as_u16(pairs); }

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
        slack_(cv::vx_setall_u16(screen.slack)),
        low_(cv::vx_setall_u16(screen.low)),
        whole_(cv::vx_setall_u16(screen.whole)),
        rate_(cv::vx_setall_f32(screen.rate)),
        useful_(screen.useful) {}

  /// Finds the good samples. @return whether any is bad; only where one is, or in a dense visit,
  /// `good` is set.
  template <Visit kVisit>
  bool FindGood(const v_uint16& samples, const v_uint16& brightest, v_uint16& good) const {
    const v_uint16 zero = cv::vx_setzero_u16();
    if (useful_) {
      // Both differences saturate at 0.
      const v_uint16 bound = cv::v_min(samples, cv::v_mul_hi(samples, high_) + slack_);
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
  static v_float32 Float(const v_uint32& v) { return cv::v_cvt_f32(cv::v_reinterpret_as_s32(v)); }
  /// The rule itself.
  v_uint32 NotOutshining(const v_uint32& samples, const v_uint32& brightest) const {
    return cv::v_reinterpret_as_u32(Float(samples) / rate_ <= Float(brightest));
  }

  v_uint16 high_, slack_, low_, whole_;
  v_float32 rate_;
  bool useful_;
};

/// The rule of `FixBadPixels` for a vector of samples from column `x` on. @return whether one is
/// bad.
struct CrossRule {
  template <Visit kVisit>
  static bool Block(const RepairRow& row, const Judge& judge, int x) {
    const Sample* const above = row.rows[1] + x;
    const Sample* const centre = row.rows[2] + x;
    const Sample* const below = row.rows[3] + x;
    Prefetch(row.ahead + x);
    const v_uint16 samples = Load(centre);
    v_uint16 good;
    const bool bad = judge.FindGood<kVisit>(
        samples, Max(Load(above), Load(below), Load(centre - 1), Load(centre + 1)), good);
    if ((bad && kVisit == Visit::kSparse) || kVisit == Visit::kDense) {
      // At a site of red or blue the samples two away, at a green one the diagonals.
      const v_uint16 even_lanes = Samples(cv::vx_setall_u32(0x0000ffffU));
      const v_uint16 coloured = ((x ^ row.y) & 1) == 0 ? even_lanes : ~even_lanes;
      const auto either = [&](const Sample* same_colour, const Sample* diagonal) {
        return cv::v_select(coloured, Load(same_colour), Load(diagonal));
      };
      const v_uint16 mean =
          Mean<2>(either(row.rows[0] + x, above - 1), either(centre - 2, above + 1),
                  either(centre + 2, below - 1), either(row.rows[4] + x, below + 1));
      cv::v_store(row.out + x, cv::v_select(good, samples, mean));
    }
    return bad;
  }
};

/// The same for `FixBadPixels2`.
struct SquareRule {
  template <Visit kVisit>
  static bool Block(const RepairRow& row, const Judge& judge, int x) {
    const Sample* const above = row.rows[1] + x;
    const Sample* const centre = row.rows[2] + x;
    const Sample* const below = row.rows[3] + x;
    Prefetch(row.ahead + x);
    const v_uint16 samples = Load(centre);
    const v_uint16 a = Load(above - 1), b = Load(above), c = Load(above + 1);
    const v_uint16 d = Load(centre - 1), e = Load(centre + 1);
    const v_uint16 f = Load(below - 1), g = Load(below), h = Load(below + 1);
    v_uint16 good;
    const bool bad = judge.FindGood<kVisit>(samples, Max(a, b, c, d, e, f, g, h), good);
    if ((bad && kVisit == Visit::kSparse) || kVisit == Visit::kDense) {
      const v_uint16 mean = Mean<3>(a, b, c, d, e, f, g, h);
      cv::v_store(row.out + x, cv::v_select(good, samples, mean));
    }
    return bad;
  }
};

/// Visits the samples from `x` to `end` in vectors. The last of them may begin earlier than the one
/// before ends: its samples come out the same again, as nothing reads `out`.
/// @return where a search stopped, else `end`.
template <typename Rule>
int Fix(const RepairRow& row, const Screen& screen, int x, int end) {
  const Judge judge(screen);
  const int last = end - kLanes;
  if (row.out == nullptr) {
    for (; x < end; x += kLanes) {
      const int at = x < last ? x : last;
      if (Rule::template Block<Visit::kFind>(row, judge, at)) {
        return at;
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
      const int at = x < last ? x : last;
      with_bad += (dense ? Rule::template Block<Visit::kDense>(row, judge, at)
                         : Rule::template Block<Visit::kSparse>(row, judge, at))
                      ? 1
                      : 0;
    }
    dense = 4 * with_bad > vectors;
  }
  return end;
}

int Split(const SplitSpan& span) {
  const v_uint32 low = cv::vx_setall_u32(0x0000ffffU);
  const v_uint32 high = cv::vx_setall_u32(0xffff0000U);
  int x = 0;
  for (; x + kLanes <= span.cells; x += kLanes) {
    v_uint32 red[2];
    v_uint32 blue[2];
    for (int i = 0; i < 2; ++i) {
      const int rx = 2 * x + i * kLanes;
      Prefetch(span.ahead[0] + rx);
      Prefetch(span.ahead[1] + rx);
      const v_uint32 top = Pairs(span.raw[1] + rx);     // red, green
      const v_uint32 bottom = Pairs(span.raw[2] + rx);  // green, blue
      const v_uint32 at_red = cv::v_shr<2>((Pairs(span.raw[0] + rx) & low) + cv::v_shr<16>(top) +
                                           (bottom & low) + (Pairs(span.raw[1] + rx - 1) & low));
      // The load one further ends at the first sample behind the span, at most in the border.
      const v_uint32 at_blue =
          cv::v_shr<2>(cv::v_shr<16>(top) + cv::v_shr<16>(Pairs(span.raw[2] + rx + 1)) +
                       cv::v_shr<16>(Pairs(span.raw[3] + rx)) + (bottom & low));
      cv::v_store(span.g[0] + rx, Samples((top & high) | at_red));
      cv::v_store(span.g[1] + rx, Samples((bottom & low) | cv::v_shl<16>(at_blue)));
      red[i] = top & low;
      blue[i] = cv::v_shr<16>(bottom);
    }
    cv::v_store(span.r + x, cv::v_pack(red[0], red[1]));
    cv::v_store(span.b + x, cv::v_pack(blue[0], blue[1]));
  }
  return x;
}

int Merge(const MergeSpan& span) {
  const v_uint32 low = cv::vx_setall_u32(0x0000ffffU);
  const v_uint32 high = cv::vx_setall_u32(0xffff0000U);
  int x = 0;
  for (; x + kLanes <= span.cells; x += kLanes) {
    v_uint32 red[2];
    v_uint32 blue[2];
    cv::v_expand(Load(span.r + x), red[0], red[1]);
    cv::v_expand(Load(span.b + x), blue[0], blue[1]);
    for (int i = 0; i < 2; ++i) {
      const int rx = 2 * x + i * kLanes;
      cv::v_store(span.raw[0] + rx, Samples((Pairs(span.g[0] + rx) & high) | red[i]));
      cv::v_store(span.raw[1] + rx,
                  Samples((Pairs(span.g[1] + rx) & low) | cv::v_shl<16>(blue[i])));
    }
  }
  return x;
}

void Stream(Sample* to, const Sample* from, std::size_t samples) {
  // Whole lines of the cache, so that none is written in two ways.
  constexpr std::size_t kLine = 64;
  static_assert(kLine % (kLanes * sizeof(Sample)) == 0, "a line holds whole vectors");
  std::size_t i = 0;
  for (; i < samples && reinterpret_cast<std::uintptr_t>(to + i) % kLine != 0; ++i) {
    to[i] = from[i];
  }
  for (; i + kLine / sizeof(Sample) <= samples; i += kLine / sizeof(Sample)) {
    for (std::size_t j = 0; j < kLine / sizeof(Sample); j += kLanes) {
      cv::v_store_aligned_nocache(to + i + j, Load(from + i + j));
    }
  }
  for (; i < samples; ++i) {
    to[i] = from[i];
  }
}

void FinishStreaming() {
#if CV_SSE2
  _mm_sfence();
#endif
}

}  // namespace

const Kernels LUM_RAW_KERNELS = {
    LUM_RAW_KERNELS_NAME, kLanes, Fix<CrossRule>, Fix<SquareRule>, Split, Merge, Stream,
    FinishStreaming};

}  // namespace lum::raw::kernels

#else  // No vectors that the code above can use.

const lum::raw::kernels::Kernels lum::raw::kernels::LUM_RAW_KERNELS = {
    "none", 0x7fffffff, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

#endif
