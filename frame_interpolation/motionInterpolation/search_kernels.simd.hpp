// Structure tensor and patch inverse search: a part of flow_kernels.simd.hpp.

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

constexpr float kFarthest = 1e9F;  // pixels of a flow that search looks at
constexpr int kBlock = 8;          // columns of a patch that are taken at a time
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
#if CV_AVX2
  const v_uint8x16 rows = v_combine_low(v_load_low(p), v_load_low(p + stride));
  return v_int16(_mm256_cvtepu8_epi16(rows.val));
#else
  (void)stride;
  return v_reinterpret_as_s16(vx_load_expand(p));
#endif
}
inline v_int16 loadBlock(const std::int16_t* p, std::ptrdiff_t stride) {
#if CV_AVX2
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
#if CV_AVX2
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
// One object per stripe: the padding of its aligned tables costs nothing.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
class PatchMatcher {
 public:
  explicit PatchMatcher(const SearchArgs& args)
      : args_(args),
        count_(args.patch_size * args.patch_size),
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
    // Whole numbers up to the last product, so that an error of zero is exactly that.
    const auto normalised = [&](double products, double sums) {
      return inverse_count_ > 0.0 ? (count_ * products - sums) * inverse_count_ : products;
    };
    double* c = cell.square;
    c[0] = normalised(q[0], s[0] * s[0]);
    c[1] = 2.0 * normalised(q[1], s[0] * s[1]);
    c[2] = normalised(q[2], s[1] * s[1]);
    c[3] = 2.0 * normalised(q[3], s[0] * s[2]);
    c[4] = normalised(q[4], s[2] * s[2]);
    c[5] = 2.0 * normalised(q[5], s[1] * s[2] + s[0] * s[3]);
    c[6] = 2.0 * normalised(q[6], s[1] * s[3]);
    c[7] = 2.0 * normalised(q[7], s[2] * s[3]);
    c[8] = normalised(q[8], s[3] * s[3]);
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
  const double count_;
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
  Cell cells_[2] = {};
  Cell* kept_ = cells_;
  Cell* probed_ = cells_;
  // Copies of patches that are not read in place.
  std::uint8_t pixels_[kFull ? 1 : kMaxPatch * kMaxPatch] = {};
  std::int16_t gradient_x_[kFull ? 1 : kMaxPatch * kMaxPatch] = {};
  std::int16_t gradient_y_[kFull ? 1 : kMaxPatch * kMaxPatch] = {};
  std::int16_t mask_[kFull ? 1 : kMaxPatch * kMaxPatch] = {};
};

/// Where a pass goes, and what of it is done.
struct Visit {
  int is, js;       // row and column of the patch
  int step;         // 1 or -1
  bool has_beside;  // whether the patch before it in the row was visited in this pass
  bool has_row;     // likewise in the column
};

template <bool kFull>
void searchPatch(const SearchArgs& args, int pass, const Visit& visit,
                 PatchMatcher<kFull>& matcher) {
  const int half = args.patch_size / 2;
  const int left = visit.js * args.patch_stride;
  const int top = visit.is * args.patch_stride;
  const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(visit.is) * args.ws + visit.js;
  matcher.setPatch(left, top, at);
  const std::ptrdiff_t centre = (top + half) * args.u_stride + left + half;
  float u = pass == 0 ? args.ux[centre] : args.sx[at];
  float v = pass == 0 ? args.uy[centre] : args.sy[at];

  // Candidates. One that equals the current flow cannot be strictly better, so neither is measured
  // before two different ones meet.
  float best = -1.0F;
  const auto tryFlow = [&](float other_u, float other_v) {
    if (other_u == u && other_v == v) return;
    // An initial flow may hold anything; what is not a place would go round as one.
    if (!(absOf(other_u) <= kFarthest && absOf(other_v) <= kFarthest)) return;
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
    const std::ptrdiff_t place = (top + half) * args.initial_stride + left + half;
    tryFlow(args.initial_ux[place], args.initial_uy[place]);
  }
  if (args.spatial_propagation) {
    if (visit.has_beside) tryFlow(args.sx[at - visit.step], args.sy[at - visit.step]);
    const std::ptrdiff_t other = at - static_cast<std::ptrdiff_t>(visit.step) * args.ws;
    if (visit.has_row) tryFlow(args.sx[other], args.sy[other]);
  }

  const float start_u = u;
  const float start_v = v;
  matcher.descend(u, v, args.inner_iterations);
  const float moved_u = u - start_u;
  const float moved_v = v - start_v;
  const float reach = static_cast<float>(args.patch_size) * static_cast<float>(args.patch_size);
  const bool within = moved_u * moved_u + moved_v * moved_v <= reach;
  args.sx[at] = within ? u : start_u;
  args.sy[at] = within ? v : start_v;
}

template <bool kFull>
void searchStripe(const SearchArgs& args, int begin, int end) {
  PatchMatcher<kFull> matcher(args);
  for (int pass = 0; pass < args.passes; ++pass) {
    const bool forward = pass % 2 == 0;
    const int step = forward ? 1 : -1;
    const int first_row = forward ? begin : end - 1;
    const int first_column = forward ? 0 : args.ws - 1;
    for (int is = first_row; is >= begin && is < end; is += step) {
      for (int js = first_column; js >= 0 && js < args.ws; js += step) {
        searchPatch(args, pass, {is, js, step, js != first_column, is != first_row}, matcher);
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
