// The kernels on the processor: spans of rows by the kernels of row_kernels.h, stripes of rows by
// cv::parallel_for_. A span lies inside one row, where the access rule changes no column; its rows
// come from `Row`.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <opencv2/core/utility.hpp>
#include <vector>

#include "raw_bayer/backends.h"
#include "raw_bayer/mosaic_rules.h"
#include "raw_bayer/row_kernels.h"
#include "simd/parallel_for.h"

namespace lum::raw::processor {
namespace {

using std::size_t;
using Sample = std::uint16_t;
using kernels::Kernels;

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

/// The samples of row y from column x on, which must be below the width.
template <typename S>
S* SpanAt(const Plane<S>& plane, int x, int y) {
  return Row(plane, y) + x;
}

/// Stripes for work on `rows` rows of `width` samples: some per thread to even out the load, but
/// none so small that handing it out costs more than the work.
int StripeCount(int rows, std::int64_t width) {
  constexpr std::int64_t kMinSamples = 1 << 14;
  const std::int64_t most = std::min<std::int64_t>(rows * width / kMinSamples, rows);
  return static_cast<int>(
      std::clamp<std::int64_t>(4LL * cv::getNumThreads(), 1, std::max<std::int64_t>(most, 1)));
}

/// First row of stripe `index`; that of the stripe after the last is `last`.
int StripeStart(int first, int last, int index, int count) {
  return first + static_cast<int>(static_cast<std::int64_t>(last - first) * index / count);
}

/// Calls `work(first_row, last_row)` for stripes of the rows 0 to `rows`.
template <typename Work>
void ForStripes(int rows, std::int64_t width, const Work& work) {
  const int count = StripeCount(rows, width);
  simd::ParallelFor(count, [&](int i) {
    work(StripeStart(0, rows, i, count), StripeStart(0, rows, i + 1, count));
  });
}

/// The set in use, or plain loops for spans shorter than its vectors.
const Kernels& KernelsFor(int samples) {
  const Kernels& active = kernels::Active();
  return samples < active.lanes ? kernels::kPlainKernels : active;
}

/// `FixBadPixels` for one row.
struct CrossRule {
  static constexpr int kReach = 2;     // Rows that count above and below.
  static constexpr int kMargin = 2;    // Samples on each side of a row that are no span's.
  static constexpr int kKeptRows = 2;  // Rows at the top and the bottom that are left alone.
  static constexpr bool kRepairsEdges = false;
  static constexpr auto kSpan = &Kernels::fix_bad_pixels;
};

/// `FixBadPixels2` for one row.
struct SquareRule {
  static constexpr int kReach = 1;
  static constexpr int kMargin = 1;
  static constexpr int kKeptRows = 0;
  static constexpr bool kRepairsEdges = true;
  static constexpr auto kSpan = &Kernels::fix_bad_pixels_2;
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
        halo_(width_ * 2 * Rule::kReach),
        ring_(width_ * kRing) {
    for (int i = 0; i < above_; ++i) {
      std::copy_n(Row(image, first - above_ + i), width_, Halo(i));
    }
    for (int i = 0; i < std::min(Rule::kReach, image.height - last); ++i) {
      std::copy_n(Row(image, last + i), width_, Halo(Rule::kReach + i));
    }
  }

  void Run(const kernels::Screen& screen) {
    std::fill(std::begin(saved_), std::end(saved_), -1);
    for (int y = std::max(first_, Rule::kKeptRows);
         y < std::min(last_, image_.height - Rule::kKeptRows); ++y) {
      RepairRow(y, screen);
    }
  }

 private:
  static constexpr int kRing = Rule::kReach + 1;

  void RepairRow(int y, const kernels::Screen& screen) {
    Sample* const out = Row(image_, y);
    // Clamped, as the rows beyond the image are asked for only where they do not count.
    kernels::RepairRow row{
        {}, Row(image_, std::min(y + Rule::kReach + 1, image_.height - 1)), nullptr, y};
    for (int dy = -Rule::kReach; dy <= Rule::kReach; ++dy) {
      row.rows[2 + dy] = Original(std::clamp(y + dy, 0, image_.height - 1));
    }
    const auto save = [&] {
      if (row.out == nullptr) {
        row.out = out;
        saved_[y % kRing] = y;
        std::copy_n(out, width_, Ring(y));
        // Every reference to this row, the clamped ones of an edge row too.
        std::replace(std::begin(row.rows), std::end(row.rows), static_cast<const Sample*>(out),
                     static_cast<const Sample*>(Ring(y)));
      }
    };

    const int end = image_.width - Rule::kMargin;
    if (end > Rule::kMargin) {
      const auto span = KernelsFor(end - Rule::kMargin).*Rule::kSpan;
      const int found = span(row, screen, Rule::kMargin, end);
      if (found < end) {
        save();
        span(row, screen, found, end);
      }
    }
    for (const int x : {0, image_.width - 1}) {
      const auto at = [&](int dx, int dy) {
        return row.rows[2 + dy][std::clamp(x + dx, 0, image_.width - 1)];
      };
      const Sample repaired = Rule::kRepairsEdges ? Repaired2(at, screen.rate) : at(0, 0);
      if (repaired != at(0, 0)) {
        save();
        out[x] = repaired;
      }
    }
  }

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
  const kernels::Screen screen(rate);
  simd::ParallelFor(count, [&](int i) { stripes[static_cast<size_t>(i)].Run(screen); });
}

/// Cells that are written to buffers in the first cache before they are streamed.
constexpr int kChunk = 2048;

/// Planes of this many bytes and more are written past the caches: they would not stay there, and a
/// normal store first reads the line that it replaces.
constexpr std::int64_t kStreamedBytes = 4 << 20;

/// Where the vector code of split and merge writes rows of samples: to the planes, or to buffers
/// from which `Flush` streams them, so that the start of a plane's row need not be aligned.
template <int kRows>
class Rows {
 public:
  explicit Rows(bool stream) : stream_(stream) {}

  /// @return where row i is to be written, of which each cell holds some samples.
  Sample* To(int i, Sample* target, size_t samples_per_cell) {
    targets_[i] = target;
    samples_[i] = samples_per_cell;
    return stream_ ? buffers_[i] : target;
  }
  void Flush(const Kernels& kernels, size_t cells) const {
    for (int i = 0; stream_ && i < kRows; ++i) {
      kernels.stream(targets_[i], buffers_[i], cells * samples_[i]);
    }
  }

 private:
  bool stream_;
  Sample* targets_[kRows] = {};
  size_t samples_[kRows] = {};
  alignas(64) Sample buffers_[kRows][2 * kChunk] = {};
};

/// Calls `work(kernels, rows, x, y, count)` for spans of `count` cells of row y from x on, until
/// all `cells` of a mosaic are done. It writes where `rows` says.
template <int kRows, typename Work>
void ForSpans(const cv::Size& cells, const Work& work) {
  const Kernels& active = kernels::Active();
  const bool stream = active.stream != nullptr && static_cast<std::int64_t>(cells.width) *
                                                          cells.height * 4 *
                                                          static_cast<int>(sizeof(Sample)) >=
                                                      kStreamedBytes;
  const int chunk = stream ? kChunk : cells.width;
  ForStripes(cells.height, 4LL * cells.width, [&](int first, int last) {
    Rows<kRows> rows(stream);
    for (int y = first; y < last; ++y) {
      for (int x = 0; x < cells.width;) {
        const int count = std::min(chunk, cells.width - x);
        work(KernelsFor(count), rows, x, y, count);
        rows.Flush(active, static_cast<size_t>(count));
        x += count;
      }
    }
    if (stream) {
      active.finish_streaming();
    }
  });
}

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
  ForSpans<4>(r.size(), [&](const Kernels& kernels, Rows<4>& rows, int x, int y, int count) {
    const int rx = 2 * x + border_size;
    const int ry = 2 * y + border_size;
    kernels.split({{SpanAt(raw, rx, ry - 1), SpanAt(raw, rx, ry), SpanAt(raw, rx, ry + 1),
                    SpanAt(raw, rx, ry + 2)},
                   {SpanAt(raw, rx, ry + 3), SpanAt(raw, rx, ry + 4)},
                   {rows.To(0, SpanAt(green, 2 * x, 2 * y), 2),
                    rows.To(1, SpanAt(green, 2 * x, 2 * y + 1), 2)},
                   rows.To(2, SpanAt(red, x, y), 1),
                   rows.To(3, SpanAt(blue, x, y), 1),
                   count});
  });
}

void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw) {
  const ConstPlane green = View(g);
  const ConstPlane red = View(r);
  const ConstPlane blue = View(b);
  const MutablePlane mosaic = View(raw);
  ForSpans<2>(r.size(), [&](const Kernels& kernels, Rows<2>& rows, int x, int y, int count) {
    kernels.merge({{SpanAt(green, 2 * x, 2 * y), SpanAt(green, 2 * x, 2 * y + 1)},
                   SpanAt(red, x, y),
                   SpanAt(blue, x, y),
                   {rows.To(0, SpanAt(mosaic, 2 * x, 2 * y), 2),
                    rows.To(1, SpanAt(mosaic, 2 * x, 2 * y + 1), 2)},
                   count});
  });
}

}  // namespace lum::raw::processor
