// The kernels' one source, included by one file per instruction set after OpenCV's universal
// intrinsics. It defines the table LUM_KERNELS. No include guard: it is no header.

#include "flow_kernels.h"

namespace cv::optflow::lum::kernels {
namespace {

constexpr int kLanes = v_float32::nlanes;
static_assert(kLanes <= kPad, "rows are padded for one vector on each side");

// Own versions of the standard library's: see flow_kernels.h on shared inline functions.
inline int minOf(int a, int b) { return a < b ? a : b; }
inline int maxOf(int a, int b) { return a > b ? a : b; }
inline float absOf(float a) { return a < 0.0F ? -a : a; }

/// `value` within [low, high]; `low` where it is not a number.
inline float clampOf(float value, float low, float high) {
  const float raised = value > low ? value : low;
  return raised < high ? raised : high;
}

inline v_float32 loadFloats(const std::uint8_t* p) {
  return v_cvt_f32(v_reinterpret_as_s32(vx_load_expand_q(p)));
}
inline v_float32 loadFloats(const std::int16_t* p) { return v_cvt_f32(vx_load_expand(p)); }

inline v_float32 lerp(const v_float32& a, const v_float32& b, const v_float32& t) {
  return v_fma(t, b - a, a);
}
inline float lerp(float a, float b, float t) { return a + t * (b - a); }

// ---------------------------------------------------------------- structure tensor

void structureTensor(const SearchArgs& args, int begin, int end, std::int32_t* scratch) {
  const int w = args.w;
  std::int32_t* const xx = scratch;
  std::int32_t* const yy = xx + w;
  std::int32_t* const xy = yy + w;
  std::int32_t* const x = xy + w;
  std::int32_t* const y = x + w;

  // Column sums over a patch's height. Integers: exact, so the sums do not depend on where a stripe
  // begins. The largest, 16 x 16 x 1020^2, fits.
  const auto addRow = [&](int row, int sign) {
    const std::int16_t* gx = args.ix + row * args.grad_stride;
    const std::int16_t* gy = args.iy + row * args.grad_stride;
    for (int i = 0; i < w; ++i) {
      const int a = gx[i];
      const int b = gy[i];
      xx[i] += sign * a * a;
      yy[i] += sign * b * b;
      xy[i] += sign * a * b;
      x[i] += sign * a;
      y[i] += sign * b;
    }
  };

  const int size = args.patch_size;
  const int stride = args.patch_stride;
  for (int is = begin; is < end; ++is) {
    const int top = is * stride;
    if (is == begin || stride >= size) {
      for (int i = 0; i < 5 * w; ++i) scratch[i] = 0;
      for (int row = top; row < top + size; ++row) addRow(row, 1);
    } else {
      for (int row = top - stride; row < top; ++row) addRow(row, -1);
      for (int row = top + size - stride; row < top + size; ++row) addRow(row, 1);
    }
    const auto sumColumns = [&](const std::int32_t* columns, float* out) {
      std::int32_t sum = 0;
      for (int i = 0; i < size; ++i) sum += columns[i];
      out[0] = static_cast<float>(sum);
      for (int js = 1; js < args.ws; ++js) {
        const int left = (js - 1) * stride;
        for (int i = left; i < left + stride; ++i) sum += columns[i + size] - columns[i];
        out[js] = static_cast<float>(sum);
      }
    };
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(is) * args.ws;
    sumColumns(xx, args.xx + at);
    sumColumns(yy, args.yy + at);
    sumColumns(xy, args.xy + at);
    sumColumns(x, args.x + at);
    sumColumns(y, args.y + at);
  }
}

// ---------------------------------------------------------------- patch inverse search

constexpr int kMaxPatch = 16;
constexpr int kBlock = 8;  // columns of a patch that are taken at a time
/// Rows of `kBlock` pixels in one vector of 16-bit elements.
constexpr int kBlockRows = v_int16::nlanes / kBlock;

inline float mulAdd(float a, float b, float c) {
#ifdef __FP_FAST_FMAF
  return __builtin_fmaf(a, b, c);
#else
  return a * b + c;
#endif
}
inline double mulAdd(double a, double b, double c) {
#ifdef __FP_FAST_FMA
  return __builtin_fma(a, b, c);
#else
  return a * b + c;
#endif
}

/// `kBlockRows` rows of `kBlock` pixels.
inline v_int16 loadBlock(const std::uint8_t* p, std::ptrdiff_t stride) {
#if CV_AVX512_SKX
  const v_uint8x16 low = v_combine_low(v_load_low(p), v_load_low(p + stride));
  const v_uint8x16 high = v_combine_low(v_load_low(p + 2 * stride), v_load_low(p + 3 * stride));
  return v_int16(_mm512_cvtepu8_epi16(_mm256_setr_m128i(low.val, high.val)));
#elif CV_AVX2
  const v_uint8x16 rows = v_combine_low(v_load_low(p), v_load_low(p + stride));
  return v_int16(_mm256_cvtepu8_epi16(rows.val));
#else
  (void)stride;
  return v_reinterpret_as_s16(vx_load_expand(p));
#endif
}
inline v_int16 loadBlock(const std::int16_t* p, std::ptrdiff_t stride) {
#if CV_AVX512_SKX
  const v_int16x16 low = v256_load_halves(p, p + stride);
  const v_int16x16 high = v256_load_halves(p + 2 * stride, p + 3 * stride);
  return v_int16(_mm512_inserti64x4(_mm512_castsi256_si512(low.val), high.val, 1));
#elif CV_AVX2
  return vx_load_halves(p, p + stride);
#else
  (void)stride;
  return vx_load(p);
#endif
}

/// The sums over the lanes of four vectors of integers; single precision holds each lane exactly.
inline v_float32x4 reduceSums(const v_int32& a, const v_int32& b, const v_int32& c,
                              const v_int32& d) {
  const v_float32 sums = v_reduce_sum4(v_cvt_f32(a), v_cvt_f32(b), v_cvt_f32(c), v_cvt_f32(d));
#if CV_AVX512_SKX
  const v_float32x8 folded = v_float32x8(_mm512_castps512_ps256(sums.val)) +
                             v_float32x8(_mm512_extractf32x8_ps(sums.val, 1));
  return v_float32x4(_mm256_castps256_ps128(folded.val)) +
         v_float32x4(_mm256_extractf128_ps(folded.val, 1));
#elif CV_AVX2
  return v_float32x4(_mm256_castps256_ps128(sums.val)) +
         v_float32x4(_mm256_extractf128_ps(sums.val, 1));
#else
  return sums;
#endif
}

/// One patch of the first image against the second.
///
/// Between four pixels, the difference of a patch pixel is d = e0 + fx e1 + fy e2 + fx fy e3 with
/// whole numbers e and the position's fractions fx, fy. So all that search asks for, sums of d,
/// d^2, d Ix and d Iy, are polynomials in (fx, fy) whose coefficients, sums of products of the e,
/// hold for every position with the same whole part: a cell. They are summed once per cell,
/// exactly, in integers; most patches settle within one or two cells.
///
/// `kFull`: the patch is one whole block and is read in place. Others are copied to zeroed blocks.
template <bool kFull>
class PatchMatcher {
 public:
  explicit PatchMatcher(const SearchArgs& args)
      : args_(args),
        inverse_count_(args.mean_normalization ? 1.0 / (args.patch_size * args.patch_size) : 0.0),
        border_(static_cast<float>(args.border)),
        low_(static_cast<float>(args.border - args.patch_size + 1)),
        high_x_(static_cast<float>(args.border + args.w - 1)),
        high_y_(static_cast<float>(args.border + args.h - 1)) {
    if (kFull) return;
    for (int row = 0; row < kMaxPatch; ++row) {
      for (int i = 0; i < kMaxPatch; ++i) {
        const int at = row * kMaxPatch + i;
        mask_[at] = row < args.patch_size && i < args.patch_size ? -1 : 0;
        pixels_[at] = 0;
        gradient_x_[at] = gradient_y_[at] = 0;
      }
    }
  }

  void setPatch(int left, int top, std::ptrdiff_t patch) {
    left_ = static_cast<float>(left);
    top_ = static_cast<float>(top);
    patch_ = patch;
    for (Cell& cell : cells_) cell.x = cell.y = cell.end_x = cell.end_y = -1.0F;
    i0_ = args_.i0 + top * args_.i0_stride + left;
    ix_ = args_.ix + top * args_.grad_stride + left;
    iy_ = args_.iy + top * args_.grad_stride + left;
    if (kFull) {
      i0_stride_ = args_.i0_stride;
      gradient_stride_ = args_.grad_stride;
      return;
    }
    for (int row = 0; row < args_.patch_size; ++row) {
      for (int i = 0; i < args_.patch_size; ++i) {
        const int at = row * kMaxPatch + i;
        pixels_[at] = i0_[row * args_.i0_stride + i];
        gradient_x_[at] = ix_[row * args_.grad_stride + i];
        gradient_y_[at] = iy_[row * args_.grad_stride + i];
      }
    }
    i0_ = pixels_;
    ix_ = gradient_x_;
    iy_ = gradient_y_;
    i0_stride_ = gradient_stride_ = kMaxPatch;
  }

  /// The error at flow (u, v).
  float error(float u, float v) {
    Cell* cell = kept_;
    const Place place = locate(u, v, cell);
    probed_ = cell;
    return errorAt(*cell, place);
  }
  /// Keeps the cell of the last call of `error`.
  void keep() { kept_ = probed_; }

  /// Moves flow (u, v) by at most `iterations` steps, until the error stops falling.
  void descend(float& u, float& v, int iterations) {
    Cell* cell = kept_;
    float previous = 1e10F;
    for (int i = 0; i < iterations; ++i) {
      const Place place = locate(u, v, cell);
      kept_ = cell;
      if (!cell->has_steps) sumSteps(*cell);
      u -= stepAt(cell->step_u, place);
      v -= stepAt(cell->step_v, place);
      const float error = errorAt(*cell, place);
      if (!(error < previous)) return;  // after the step, which is kept
      previous = error;
    }
  }

 private:
  struct Cell {
    float x, y;          // whole part of the position; below 0: none
    float end_x, end_y;  // where the cell ends; its begin where positions are clamped beyond it
    bool has_steps;
    // Coefficients of the error and of the step, see errorAt and stepAt. They may be large where
    // their polynomials are next to zero, hence doubles.
    double square[9];
    double step_u[4];
    double step_v[4];
    alignas(16) float sum[4];                                  // sums of e0 to e3
    alignas(64) std::int16_t terms[4][kMaxPatch * kMaxPatch];  // e0 to e3
  };
  /// Fractions of a position within its cell.
  struct Place {
    float x, y;
  };

  static float stepAt(const double c[4], const Place& place) {
    const double x = place.x;
    const double y = place.y;
    return static_cast<float>(mulAdd(y, mulAdd(x, c[3], c[2]), mulAdd(x, c[1], c[0])));
  }

  static float errorAt(const Cell& cell, const Place& place) {
    const double* c = cell.square;
    const double x = place.x;
    const double y = place.y;
    const double xy = x * y;
    const double plain = mulAdd(x, mulAdd(x, c[2], c[1]), mulAdd(y, mulAdd(y, c[4], c[3]), c[0]));
    const double mixed = mulAdd(xy, c[8], mulAdd(x, c[6], mulAdd(y, c[7], c[5])));
    return static_cast<float>(mulAdd(xy, mixed, plain));
  }

  /// Finds the cell of flow (u, v), or sums it up in the place of the one that is not kept. The
  /// given one is tried first; no clamp is needed inside it, and waiting for one would cost time.
  Place locate(float u, float v, Cell*& cell) {
    const float x = left_ + u + border_;
    const float y = top_ + v + border_;
    if (x >= cell->x && x < cell->end_x && y >= cell->y && y < cell->end_y) {
      return {x - cell->x, y - cell->y};
    }
    return locateAnew(x, y, cell);
  }

  Place locateAnew(float x, float y, Cell*& cell) {
    x = clampOf(x, low_, high_x_);
    y = clampOf(y, low_, high_y_);
    const int column = static_cast<int>(x);
    const int row = static_cast<int>(y);
    const float cell_x = static_cast<float>(column);
    const float cell_y = static_cast<float>(row);
    const auto matches = [&](const Cell* c) { return c->x == cell_x && c->y == cell_y; };
    if (!matches(cell)) {
      cell = kept_ == cells_ ? cells_ + 1 : cells_;
      if (!matches(cell)) {
        cell->x = cell_x;
        cell->y = cell_y;
        cell->end_x = cell_x < high_x_ ? cell_x + 1.0F : cell_x;
        cell->end_y = cell_y < high_y_ ? cell_y + 1.0F : cell_y;
        cell->has_steps = false;
        sumSquares(*cell, column, row);
      }
    }
    return {x - cell_x, y - cell_y};
  }

  template <typename Body>
  void forBlocks(const Body& body) const {
    const int size = kFull ? kBlock : args_.patch_size;
    for (int column = 0; column < size; column += kBlock) {
      for (int row = 0; row < size; row += kBlockRows) body(column, row);
    }
  }

  static int termAt(int column, int row) { return column * kMaxPatch + row * kBlock; }

  void sumSquares(Cell& cell, int column, int row) {
    const std::ptrdiff_t stride = args_.i1_ext_stride;
    const std::uint8_t* const source = args_.i1_ext + row * stride + column;
    const v_int16 ones = vx_setall_s16(1);
    v_int32 q00 = vx_setzero_s32(), q01 = q00, q11 = q00, q02 = q00, q22 = q00, q12 = q00,
            q13 = q00, q23 = q00, q33 = q00;
    v_int16 s0 = vx_setzero_s16(), s1 = s0, s2 = s0, s3 = s0;  // at most 32 * 510 per lane
    forBlocks([&](int x, int y) {
      const std::uint8_t* p = source + y * stride + x;
      const v_int16 a = loadBlock(p, stride);
      const v_int16 b = loadBlock(p + 1, stride);
      const v_int16 c = loadBlock(p + stride, stride);
      const v_int16 d = loadBlock(p + stride + 1, stride);
      v_int16 e0 = a - loadBlock(i0_ + y * i0_stride_ + x, i0_stride_);
      v_int16 e1 = b - a;
      v_int16 e2 = c - a;
      v_int16 e3 = d - c - e1;
      if (!kFull) {
        const v_int16 mask = loadBlock(mask_ + y * kMaxPatch + x, kMaxPatch);
        e0 &= mask;
        e1 &= mask;
        e2 &= mask;
        e3 &= mask;
      }
      const int at = termAt(x, y);
      v_store(cell.terms[0] + at, e0);
      v_store(cell.terms[1] + at, e1);
      v_store(cell.terms[2] + at, e2);
      v_store(cell.terms[3] + at, e3);
      s0 += e0;
      s1 += e1;
      s2 += e2;
      s3 += e3;
      q00 = v_dotprod_fast(e0, e0, q00);
      q01 = v_dotprod_fast(e0, e1, q01);
      q11 = v_dotprod_fast(e1, e1, q11);
      q02 = v_dotprod_fast(e0, e2, q02);
      q22 = v_dotprod_fast(e2, e2, q22);
      q12 = v_dotprod_fast(e0, e3, v_dotprod_fast(e1, e2, q12));  // both belong to fx fy
      q13 = v_dotprod_fast(e1, e3, q13);
      q23 = v_dotprod_fast(e2, e3, q23);
      q33 = v_dotprod_fast(e3, e3, q33);
    });
    alignas(16) float q[12];
    v_store(cell.sum, reduceSums(v_dotprod_fast(s0, ones), v_dotprod_fast(s1, ones),
                                 v_dotprod_fast(s2, ones), v_dotprod_fast(s3, ones)));
    v_store(q, reduceSums(q00, q01, q11, q02));
    v_store(q + 4, reduceSums(q22, q12, q13, q23));
    v_store(q + 8, reduceSums(q33, q33, q33, q33));
    const double s[4] = {cell.sum[0], cell.sum[1], cell.sum[2], cell.sum[3]};
    const double mean[4] = {inverse_count_ * s[0], inverse_count_ * s[1], inverse_count_ * s[2],
                            inverse_count_ * s[3]};
    double* c = cell.square;
    c[0] = q[0] - mean[0] * s[0];
    c[1] = 2.0 * (q[1] - mean[0] * s[1]);
    c[2] = q[2] - mean[1] * s[1];
    c[3] = 2.0 * (q[3] - mean[0] * s[2]);
    c[4] = q[4] - mean[2] * s[2];
    c[5] = 2.0 * (q[5] - mean[1] * s[2] - mean[0] * s[3]);
    c[6] = 2.0 * (q[6] - mean[1] * s[3]);
    c[7] = 2.0 * (q[7] - mean[2] * s[3]);
    c[8] = q[8] - mean[3] * s[3];
  }

  void sumSteps(Cell& cell) {
    v_int32 x0 = vx_setzero_s32(), x1 = x0, x2 = x0, x3 = x0;
    v_int32 y0 = x0, y1 = x0, y2 = x0, y3 = x0;
    forBlocks([&](int x, int y) {
      const v_int16 gx = loadBlock(ix_ + y * gradient_stride_ + x, gradient_stride_);
      const v_int16 gy = loadBlock(iy_ + y * gradient_stride_ + x, gradient_stride_);
      const int at = termAt(x, y);
      const v_int16 e0 = vx_load(cell.terms[0] + at);
      const v_int16 e1 = vx_load(cell.terms[1] + at);
      const v_int16 e2 = vx_load(cell.terms[2] + at);
      const v_int16 e3 = vx_load(cell.terms[3] + at);
      x0 = v_dotprod_fast(e0, gx, x0);
      x1 = v_dotprod_fast(e1, gx, x1);
      x2 = v_dotprod_fast(e2, gx, x2);
      x3 = v_dotprod_fast(e3, gx, x3);
      y0 = v_dotprod_fast(e0, gy, y0);
      y1 = v_dotprod_fast(e1, gy, y1);
      y2 = v_dotprod_fast(e2, gy, y2);
      y3 = v_dotprod_fast(e3, gy, y3);
    });
    // Doubles hold the products exactly: along a straight edge their difference is all that
    // rounding leaves of it.
    const double xx = args_.xx[patch_];
    const double yy = args_.yy[patch_];
    const double xy = args_.xy[patch_];
    double determinant = xx * yy - xy * xy;
    if (determinant < 0.001) determinant = 0.001;
    const double inverse = 1.0 / determinant;
    alignas(16) float along_x[4];
    alignas(16) float along_y[4];
    v_store(along_x, reduceSums(x0, x1, x2, x3));
    v_store(along_y, reduceSums(y0, y1, y2, y3));
    const double mean_x = inverse_count_ * args_.x[patch_];
    const double mean_y = inverse_count_ * args_.y[patch_];
    for (int i = 0; i < 4; ++i) {
      const double gx = along_x[i] - cell.sum[i] * mean_x;
      const double gy = along_y[i] - cell.sum[i] * mean_y;
      cell.step_u[i] = (yy * gx - xy * gy) * inverse;
      cell.step_v[i] = (xx * gy - xy * gx) * inverse;
    }
    cell.has_steps = true;
  }

  const SearchArgs& args_;
  const double inverse_count_;  // of the patch's pixels; 0 without mean normalisation
  const float border_, low_, high_x_, high_y_;
  float left_ = 0.0F;
  float top_ = 0.0F;
  std::ptrdiff_t patch_ = 0;
  const std::uint8_t* i0_ = nullptr;
  const std::int16_t* ix_ = nullptr;
  const std::int16_t* iy_ = nullptr;
  std::ptrdiff_t i0_stride_ = 0;
  std::ptrdiff_t gradient_stride_ = 0;
  Cell cells_[2];
  Cell* kept_ = cells_;
  Cell* probed_ = cells_;
  std::uint8_t pixels_[kFull ? 1 : kMaxPatch * kMaxPatch];
  std::int16_t gradient_x_[kFull ? 1 : kMaxPatch * kMaxPatch];
  std::int16_t gradient_y_[kFull ? 1 : kMaxPatch * kMaxPatch];
  std::int16_t mask_[kFull ? 1 : kMaxPatch * kMaxPatch];
};

template <bool kFull>
void searchStripe(const SearchArgs& args, int begin, int end) {
  PatchMatcher<kFull> matcher(args);
  const int half = args.patch_size / 2;
  const float reach = static_cast<float>(args.patch_size) * static_cast<float>(args.patch_size);

  for (int pass = 0; pass < args.passes; ++pass) {
    const bool forward = pass % 2 == 0;
    const int step = forward ? 1 : -1;
    const int first_row = forward ? begin : end - 1;
    const int first_column = forward ? 0 : args.ws - 1;
    for (int is = first_row; is >= begin && is < end; is += step) {
      for (int js = first_column; js >= 0 && js < args.ws; js += step) {
        const int left = js * args.patch_stride;
        const int top = is * args.patch_stride;
        const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(is) * args.ws + js;
        matcher.setPatch(left, top, at);

        float u;
        float v;
        if (pass == 0) {
          const std::ptrdiff_t centre = (top + half) * args.u_stride + left + half;
          u = args.ux[centre];
          v = args.uy[centre];
        } else {
          u = args.sx[at];
          v = args.sy[at];
        }

        // Candidates. One that equals the current flow cannot be strictly better, so neither is
        // measured before two different ones meet.
        float best = -1.0F;
        const auto tryFlow = [&](float other_u, float other_v) {
          if (other_u == u && other_v == v) return;
          if (best < 0.0F) {
            best = matcher.error(u, v);
            // Rounding may take a normalised error of zero below it.
            best = best > 0.0F ? best : 0.0F;
            matcher.keep();
          }
          const float error = matcher.error(other_u, other_v);
          if (error < best) {
            best = error > 0.0F ? error : 0.0F;
            matcher.keep();
            u = other_u;
            v = other_v;
          }
        };
        if (args.initial_ux != nullptr) {
          const std::ptrdiff_t centre = (top + half) * args.initial_stride + left + half;
          tryFlow(args.initial_ux[centre], args.initial_uy[centre]);
        }
        if (args.spatial_propagation) {
          if (js != first_column) tryFlow(args.sx[at - step], args.sy[at - step]);
          if (is != first_row) {
            const std::ptrdiff_t other = at - static_cast<std::ptrdiff_t>(step) * args.ws;
            tryFlow(args.sx[other], args.sy[other]);
          }
        }

        const float start_u = u;
        const float start_v = v;
        matcher.descend(u, v, args.inner_iterations);
        const float moved_u = u - start_u;
        const float moved_v = v - start_v;
        const bool within = moved_u * moved_u + moved_v * moved_v <= reach;
        args.sx[at] = within ? u : start_u;
        args.sy[at] = within ? v : start_v;
      }
    }
  }
}

void search(const SearchArgs& args, int begin, int end) {
  if (args.patch_size == kBlock) {
    searchStripe<true>(args, begin, end);
  } else {
    searchStripe<false>(args, begin, end);
  }
}

// ---------------------------------------------------------------- densification

/// The patch row or column whose centre lies nearest to coordinate `x`; the lower one of two.
inline int nearestPatch(int x, int count, int size, int stride) {
  const int beyond = 2 * x - (size - 1) - stride;  // twice the way past the first two's middle
  return beyond <= 0 ? 0 : minOf((beyond + 2 * stride - 1) / (2 * stride), count - 1);
}

/// Weights of a patch row of differences to the first image, added to the row's sums.
inline void addWeighted(const v_float32& second, const std::uint8_t* i0, float u, float v,
                        float* weights, float* sum_u, float* sum_v) {
  const v_float32 one = vx_setall_f32(1.0F);
  const v_float32 weight = one / v_max(v_abs(second - loadFloats(i0)), one);
  v_store(weights, vx_load(weights) + weight);
  v_store(sum_u, v_fma(weight, vx_setall_f32(u), vx_load(sum_u)));
  v_store(sum_v, v_fma(weight, vx_setall_f32(v), vx_load(sum_v)));
}
inline void addWeighted(float second, std::uint8_t i0, float u, float v, float& weight_sum,
                        float& sum_u, float& sum_v) {
  const float difference = absOf(second - static_cast<float>(i0));
  const float weight = 1.0F / (difference > 1.0F ? difference : 1.0F);
  weight_sum += weight;
  sum_u += weight * u;
  sum_v += weight * v;
}

void densify(const SearchArgs& args, int begin, int end) {
  const int w = args.w;
  const int size = args.patch_size;
  const int stride = args.patch_stride;
  const float high_x = static_cast<float>(w) - 1.0F - 0.001F;
  const float high_y = static_cast<float>(args.h) - 1.0F - 0.001F;

  for (int y = begin; y < end; ++y) {
    float* weights = args.weight_sums + static_cast<std::ptrdiff_t>(y) * w;
    float* ux = args.ux + y * args.u_stride;
    float* uy = args.uy + y * args.u_stride;
    for (int x = 0; x < w; ++x) weights[x] = ux[x] = uy[x] = 0.0F;
  }

  // All pixels of a patch move alike, so going by patches makes the interpolation's weights
  // constant. Each pixel still meets its patches row by row, left to right, whatever the stripe.
  const int first_patch_row = maxOf(0, (begin - size + stride) / stride);
  for (int is = first_patch_row; is < args.hs && is * stride < end; ++is) {
    const int top = is * stride;
    const int row_begin = maxOf(top, begin);
    const int row_end = minOf(top + size, end);
    for (int js = 0; js < args.ws; ++js) {
      const int left = js * stride;
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(is) * args.ws + js;
      const float u = args.sx[at];
      const float v = args.sy[at];
      const float x = static_cast<float>(left) + u;
      const float y = static_cast<float>(top) + v;

      // Not `>=` alone: a flow that is not a number takes the clamped path.
      const bool inside = x >= 0.0F && y >= 0.0F && x + static_cast<float>(size - 1) <= high_x &&
                          y + static_cast<float>(size - 1) <= high_y;
      const int xi = inside ? static_cast<int>(x) : 0;
      const int yi = inside ? static_cast<int>(y) : 0;
      if (inside && xi + size <= w - 1 && yi + size <= args.h - 1) {
        const float dx = x - static_cast<float>(xi);
        const float dy = y - static_cast<float>(yi);
        const v_float32 vdx = vx_setall_f32(dx);
        const v_float32 vdy = vx_setall_f32(dy);
        int i = 0;
        for (; i <= size - kLanes; i += kLanes) {
          const std::uint8_t* p = args.i1 + (yi + row_begin - top) * args.i1_stride + xi + i;
          v_float32 above = lerp(loadFloats(p), loadFloats(p + 1), vdx);
          for (int row = row_begin; row < row_end; ++row) {
            p += args.i1_stride;
            const v_float32 below = lerp(loadFloats(p), loadFloats(p + 1), vdx);
            const std::ptrdiff_t pixel = row * args.u_stride + left + i;
            addWeighted(lerp(above, below, vdy), args.i0 + row * args.i0_stride + left + i, u, v,
                        args.weight_sums + static_cast<std::ptrdiff_t>(row) * w + left + i,
                        args.ux + pixel, args.uy + pixel);
            above = below;
          }
        }
        for (; i < size; ++i) {
          for (int row = row_begin; row < row_end; ++row) {
            const std::uint8_t* p = args.i1 + (yi + row - top) * args.i1_stride + xi + i;
            const float above = lerp(p[0], p[1], dx);
            const float below = lerp(p[args.i1_stride], p[args.i1_stride + 1], dx);
            const std::ptrdiff_t pixel = row * args.u_stride + left + i;
            addWeighted(lerp(above, below, dy), args.i0[row * args.i0_stride + left + i], u, v,
                        args.weight_sums[static_cast<std::ptrdiff_t>(row) * w + left + i],
                        args.ux[pixel], args.uy[pixel]);
          }
        }
      } else {
        int columns[kMaxPatch];
        float fractions[kMaxPatch];
        for (int i = 0; i < size; ++i) {
          const float column = clampOf(static_cast<float>(left + i) + u, 0.0F, high_x);
          columns[i] = static_cast<int>(column);
          fractions[i] = column - static_cast<float>(columns[i]);
        }
        // A side of one pixel clamps to 0 with nothing beside it.
        const int right = w > 1 ? 1 : 0;
        const std::ptrdiff_t below = args.h > 1 ? args.i1_stride : 0;
        for (int row = row_begin; row < row_end; ++row) {
          const float sample_y = clampOf(static_cast<float>(row) + v, 0.0F, high_y);
          const int sample_row = static_cast<int>(sample_y);
          const float dy = sample_y - static_cast<float>(sample_row);
          float second[kMaxPatch];
          for (int i = 0; i < size; ++i) {
            const std::uint8_t* p = args.i1 + sample_row * args.i1_stride + columns[i];
            second[i] = lerp(lerp(p[0], p[right], fractions[i]),
                             lerp(p[below], p[below + right], fractions[i]), dy);
          }
          const std::uint8_t* i0 = args.i0 + row * args.i0_stride + left;
          float* weights = args.weight_sums + static_cast<std::ptrdiff_t>(row) * w + left;
          float* ux = args.ux + row * args.u_stride + left;
          float* uy = args.uy + row * args.u_stride + left;
          int i = 0;
          for (; i <= size - kLanes; i += kLanes) {
            addWeighted(vx_load(second + i), i0 + i, u, v, weights + i, ux + i, uy + i);
          }
          for (; i < size; ++i) addWeighted(second[i], i0[i], u, v, weights[i], ux[i], uy[i]);
        }
      }
    }
  }

  const int covered = (args.ws - 1) * stride + size;  // columns left of it may be covered
  for (int y = begin; y < end; ++y) {
    const float* weights = args.weight_sums + static_cast<std::ptrdiff_t>(y) * w;
    float* ux = args.ux + y * args.u_stride;
    float* uy = args.uy + y * args.u_stride;
    const bool row_covered = y < (args.hs - 1) * stride + size;
    int x = 0;
    if (row_covered && stride <= size) {
      for (; x <= covered - kLanes; x += kLanes) {
        const v_float32 sum = vx_load(weights + x);
        v_store(ux + x, vx_load(ux + x) / sum);
        v_store(uy + x, vx_load(uy + x) / sum);
      }
    }
    for (; x < w; ++x) {
      if (weights[x] > 0.0F) {
        ux[x] /= weights[x];
        uy[x] /= weights[x];
      } else {
        const std::ptrdiff_t at =
            static_cast<std::ptrdiff_t>(nearestPatch(y, args.hs, size, stride)) * args.ws +
            nearestPatch(x, args.ws, size, stride);
        ux[x] = args.sx[at];
        uy[x] = args.sy[at];
      }
    }
  }
}

// ---------------------------------------------------------------- variational refinement

constexpr float kEpsilonSquared = 0.001F * 0.001F;
constexpr float kZetaSquared = 0.01F;
/// A constancy term whose own solution lies farther away, in pixels, is left out: the images are
/// not linear over such a distance, so the term says nothing there. Occluded and mismatched areas
/// would otherwise be thrown far off by their few flat pixels.
constexpr float kLinearRange = 1.5F;
/// Pull of each pixel's system towards the current flow: it keeps a pixel without data and
/// smoothness solvable, and is too weak to be seen elsewhere.
constexpr float kProximal = 1e-6F;

inline v_float32 inverseRoot(const v_float32& x) { return vx_setall_f32(1.0F) / v_sqrt(x); }

/// Repeats a row's first and last value in two elements beside it, for the five-point derivative.
inline void extendRow(float* row, int w) {
  row[-2] = row[-1] = row[0];
  row[w] = row[w + 1] = row[w - 1];
}

void importRows(const RefineArgs& args, int begin, int end) {
  for (int y = begin; y < end; ++y) {
    const std::uint8_t* source = args.i1 + y * args.i1_stride;
    float* second = args.second + y * args.natural_stride;
    for (int x = 0; x < args.w; ++x) second[x] = source[x];
    extendRow(second, args.w);
    if (y == args.h - 1) {
      for (int x = -2; x < args.w + 2; ++x) second[x + args.natural_stride] = second[x];
    }
  }
}

// The data terms. Rows of what they are made from live in a ring that stays in the cache: the
// derivatives of a row need two rows on either side, and theirs two more.

enum NaturalPlane { kMean, kDiff, kInside, kMeanX, kMeanY };

inline float* naturalRow(const RefineArgs& args, const Band& band, NaturalPlane plane, int y) {
  const int slot = (y % kNaturalRows) * kNaturalPlanes + plane;
  return band.natural + slot * args.natural_stride;
}

/// Half row `index` of row y.
inline float* halfRow(float* rows, const RefineArgs& args, int halves, int y, int index) {
  return rows + (static_cast<std::ptrdiff_t>(y) * halves + index) * args.half_stride;
}
inline float* flowRow(const RefineArgs& args, int buffer, int y, FlowPlane plane, int colour) {
  return halfRow(args.flow[buffer], args, kFlowHalves, y, 2 * plane + colour);
}
/// The data terms of a row, vector by vector: a_0, b_0, c_0, a_1 ... of `kLanes` pixels.
inline float* termRow(const RefineArgs& args, int y, int colour) {
  return halfRow(args.terms, args, kTermHalves, y, kTerms * colour);
}

inline int firstX(int y, int colour) { return (y + colour) & 1; }

/// Elements of a half row that are computed: all pixels of either colour.
inline int halfCount(const RefineArgs& args) { return (args.w + 1) / 2; }

void splitRow(const float* row, float* even, float* odd, int w) {
  for (int k = 0; k < w / 2; ++k) {
    even[k] = row[2 * k];
    odd[k] = row[2 * k + 1];
  }
  if (w % 2 != 0) even[w / 2] = row[w - 1];
}

void mergeRow(const float* even, const float* odd, float* row, int w) {
  for (int k = 0; k < w / 2; ++k) {
    row[2 * k] = even[k];
    row[2 * k + 1] = odd[k];
  }
  if (w % 2 != 0) row[w - 1] = even[w / 2];
}

void warpRow(const RefineArgs& args, const Band& band, int y) {
  const v_float32 zero = vx_setzero_f32();
  const v_float32 one = vx_setall_f32(1.0F);
  const v_float32 half = vx_setall_f32(0.5F);
  const v_float32 high_x = vx_setall_f32(static_cast<float>(args.w - 1));
  const v_float32 high_y = vx_setall_f32(static_cast<float>(args.h - 1));
  const v_int32 stride = vx_setall_s32(static_cast<int>(args.natural_stride));
  alignas(64) float ramp[kLanes];
  for (int i = 0; i < kLanes; ++i) ramp[i] = static_cast<float>(i);
  const v_float32 lane = vx_load(ramp);

  const std::uint8_t* i0 = args.i0 + y * args.i0_stride;
  float* mean = naturalRow(args, band, kMean, y);
  float* diff = naturalRow(args, band, kDiff, y);
  float* inside = naturalRow(args, band, kInside, y);
  // Padded copies: vectors may run past the row.
  float* u = naturalRow(args, band, kMeanX, y);
  float* v = naturalRow(args, band, kMeanY, y);
  for (int x = 0; x < args.w; ++x) {
    mean[x] = i0[x];
    u[x] = args.u[y * args.u_stride + x];
    v[x] = args.v[y * args.v_stride + x];
  }
  const v_float32 vy = vx_setall_f32(static_cast<float>(y));
  for (int x = 0; x < args.w; x += kLanes) {
    const v_float32 px = vx_setall_f32(static_cast<float>(x)) + lane + vx_load(u + x);
    const v_float32 py = vy + vx_load(v + x);
    const v_float32 within = (px >= zero) & (px <= high_x) & (py >= zero) & (py <= high_y);
    // Selected, not v_max: what is not a number must become an index too.
    const v_float32 cx = v_min(v_select(px >= zero, px, zero), high_x);
    const v_float32 cy = v_min(v_select(py >= zero, py, zero), high_y);
    const v_int32 xi = v_trunc(cx);
    const v_int32 yi = v_trunc(cy);
    const v_float32 dx = cx - v_cvt_f32(xi);
    const v_float32 dy = cy - v_cvt_f32(yi);
    const v_int32 index = yi * stride + xi;
    v_float32 a;
    v_float32 b;
    v_float32 c;
    v_float32 d;
    v_lut_deinterleave(args.second, index, a, b);
    v_lut_deinterleave(args.second + args.natural_stride, index, c, d);
    const v_float32 warped = lerp(lerp(a, b, dx), lerp(c, d, dx), dy);
    const v_float32 first = vx_load(mean + x);
    v_store(mean + x, half * (first + warped));
    v_store(diff + x, warped - first);
    v_store(inside + x, within & one);
  }
  for (int x = args.w; x < args.w + 2 * kPad; ++x) inside[x] = 0.0F;
  extendRow(mean, args.w);
  extendRow(diff, args.w);
}

/// (-1, 8, 0, -8, 1) / 12, the fourth-order central difference, from the two neighbours on each
/// side.
inline v_float32 derivative(const v_float32& m2, const v_float32& m1, const v_float32& p1,
                            const v_float32& p2) {
  return v_fma(p1 - m1, vx_setall_f32(8.0F / 12.0F), (m2 - p2) * vx_setall_f32(1.0F / 12.0F));
}
inline v_float32 derivativeX(const float* p) {
  return derivative(vx_load(p - 2), vx_load(p - 1), vx_load(p + 1), vx_load(p + 2));
}

/// The rows two above to two below, repeated at the image's border.
struct RowsAround {
  RowsAround(const RefineArgs& args, const Band& band, NaturalPlane plane, int y)
      : m2(naturalRow(args, band, plane, maxOf(y - 2, 0))),
        m1(naturalRow(args, band, plane, maxOf(y - 1, 0))),
        p1(naturalRow(args, band, plane, minOf(y + 1, args.h - 1))),
        p2(naturalRow(args, band, plane, minOf(y + 2, args.h - 1))) {}
  v_float32 derivativeY(int x) const {
    return derivative(vx_load(m2 + x), vx_load(m1 + x), vx_load(p1 + x), vx_load(p2 + x));
  }
  const float* m2;
  const float* m1;
  const float* p1;
  const float* p2;
};

void firstDerivatives(const RefineArgs& args, const Band& band, int y) {
  const float* mean = naturalRow(args, band, kMean, y);
  float* mean_x = naturalRow(args, band, kMeanX, y);
  float* mean_y = naturalRow(args, band, kMeanY, y);
  const RowsAround rows(args, band, kMean, y);
  for (int x = 0; x < args.w; x += kLanes) {
    v_store(mean_x + x, derivativeX(mean + x));
    v_store(mean_y + x, rows.derivativeY(x));
  }
  extendRow(mean_x, args.w);
  extendRow(mean_y, args.w);
}

/// The normalised terms of `kLanes` pixels in a row: r_i = c_i + a_i du + b_i dv.
struct DataVectors {
  v_float32 a[3], b[3], c[3];
};

struct DataRows {
  DataRows(const RefineArgs& args, const Band& band, int y)
      : mean_x(naturalRow(args, band, kMeanX, y)),
        mean_y(naturalRow(args, band, kMeanY, y)),
        diff(naturalRow(args, band, kDiff, y)),
        inside(naturalRow(args, band, kInside, y)),
        around_x(args, band, kMeanX, y),
        around_y(args, band, kMeanY, y),
        around_diff(args, band, kDiff, y) {}
  const float* mean_x;
  const float* mean_y;
  const float* diff;
  const float* inside;
  RowsAround around_x, around_y, around_diff;
};

inline DataVectors dataVectors(const DataRows& rows, int x) {
  const v_float32 zeta = vx_setall_f32(kZetaSquared);
  const v_float32 inside = vx_load(rows.inside + x);
  const v_float32 ix = vx_load(rows.mean_x + x);
  const v_float32 iy = vx_load(rows.mean_y + x);
  const v_float32 ixx = derivativeX(rows.mean_x + x);
  const v_float32 ixy = rows.around_x.derivativeY(x);
  const v_float32 iyy = rows.around_y.derivativeY(x);
  const v_float32 mixed = ixy * ixy;
  const v_float32 scale[3] = {inside * inverseRoot(v_fma(ix, ix, v_fma(iy, iy, zeta))),
                              inside * inverseRoot(v_fma(ixx, ixx, mixed + zeta)),
                              inside * inverseRoot(v_fma(iyy, iyy, mixed + zeta))};
  DataVectors out;
  out.a[0] = scale[0] * ix;
  out.b[0] = scale[0] * iy;
  out.c[0] = scale[0] * vx_load(rows.diff + x);
  out.a[1] = scale[1] * ixx;
  out.b[1] = scale[1] * ixy;
  out.c[1] = scale[1] * derivativeX(rows.diff + x);
  out.a[2] = scale[2] * ixy;
  out.b[2] = scale[2] * iyy;
  out.c[2] = scale[2] * rows.around_diff.derivativeY(x);
  // Each c is now the distance, in pixels, to the motion that the term alone asks for.
  const v_float32 one = vx_setall_f32(1.0F);
  for (int i = 0; i < 3; ++i) {
    const v_float32 near = (v_abs(out.c[i]) <= vx_setall_f32(kLinearRange)) & one;
    out.a[i] *= near;
    out.b[i] *= near;
    out.c[i] *= near;
  }
  return out;
}

void dataTerms(const RefineArgs& args, const Band& band, int y) {
  const auto split = [](const v_float32& low, const v_float32& high, v_float32 halves[2]) {
    alignas(64) float both[2 * kLanes];
    v_store(both, low);
    v_store(both + kLanes, high);
    v_load_deinterleave(both, halves[0], halves[1]);
  };
  const int colours[2] = {y & 1, 1 - (y & 1)};  // of the pixels with even and with odd x
  const float* flow_u[2];
  const float* flow_v[2];
  for (int odd = 0; odd < 2; ++odd) {
    flow_u[odd] = flowRow(args, 0, y, kFlowU, colours[odd]);
    flow_v[odd] = flowRow(args, 0, y, kFlowV, colours[odd]);
  }
  float* const terms[2] = {termRow(args, y, colours[0]), termRow(args, y, colours[1])};
  const DataRows rows(args, band, y);
  for (int k = 0; k < halfCount(args); k += kLanes) {
    const DataVectors low = dataVectors(rows, 2 * k);
    const DataVectors high = dataVectors(rows, 2 * k + kLanes);
    for (int i = 0; i < 3; ++i) {
      v_float32 a[2];
      v_float32 b[2];
      v_float32 c[2];
      split(low.a[i], high.a[i], a);
      split(low.b[i], high.b[i], b);
      split(low.c[i], high.c[i], c);
      for (int odd = 0; odd < 2; ++odd) {
        // In terms of the whole flow instead of its increment.
        const v_float32 u = vx_load(flow_u[odd] + k);
        const v_float32 v = vx_load(flow_v[odd] + k);
        float* const out = terms[odd] + kTerms * k + 3 * i * kLanes;
        v_store(out, a[odd]);
        v_store(out + kLanes, b[odd]);
        v_store(out + 2 * kLanes, c[odd] - a[odd] * u - b[odd] * v);
      }
    }
  }
}

void termRows(const RefineArgs& args, const Band& band) {
  constexpr int kReach = 2;  // of one derivative, in rows
  const int first = maxOf(band.begin - 2 * kReach, 0);
  const int last = minOf(band.end + 2 * kReach, args.h);
  for (int step = first; step < band.end + 2 * kReach; ++step) {
    if (step < last) warpRow(args, band, step);
    const int derived = step - kReach;
    if (derived >= maxOf(band.begin - kReach, 0) && derived < minOf(band.end + kReach, args.h)) {
      firstDerivatives(args, band, derived);
    }
    const int y = step - 2 * kReach;
    if (y < band.begin) continue;
    const int even = y & 1;
    splitRow(args.u + y * args.u_stride, flowRow(args, 0, y, kFlowU, even),
             flowRow(args, 0, y, kFlowU, 1 - even), args.w);
    splitRow(args.v + y * args.v_stride, flowRow(args, 0, y, kFlowV, even),
             flowRow(args, 0, y, kFlowV, 1 - even), args.w);
    dataTerms(args, band, y);
  }
}

// One outer iteration. The systems of a row are built when its first half sweep is near, and live
// in a ring of rows until its last one is done: they never leave the cache.

/// Half rows of the ring. What a pixel does not share lies together vector by vector, in the order
/// of SystemValue.
enum SolverPlane { kU, kV, kRobust, kSystem };
/// A pixel's linear system: the smoothness weights of the edges to its neighbours, the right-hand
/// side without them, and omega times the inverse of its 2 x 2 matrix.
enum SystemValue { kLeft, kRight, kUp, kDown, kB1, kB2, kM11, kM12, kM22, kSystemValues };
static_assert(kSolverHalves == 2 * (kSystem + kSystemValues), "");

inline float* solverRow(const RefineArgs& args, const Band& band, SolverPlane plane, int colour,
                        int y) {
  // Above and below the image: zeros.
  if (y < 0 || y >= args.h) return band.zeros;
  const int half = plane == kSystem ? 2 * kSystem + kSystemValues * colour : 2 * plane + colour;
  return halfRow(band.solver, args, kSolverHalves, y & (band.solver_rows - 1), half);
}

void smoothnessRow(const RefineArgs& args, const Band& band, int buffer, int y) {
  const v_float32 epsilon = vx_setall_f32(kEpsilonSquared);
  const v_float32 half = vx_setall_f32(0.5F);
  const v_float32 has_up = vx_setall_f32(y > 0 ? 1.0F : 0.0F);
  const v_float32 has_down = vx_setall_f32(y + 1 < args.h ? 1.0F : 0.0F);
  for (int colour = 0; colour < 2; ++colour) {
    const int odd = firstX(y, colour);
    const float* u = flowRow(args, buffer, y, kFlowU, colour);
    const float* v = flowRow(args, buffer, y, kFlowV, colour);
    const float* side_u = flowRow(args, buffer, y, kFlowU, 1 - colour) - 1 + odd;
    const float* side_v = flowRow(args, buffer, y, kFlowV, 1 - colour) - 1 + odd;
    const float* up_u = flowRow(args, buffer, y - 1, kFlowU, 1 - colour);
    const float* up_v = flowRow(args, buffer, y - 1, kFlowV, 1 - colour);
    const float* down_u = flowRow(args, buffer, y + 1, kFlowU, 1 - colour);
    const float* down_v = flowRow(args, buffer, y + 1, kFlowV, 1 - colour);
    float* out = solverRow(args, band, kRobust, colour, y);
    for (int k = 0; k < halfCount(args); k += kLanes) {
      const v_float32 pu = vx_load(u + k);
      const v_float32 pv = vx_load(v + k);
      const auto square = [&](const float* nu, const float* nv) {
        const v_float32 du = vx_load(nu + k) - pu;
        const v_float32 dv = vx_load(nv + k) - pv;
        return v_fma(du, du, dv * dv);
      };
      v_float32 sum = vx_load(args.has_left[odd] + k) * square(side_u, side_v);
      sum = v_fma(vx_load(args.has_right[odd] + k), square(side_u + 1, side_v + 1), sum);
      sum = v_fma(has_up, square(up_u, up_v), sum);
      sum = v_fma(has_down, square(down_u, down_v), sum);
      v_store(out + k, inverseRoot(v_fma(half, sum, epsilon)));
    }
  }
}

void systemRow(const RefineArgs& args, const Band& band, int buffer, int y) {
  const v_float32 epsilon = vx_setall_f32(kEpsilonSquared);
  const v_float32 omega = vx_setall_f32(args.omega);
  const v_float32 half_alpha = vx_setall_f32(0.5F * args.alpha);
  const v_float32 delta = vx_setall_f32(args.delta);
  const v_float32 gamma = vx_setall_f32(args.gamma);
  const v_float32 proximal = vx_setall_f32(kProximal);
  const v_float32 zero = vx_setzero_f32();
  const v_float32 has_up = vx_setall_f32(y > 0 ? 1.0F : 0.0F);
  const v_float32 has_down = vx_setall_f32(y + 1 < args.h ? 1.0F : 0.0F);
  for (int colour = 0; colour < 2; ++colour) {
    const int odd = firstX(y, colour);
    const auto row = [&](SolverPlane plane) { return solverRow(args, band, plane, colour, y); };
    const float* own = row(kRobust);
    const float* side = solverRow(args, band, kRobust, 1 - colour, y) - 1 + odd;
    const float* above = solverRow(args, band, kRobust, 1 - colour, y - 1);
    const float* below = solverRow(args, band, kRobust, 1 - colour, y + 1);
    const float* flow_u = flowRow(args, buffer, y, kFlowU, colour);
    const float* flow_v = flowRow(args, buffer, y, kFlowV, colour);
    const float* const terms = termRow(args, y, colour);
    float* const out_u = row(kU);
    float* const out_v = row(kV);
    float* const system = row(kSystem);
    for (int k = 0; k < halfCount(args); k += kLanes) {
      const v_float32 robust = vx_load(own + k);
      const v_float32 left =
          vx_load(args.has_left[odd] + k) * half_alpha * (robust + vx_load(side + k));
      const v_float32 right =
          vx_load(args.has_right[odd] + k) * half_alpha * (robust + vx_load(side + k + 1));
      const v_float32 up = has_up * half_alpha * (robust + vx_load(above + k));
      const v_float32 down = has_down * half_alpha * (robust + vx_load(below + k));
      const v_float32 smooth = (left + right) + (up + down) + proximal;

      const v_float32 u = vx_load(flow_u + k);
      const v_float32 v = vx_load(flow_v + k);
      v_float32 a[3];
      v_float32 b[3];
      v_float32 c[3];
      v_float32 residual[3];
      for (int i = 0; i < 3; ++i) {
        const float* const term = terms + kTerms * k + 3 * i * kLanes;
        a[i] = vx_load(term);
        b[i] = vx_load(term + kLanes);
        c[i] = vx_load(term + 2 * kLanes);
        residual[i] = v_fma(a[i], u, v_fma(b[i], v, c[i]));
      }
      const v_float32 colour_weight = delta * inverseRoot(v_fma(residual[0], residual[0], epsilon));
      const v_float32 gradient_weight =
          gamma *
          inverseRoot(v_fma(residual[1], residual[1], v_fma(residual[2], residual[2], epsilon)));
      v_float32 a11 = zero;
      v_float32 a12 = zero;
      v_float32 a22 = zero;
      v_float32 b1 = proximal * u;
      v_float32 b2 = proximal * v;
      for (int i = 0; i < 3; ++i) {
        const v_float32 weight = i == 0 ? colour_weight : gradient_weight;
        const v_float32 wa = weight * a[i];
        const v_float32 wb = weight * b[i];
        a11 = v_fma(wa, a[i], a11);
        a12 = v_fma(wa, b[i], a12);
        a22 = v_fma(wb, b[i], a22);
        b1 -= wa * c[i];
        b2 -= wb * c[i];
      }
      // det = S^2 + S (A11 + A22) + (A11 A22 - A12^2): no cancellation against S, and the last
      // term is not negative but for rounding.
      const v_float32 data_det = v_max(a11 * a22 - a12 * a12, zero);
      const v_float32 inverse = omega / v_fma(smooth, smooth + (a11 + a22), data_det);
      float* const out = system + kSystemValues * k;
      v_store(out + kLeft * kLanes, left);
      v_store(out + kRight * kLanes, right);
      v_store(out + kUp * kLanes, up);
      v_store(out + kDown * kLanes, down);
      v_store(out + kB1 * kLanes, b1);
      v_store(out + kB2 * kLanes, b2);
      v_store(out + kM11 * kLanes, (a22 + smooth) * inverse);
      v_store(out + kM12 * kLanes, a12 * inverse);
      v_store(out + kM22 * kLanes, (a11 + smooth) * inverse);
      v_store(out_u + k, u);
      v_store(out_v + k, v);
    }
  }
}

void sweepRow(const RefineArgs& args, const Band& band, int colour, int y) {
  const int odd = firstX(y, colour);
  const auto own = [&](SolverPlane plane) { return solverRow(args, band, plane, colour, y); };
  const auto other = [&](SolverPlane plane, int row) {
    return solverRow(args, band, plane, 1 - colour, row);
  };
  float* u = own(kU);
  float* v = own(kV);
  const float* side_u = other(kU, y) - 1 + odd;
  const float* side_v = other(kV, y) - 1 + odd;
  const float* up_u = other(kU, y - 1);
  const float* up_v = other(kV, y - 1);
  const float* down_u = other(kU, y + 1);
  const float* down_v = other(kV, y + 1);
  const float* system = own(kSystem);
  const v_float32 keep = vx_setall_f32(1.0F - args.omega);
  const int count = halfCount(args);
  for (int k = 0; k < count; k += kLanes, system += kSystemValues * kLanes) {
    const auto load = [&](SystemValue value) { return vx_load(system + value * kLanes); };
    const v_float32 w_left = load(kLeft);
    const v_float32 w_right = load(kRight);
    const v_float32 w_up = load(kUp);
    const v_float32 w_down = load(kDown);
    v_float32 ru = v_fma(w_left, vx_load(side_u + k), load(kB1));
    v_float32 rv = v_fma(w_left, vx_load(side_v + k), load(kB2));
    ru = v_fma(w_right, vx_load(side_u + k + 1), ru);
    rv = v_fma(w_right, vx_load(side_v + k + 1), rv);
    ru = v_fma(w_up, vx_load(up_u + k), ru);
    rv = v_fma(w_up, vx_load(up_v + k), rv);
    ru = v_fma(w_down, vx_load(down_u + k), ru);
    rv = v_fma(w_down, vx_load(down_v + k), rv);
    const v_float32 cross = load(kM12);
    const v_float32 next_u = v_fma(load(kM11), ru, keep * vx_load(u + k));
    const v_float32 next_v = v_fma(load(kM22), rv, keep * vx_load(v + k));
    v_store(u + k, next_u - cross * rv);
    v_store(v + k, next_v - cross * ru);
  }
}

/// Hands a finished row on: to the next iteration, or to the caller.
void finishRow(const RefineArgs& args, const Band& band, int buffer, bool last, int y) {
  const int even = y & 1;
  for (int i = 0; i < 2; ++i) {
    const SolverPlane plane = i == 0 ? kU : kV;
    if (last) {
      mergeRow(solverRow(args, band, plane, even, y), solverRow(args, band, plane, 1 - even, y),
               i == 0 ? args.u + y * args.u_stride : args.v + y * args.v_stride, args.w);
      continue;
    }
    for (int colour = 0; colour < 2; ++colour) {
      const float* source = solverRow(args, band, plane, colour, y);
      float* target = flowRow(args, buffer, y, i == 0 ? kFlowU : kFlowV, colour);
      for (int k = 0; k < halfCount(args); k += kLanes) v_store(target + k, vx_load(source + k));
    }
  }
}

void solve(const RefineArgs& args, const Band& band, int iteration, bool last) {
  // A diagonal order through rows and half sweeps: half sweep t follows t rows behind the first.
  // The band takes in a halo as deep as information travels in the sweeps, so that it needs no
  // other band; towards the ends of the halo each half sweep has one row less whose neighbours are
  // up to date.
  const int count = args.half_sweeps;
  const int from = iteration % 2;
  const int first = maxOf(band.begin - count, 0);
  const int end = minOf(band.end + count, args.h);
  for (int y = maxOf(first - 1, 0); y <= first; ++y) smoothnessRow(args, band, from, y);
  for (int step = first; step < band.end + count; ++step) {
    if (step + 1 < minOf(end + 1, args.h)) smoothnessRow(args, band, from, step + 1);
    if (step < end) systemRow(args, band, from, step);
    for (int t = 0; t < count; ++t) {
      const int y = step - 1 - t;
      const int margin = count - 1 - t;
      if (y >= maxOf(first, band.begin - margin) && y < minOf(end, band.end + margin)) {
        sweepRow(args, band, t & 1, y);
      }
    }
    const int done = step - count;
    if (done >= band.begin) finishRow(args, band, 1 - from, last, done);
  }
}

}  // namespace

extern const Kernels LUM_KERNELS;
const Kernels LUM_KERNELS = {LUM_KERNELS_NAME, structureTensor, search, densify,
                             importRows,       termRows,        solve};

}  // namespace cv::optflow::lum::kernels
