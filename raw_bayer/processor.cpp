// The kernels on the processor: rows by OpenCV's universal intrinsics, stripes of rows by
// cv::parallel_for_. The vector code addresses whole spans inside one row, where the access rule
// changes no column; it takes its rows from `Row`, and all samples outside such spans go through
// the shared rules in mosaic_rules.h.

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/core/utility.hpp>
#include <vector>

#include "raw_bayer/backends.h"
#include "raw_bayer/mosaic_rules.h"

// The pairs of samples below are taken as the low and high half of 32-bit lanes.
#if CV_SIMD && defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define LUM_RAW_SIMD 1
#else
#define LUM_RAW_SIMD 0
#endif

namespace lum::raw::processor {
namespace {

static_assert(FLT_EVAL_METHOD == 0, "the quotient must be rounded to single precision");

using std::size_t;
using Sample = std::uint16_t;

ConstPlane View(const cv::Mat& image) {
  return {image.ptr<Sample>(), image.step1(), image.cols, image.rows};
}
MutablePlane View(cv::Mat& image) {
  return {image.ptr<Sample>(), image.step1(), image.cols, image.rows};
}

template <typename S>
S* Row(const Plane<S>& plane, int y) {
  return plane.data + SampleOffset(0, y, plane.width, plane.height, plane.step);
}

/// Stripes for work on `rows` rows of `width` samples: some per thread to even out the load, but
/// none so small that handing it out costs more than the work.
int StripeCount(int rows, int width) {
  constexpr std::int64_t kMinSamples = 16 * 1024;
  const std::int64_t samples = static_cast<std::int64_t>(rows) * width;
  const std::int64_t most = std::min<std::int64_t>(samples / kMinSamples, rows);
  return static_cast<int>(
      std::clamp<std::int64_t>(4LL * cv::getNumThreads(), 1, std::max<std::int64_t>(most, 1)));
}

/// First row of stripe `index`; that of the stripe behind the last is `last`.
int StripeStart(int first, int last, int index, int count) {
  return first + static_cast<int>(static_cast<std::int64_t>(last - first) * index / count);
}

/// Calls `work(i)` for every i below `count`, on the threads of cv::parallel_for_.
///
/// The two counters say in atomics what parallel_for_ guarantees anyway: work starts after the call
/// and the call returns after all work. The thread library under it is not built for
/// ThreadSanitizer, which would not see that order.
template <typename Work>
void Parallel(int count, const Work& work) {
  class Body : public cv::ParallelLoopBody {
   public:
    explicit Body(const Work& each) : each_(each) { begun_.store(1, std::memory_order_release); }
    void operator()(const cv::Range& range) const override {
      (void)begun_.load(std::memory_order_acquire);
      for (int i = range.start; i < range.end; ++i) {
        each_(i);
      }
      ended_.fetch_add(1, std::memory_order_acq_rel);
    }
    void AwaitEnd() const { (void)ended_.load(std::memory_order_acquire); }

   private:
    const Work& each_;
    std::atomic<int> begun_{0};
    mutable std::atomic<int> ended_{0};
  };
  const Body body(work);
  cv::parallel_for_(cv::Range(0, count), body, count);
  body.AwaitEnd();
}

/// Calls `work(first_row, last_row)` for stripes of the rows 0 to `rows`.
template <typename Work>
void ForStripes(int rows, int width, const Work& work) {
  const int count = StripeCount(rows, width);
  Parallel(count, [&](int i) {
    work(StripeStart(0, rows, i, count), StripeStart(0, rows, i + 1, count));
  });
}

#if LUM_RAW_SIMD

using cv::v_float32;
using cv::v_int32;
using cv::v_uint16;
using cv::v_uint32;

constexpr int kLanes = v_uint16::nlanes;

bool Aligned(const Sample* row) {
  return reinterpret_cast<std::uintptr_t>(row) % (kLanes * sizeof(Sample)) == 0;
}

/// Stores past the caches where that is possible: the planes are larger than they are, and a
/// normal store would first read the line that it replaces.
template <bool kStream>
void Store(Sample* to, const v_uint16& samples) {
  if (kStream) {
    cv::v_store_aligned_nocache(to, samples);
  } else {
    cv::v_store(to, samples);
  }
}

/// Makes streaming stores visible to other threads before the stripe counts as done.
void FinishStreaming() {
#if CV_SSE2
  _mm_sfence();
#endif
}

v_uint32 Pairs(const Sample* from) { return cv::v_reinterpret_as_u32(cv::vx_load(from)); }

/// One number that decides for most samples that they are not bad without a division.
///
/// Sample s can only outshine m if m < s / rate, and for a rate of 1 or more only if
/// m < min(s, Bound(s)): Bound(s) = floor(s * scale / 65536) + slack is above s / rate. With
/// scale = ceil(65536 / rate) a slack of 1 makes it so; where the scale is capped to 16 bits the
/// product falls short by less than 1 and the slack is 2.
struct Screen {
  explicit Screen(float bad_pixel_rate) : rate(bad_pixel_rate), useful(bad_pixel_rate >= 1.0F) {
    if (useful) {
      const double exact = std::ceil(65536.0 / static_cast<double>(rate));
      scale = static_cast<Sample>(std::min(exact, 65535.0));
      slack = exact > 65535.0 ? 2 : 1;
    }
  }
  float rate;
  bool useful;
  Sample scale = 0;
  Sample slack = 0;

  /// Whether any of the samples may outshine its `brightest` neighbour.
  bool AnyCandidate(const v_uint16& samples, const v_uint16& brightest) const {
    if (!useful) {
      return true;
    }
    const v_uint16 bound =
        cv::v_mul_hi(samples, cv::vx_setall_u16(scale)) + cv::vx_setall_u16(slack);
    const v_uint16 above = cv::v_min(bound, samples) - brightest;  // Saturates at 0.
    return !cv::v_check_all(above == cv::vx_setzero_u16());
  }

  /// All bits set where the sample is bad; the exact rule.
  v_uint16 Bad(const v_uint16& samples, const v_uint16& brightest) const {
    v_uint32 s0, s1, m0, m1;
    cv::v_expand(samples, s0, s1);
    cv::v_expand(brightest, m0, m1);
    const auto outshines = [this](const v_uint32& s, const v_uint32& m) {
      return cv::v_reinterpret_as_s32(Float(s) / cv::vx_setall_f32(rate) > Float(m));
    };
    return cv::v_reinterpret_as_u16(cv::v_pack(outshines(s0, m0), outshines(s1, m1)));
  }

  static v_float32 Float(const v_uint32& v) { return cv::v_cvt_f32(cv::v_reinterpret_as_s32(v)); }
};

/// The truncated mean of 4 or 8 vectors.
template <int kShift, typename... Vectors>
v_uint16 Mean(const Vectors&... vectors) {
  v_uint32 sum0 = cv::vx_setzero_u32(), sum1 = cv::vx_setzero_u32();
  const auto add = [&](const v_uint16& v) {
    v_uint32 low, high;
    cv::v_expand(v, low, high);
    sum0 += low;
    sum1 += high;
  };
  (add(vectors), ...);
  return cv::v_pack(cv::v_shr<kShift>(sum0), cv::v_shr<kShift>(sum1));
}

#endif  // LUM_RAW_SIMD

/// `FixBadPixels` for one row. `Rows` gives the unmodified rows y - kReach to y + kReach.
struct CrossRule {
  static constexpr int kReach = 2;
  static constexpr int kMargin = 2;  // Samples on each side of a row without vector code.
#if LUM_RAW_SIMD
  template <typename Rows, typename Write>
  static void Block(const Rows& row, int x, int y, const Screen& screen, const Write& write) {
    const Sample* const centre = row(y) + x;
    const Sample* const above = row(y - 1) + x;
    const Sample* const below = row(y + 1) + x;
    const v_uint16 samples = cv::vx_load(centre);
    const v_uint16 brightest =
        cv::v_max(cv::v_max(cv::vx_load(above), cv::vx_load(below)),
                  cv::v_max(cv::vx_load(centre - 1), cv::vx_load(centre + 1)));
    if (!screen.AnyCandidate(samples, brightest)) {
      return;
    }
    const v_uint16 bad = screen.Bad(samples, brightest);
    if (cv::v_check_all(bad == cv::vx_setzero_u16())) {
      return;
    }
    const v_uint16 same = Mean<2>(cv::vx_load(row(y - 2) + x), cv::vx_load(centre - 2),
                                  cv::vx_load(centre + 2), cv::vx_load(row(y + 2) + x));
    const v_uint16 diagonal = Mean<2>(cv::vx_load(above - 1), cv::vx_load(above + 1),
                                      cv::vx_load(below - 1), cv::vx_load(below + 1));
    const v_uint16 even_lanes = cv::v_reinterpret_as_u16(cv::vx_setall_u32(0x0000ffffU));
    const v_uint16 mean = ((x ^ y) & 1) == 0 ? cv::v_select(even_lanes, same, diagonal)
                                             : cv::v_select(even_lanes, diagonal, same);
    write(cv::v_select(bad, mean, samples));
  }
#endif
  template <typename Read>
  static Sample One(const Read& at, int x, int y, int width, int height, float rate) {
    return Repaired(at, x, y, width, height, rate);
  }
};

/// `FixBadPixels2` for one row.
struct SquareRule {
  static constexpr int kReach = 1;
  static constexpr int kMargin = 1;
#if LUM_RAW_SIMD
  template <typename Rows, typename Write>
  static void Block(const Rows& row, int x, int y, const Screen& screen, const Write& write) {
    const Sample* const centre = row(y) + x;
    const Sample* const above = row(y - 1) + x;
    const Sample* const below = row(y + 1) + x;
    const v_uint16 samples = cv::vx_load(centre);
    const v_uint16 a = cv::vx_load(above - 1), b = cv::vx_load(above), c = cv::vx_load(above + 1);
    const v_uint16 d = cv::vx_load(centre - 1), e = cv::vx_load(centre + 1);
    const v_uint16 f = cv::vx_load(below - 1), g = cv::vx_load(below), h = cv::vx_load(below + 1);
    const v_uint16 brightest = cv::v_max(cv::v_max(cv::v_max(a, b), cv::v_max(c, d)),
                                         cv::v_max(cv::v_max(e, f), cv::v_max(g, h)));
    if (!screen.AnyCandidate(samples, brightest)) {
      return;
    }
    const v_uint16 bad = screen.Bad(samples, brightest);
    if (cv::v_check_all(bad == cv::vx_setzero_u16())) {
      return;
    }
    write(cv::v_select(bad, Mean<3>(a, b, c, d, e, f, g, h), samples));
  }
#endif
  template <typename Read>
  static Sample One(const Read& at, int x, int y, int width, int height, float rate) {
    return Repaired2(at, x, y, width, height, rate);
  }
};

/// Repairs the rows `first` to `last` of an image in place, as if from a copy, while other threads
/// repair the rows around them.
///
/// A row that is about to change is first saved to a ring of kReach + 1 rows, from where the rows
/// below it read. The kReach rows on either side of the stripe belong to other threads and were
/// saved before any of them started.
template <typename Rule>
class RepairStripe {
 public:
  RepairStripe(const MutablePlane& image, int first, int last)
      : image_(image),
        first_(first),
        last_(last),
        width_(static_cast<size_t>(image.width)),
        above_(std::min(Rule::kReach, first)),
        halo_(width_ * 2 * Rule::kReach) {
    for (int i = 0; i < above_; ++i) {
      std::copy_n(Row(image, first - above_ + i), width_, Halo(i));
    }
    for (int i = 0; i < std::min(Rule::kReach, image.height - last); ++i) {
      std::copy_n(Row(image, last + i), width_, Halo(Rule::kReach + i));
    }
  }

  void Run(float rate) {
    ring_.resize(width_ * kRing);
    std::fill(std::begin(saved_), std::end(saved_), -1);
#if LUM_RAW_SIMD
    const Screen screen(rate);
#endif
    for (int y = first_; y < last_; ++y) {
      // Clamped, as the rows beyond the image are asked for only where they do not count.
      const Sample* rows[2 * Rule::kReach + 1];
      for (int i = 0; i <= 2 * Rule::kReach; ++i) {
        rows[i] = Original(std::clamp(y - Rule::kReach + i, 0, image_.height - 1));
      }
      Sample* const out = Row(image_, y);
      const auto row = [&](int wanted) { return rows[wanted - y + Rule::kReach]; };
      const auto save = [&] {
        if (saved_[y % kRing] != y) {
          saved_[y % kRing] = y;
          std::copy_n(out, width_, Ring(y));
          // Every reference to this row, the clamped ones of an edge row too.
          std::replace(std::begin(rows), std::end(rows), static_cast<const Sample*>(out),
                       static_cast<const Sample*>(Ring(y)));
        }
      };
      const auto scalar = [&](int begin, int end) {
        const auto at = [&](int x, int at_y) {
          return row(at_y)[SampleOffset(x, 0, image_.width, 1, 0)];
        };
        for (int x = begin; x < end; ++x) {
          const Sample repaired = Rule::One(at, x, y, image_.width, image_.height, rate);
          if (repaired != row(y)[x]) {
            save();
            out[x] = repaired;
          }
        }
      };
      int x = 0;
#if LUM_RAW_SIMD
      if (y >= first_row() && y < image_.height - first_row()) {
        scalar(0, std::min(Rule::kMargin, image_.width));
        for (x = Rule::kMargin; x + kLanes <= image_.width - Rule::kMargin; x += kLanes) {
          Rule::Block(row, x, y, screen, [&](const v_uint16& repaired) {
            save();
            cv::v_store(out + x, repaired);
          });
        }
        x = std::min(x, image_.width);
      }
#endif
      scalar(x, image_.width);
    }
  }

 private:
  static constexpr int kRing = Rule::kReach + 1;
  /// The first row that vector code may treat: `FixBadPixels` keeps its margin.
  static constexpr int first_row() { return Rule::kMargin == 1 ? 0 : Rule::kMargin; }

  Sample* Halo(int i) { return halo_.data() + static_cast<size_t>(i) * width_; }
  Sample* Ring(int y) { return ring_.data() + static_cast<size_t>(y % kRing) * width_; }
  const Sample* Original(int y) {
    if (y < first_) {
      return Halo(y - first_ + above_);
    }
    if (y >= last_) {
      return Halo(Rule::kReach + y - last_);
    }
    return saved_[y % kRing] == y ? Ring(y) : Row(image_, y);
  }

  MutablePlane image_;
  int first_;
  int last_;
  size_t width_;
  int above_;
  std::vector<Sample> halo_;
  std::vector<Sample> ring_;
  int saved_[kRing] = {};  // Which row a place of the ring holds; -1 for none.
};

template <typename Rule>
void Repair(const MutablePlane& image, float rate) {
  const int count = StripeCount(image.height, image.width);
  std::vector<RepairStripe<Rule>> stripes;
  stripes.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    stripes.emplace_back(image, StripeStart(0, image.height, i, count),
                         StripeStart(0, image.height, i + 1, count));
  }
  Parallel(count, [&](int i) { stripes[static_cast<size_t>(i)].Run(rate); });
}

#if LUM_RAW_SIMD

/// Cells of row `y` of the planes, from the first on; returns how many are done.
template <bool kStream>
int SplitSpan(const ConstPlane& raw, const MutablePlane& g, const MutablePlane& r,
              const MutablePlane& b, int border, int y) {
  const int ry = 2 * y + border;
  const Sample* const above = Row(raw, ry - 1) + border;
  const Sample* const red = Row(raw, ry) + border;
  const Sample* const blue = Row(raw, ry + 1) + border;
  const Sample* const below = Row(raw, ry + 2) + border;
  Sample* const g0 = Row(g, 2 * y);
  Sample* const g1 = Row(g, 2 * y + 1);
  Sample* const r_row = Row(r, y);
  Sample* const b_row = Row(b, y);
  const v_uint32 low = cv::vx_setall_u32(0x0000ffffU);
  const v_uint32 high = cv::vx_setall_u32(0xffff0000U);

  int x = 0;
  for (; x + kLanes <= r.width; x += kLanes) {
    v_uint32 red_half[2];
    v_uint32 blue_half[2];
    for (int i = 0; i < 2; ++i) {
      const int rx = 2 * x + i * kLanes;
      const v_uint32 top = Pairs(red + rx);      // red, green
      const v_uint32 bottom = Pairs(blue + rx);  // green, blue
      const v_uint32 at_red = cv::v_shr<2>((Pairs(above + rx) & low) + cv::v_shr<16>(top) +
                                           (bottom & low) + (Pairs(red + rx - 1) & low));
      // The load one further ends at the first sample behind the span, at most in the border.
      const v_uint32 at_blue =
          cv::v_shr<2>(cv::v_shr<16>(top) + cv::v_shr<16>(Pairs(blue + rx + 1)) +
                       cv::v_shr<16>(Pairs(below + rx)) + (bottom & low));
      Store<kStream>(g0 + rx, cv::v_reinterpret_as_u16((top & high) | at_red));
      Store<kStream>(g1 + rx, cv::v_reinterpret_as_u16((bottom & low) | cv::v_shl<16>(at_blue)));
      red_half[i] = top & low;
      blue_half[i] = cv::v_shr<16>(bottom);
    }
    Store<kStream>(r_row + x, cv::v_pack(red_half[0], red_half[1]));
    Store<kStream>(b_row + x, cv::v_pack(blue_half[0], blue_half[1]));
  }
  return x;
}

template <bool kStream>
int MergeSpan(const ConstPlane& g, const ConstPlane& r, const ConstPlane& b,
              const MutablePlane& raw, int y) {
  const Sample* const g0 = Row(g, 2 * y);
  const Sample* const g1 = Row(g, 2 * y + 1);
  const Sample* const r_row = Row(r, y);
  const Sample* const b_row = Row(b, y);
  Sample* const raw0 = Row(raw, 2 * y);
  Sample* const raw1 = Row(raw, 2 * y + 1);
  const v_uint32 low = cv::vx_setall_u32(0x0000ffffU);
  const v_uint32 high = cv::vx_setall_u32(0xffff0000U);

  int x = 0;
  for (; x + kLanes <= r.width; x += kLanes) {
    v_uint32 red[2];
    v_uint32 blue[2];
    cv::v_expand(cv::vx_load(r_row + x), red[0], red[1]);
    cv::v_expand(cv::vx_load(b_row + x), blue[0], blue[1]);
    for (int i = 0; i < 2; ++i) {
      const int rx = 2 * x + i * kLanes;
      Store<kStream>(raw0 + rx, cv::v_reinterpret_as_u16((Pairs(g0 + rx) & high) | red[i]));
      Store<kStream>(raw1 + rx,
                     cv::v_reinterpret_as_u16((Pairs(g1 + rx) & low) | cv::v_shl<16>(blue[i])));
    }
  }
  return x;
}

#endif  // LUM_RAW_SIMD

}  // namespace

void FixBadPixels(cv::Mat& image, float bad_pixel_rate) {
  Repair<CrossRule>(View(image), bad_pixel_rate);
}

void FixBadPixels2(cv::Mat& image, float bad_pixel_rate) {
  Repair<SquareRule>(View(image), bad_pixel_rate);
}

void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size) {
  const ConstPlane raw = View(raw_border);
  const MutablePlane green = View(g);
  const MutablePlane red = View(r);
  const MutablePlane blue = View(b);
  ForStripes(red.height, 4 * red.width, [&](int first, int last) {
    for (int y = first; y < last; ++y) {
      int x = 0;
#if LUM_RAW_SIMD
      const bool stream = Aligned(Row(green, 2 * y)) && Aligned(Row(green, 2 * y + 1)) &&
                          Aligned(Row(red, y)) && Aligned(Row(blue, y));
      x = stream ? SplitSpan<true>(raw, green, red, blue, border_size, y)
                 : SplitSpan<false>(raw, green, red, blue, border_size, y);
#endif
      for (; x < red.width; ++x) {
        SplitCell(raw, green, red, blue, border_size, x, y);
      }
    }
#if LUM_RAW_SIMD
    FinishStreaming();
#endif
  });
}

void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw) {
  const ConstPlane green = View(g);
  const ConstPlane red = View(r);
  const ConstPlane blue = View(b);
  const MutablePlane mosaic = View(raw);
  ForStripes(red.height, 4 * red.width, [&](int first, int last) {
    for (int y = first; y < last; ++y) {
      int x = 0;
#if LUM_RAW_SIMD
      const bool stream = Aligned(Row(mosaic, 2 * y)) && Aligned(Row(mosaic, 2 * y + 1));
      x = stream ? MergeSpan<true>(green, red, blue, mosaic, y)
                 : MergeSpan<false>(green, red, blue, mosaic, y);
#endif
      for (; x < red.width; ++x) {
        MergeCell(green, red, blue, mosaic, x, y);
      }
    }
#if LUM_RAW_SIMD
    FinishStreaming();
#endif
  });
}

}  // namespace lum::raw::processor
