// Variational refinement: a part of flow_kernels.simd.hpp.

// ---------------------------------------------------------------- variational refinement

constexpr std::ptrdiff_t kVector = kLanes;  // as an offset

constexpr float kEpsilonSquared = 0.001F * 0.001F;
constexpr float kZetaSquared = 0.01F;
/// A constancy term whose own solution lies farther away, in pixels, is left out: the images are
/// not linear over such a distance, so the term says nothing there. Occluded and mismatched areas
/// would otherwise be thrown far off by their few flat pixels.
constexpr float kLinearRange = 1.5F;
/// Pull of each pixel's system towards the current flow: it keeps a pixel without data and
/// smoothness solvable, and is too weak to be seen elsewhere.
constexpr float kProximal = 1e-6F;

/// Repeats a row's first and last value in two elements beside it, for the five-point derivative.
inline void extendRow(float* row, int w) {
  row[-2] = row[-1] = row[0];
  row[w] = row[w + 1] = row[w - 1];
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

/// Zeros beside the row: what an earlier call left there may not be a number.
void splitRow(const float* row, float* even, float* odd, int w) {
  for (std::ptrdiff_t k = 0; k < w / 2; ++k) {
    even[k] = row[2 * k];
    odd[k] = row[2 * k + 1];
  }
  if (w % 2 != 0) even[w / 2] = row[w - 1];
  const int end = (w + 1) / 2 + kLanes;
  for (int k = (w + 1) / 2; k < end; ++k) even[k] = 0.0F;
  for (int k = w / 2; k < end; ++k) odd[k] = 0.0F;
}

void mergeRow(const float* even, const float* odd, float* row, int w) {
  for (std::ptrdiff_t k = 0; k < w / 2; ++k) {
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
  const v_int32 stride = vx_setall_s32(static_cast<int>(args.second_stride));
  const v_uint32 low_byte = vx_setall_u32(0xFF);
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
    alignas(64) int index[kLanes];
    v_store(index, yi * stride + xi);
    // Four bytes from each index on: the pixel and its right neighbour are the low ones.
    const auto between = [&](const std::uint8_t* rows) {
      const v_uint32 bytes = v_reinterpret_as_u32(vx_lut_quads(rows, index));
      const v_float32 left = v_cvt_f32(v_reinterpret_as_s32(bytes & low_byte));
      const v_float32 right = v_cvt_f32(v_reinterpret_as_s32((bytes >> 8) & low_byte));
      return lerp(left, right, dx);
    };
    const v_float32 warped =
        lerp(between(args.second), between(args.second + args.second_stride), dy);
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
  v_float32 derivativeY(std::ptrdiff_t x) const {
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

inline DataVectors dataVectors(const DataRows& rows, std::ptrdiff_t x) {
  const v_float32 zeta = vx_setall_f32(kZetaSquared);
  const v_float32 inside = vx_load(rows.inside + x);
  const v_float32 ix = vx_load(rows.mean_x + x);
  const v_float32 iy = vx_load(rows.mean_y + x);
  const v_float32 ixx = derivativeX(rows.mean_x + x);
  const v_float32 ixy = rows.around_x.derivativeY(x);
  const v_float32 iyy = rows.around_y.derivativeY(x);
  const v_float32 mixed = ixy * ixy;
  const v_float32 roots[3] = {v_sqrt(v_fma(ix, ix, v_fma(iy, iy, zeta))),
                              v_sqrt(v_fma(ixx, ixx, mixed + zeta)),
                              v_sqrt(v_fma(iyy, iyy, mixed + zeta))};
  // Inverse roots with one division.
  const v_float32 gradient_roots = roots[1] * roots[2];
  const v_float32 inverse = inside / (roots[0] * gradient_roots);
  const v_float32 rest = roots[0] * inverse;
  const v_float32 scale[3] = {gradient_roots * inverse, roots[2] * rest, roots[1] * rest};
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
  for (std::ptrdiff_t k = 0; k < halfCount(args); k += kLanes) {
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
        float* const out = terms[odd] + kTerms * k + 3 * kVector * i;
        v_store(out, a[odd]);
        v_store(out + kLanes, b[odd]);
        v_store(out + 2 * kVector, c[odd] - a[odd] * u - b[odd] * v);
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

// One outer iteration. Systems are built shortly before their first half sweep and live in a ring
// of rows until their last one: they never leave the cache.

/// Half rows of the ring. The unknowns of the halo are here, those of the band in `flow`. A system
/// lies together vector by vector, in the order of SystemValue.
enum SolverPlane { kHaloU, kHaloV, kRobust, kSystem };
/// A pixel's linear system M (b + sum of weight * neighbour): M b, and M, which is omega times the
/// inverse of the 2 x 2 matrix. The weight of an edge is the sum of the robust weights of its ends.
enum SystemValue { kC1, kC2, kM11, kM12, kM22, kSystemValues };
static_assert(kSolverHalves == 2 * (kSystem + kSystemValues), "");

/// Unknowns and robust weights of `kLanes` pixels.
struct Pixels {
  v_float32 u, v, robust;
};

/// A half row of them. v lies equally far behind u in all.
struct PixelRow {
  Pixels at(std::ptrdiff_t k) const {
    return {vx_load(u + k), vx_load(u + v_distance + k), vx_load(robust + k)};
  }
  void put(std::ptrdiff_t k, const Pixels& pixels) const {
    v_store(u + k, pixels.u);
    v_store(u + v_distance + k, pixels.v);
  }
  float* u;
  std::ptrdiff_t v_distance;
  float* robust;
};

/// Rows of an outer iteration that reads `flow[from]` and ends in the other one.
struct SolverRows {
  float* ring(SolverPlane plane, int colour, int y) const {
    // Above and below the image: zeros.
    if (y < 0 || y >= args.h) return band.zeros;
    const int half = plane == kSystem ? 2 * kSystem + kSystemValues * colour : 2 * plane + colour;
    return halfRow(band.solver, args, kSolverHalves, y & (band.solver_rows - 1), half);
  }
  /// As the iteration found them.
  PixelRow given(int colour, int y) const {
    return {flowRow(args, from, y, kFlowU, colour), 2 * args.half_stride, ring(kRobust, colour, y)};
  }
  /// As they are now. Rows of the halo belong to other bands, which compute them too.
  PixelRow current(int colour, int y) const {
    const bool halo = (y < band.begin || y >= band.end) && y >= 0 && y < args.h;
    return {halo ? ring(kHaloU, colour, y) : flowRow(args, 1 - from, y, kFlowU, colour),
            2 * args.half_stride, ring(kRobust, colour, y)};
  }

  const RefineArgs& args;
  const Band& band;
  int from;
};

/// Robust weights of the smoothness term, times alpha / 2.
void smoothnessRow(const SolverRows& rows, int y) {
  const RefineArgs& args = rows.args;
  const v_float32 epsilon = vx_setall_f32(kEpsilonSquared);
  const v_float32 half = vx_setall_f32(0.5F);
  const v_float32 half_alpha = vx_setall_f32(0.5F * args.alpha);
  const v_float32 has_up = vx_setall_f32(y > 0 ? 1.0F : 0.0F);
  const v_float32 has_down = vx_setall_f32(y + 1 < args.h ? 1.0F : 0.0F);
  // Of the pixels with even and with odd x.
  const int colours[2] = {y & 1, 1 - (y & 1)};
  const std::ptrdiff_t v_distance = 2 * args.half_stride;
  const PixelRow own[2] = {rows.given(colours[0], y), rows.given(colours[1], y)};
  const PixelRow up[2] = {rows.given(colours[1], y - 1), rows.given(colours[0], y - 1)};
  const PixelRow down[2] = {rows.given(colours[1], y + 1), rows.given(colours[0], y + 1)};
  for (std::ptrdiff_t k = 0; k < halfCount(args); k += kLanes) {
    v_float32 root[2];
    for (int odd = 0; odd < 2; ++odd) {
      const v_float32 u = vx_load(own[odd].u + k);
      const v_float32 v = vx_load(own[odd].u + v_distance + k);
      const auto square = [&](const PixelRow& to, std::ptrdiff_t at) {
        const v_float32 du = vx_load(to.u + at) - u;
        const v_float32 dv = vx_load(to.u + v_distance + at) - v;
        return v_fma(du, du, dv * dv);
      };
      const PixelRow& side = own[1 - odd];
      v_float32 sum = vx_load(args.has_left[odd] + k) * square(side, k - 1 + odd);
      sum = v_fma(vx_load(args.has_right[odd] + k), square(side, k + odd), sum);
      sum = v_fma(has_up, square(up[odd], k), sum);
      sum = v_fma(has_down, square(down[odd], k), sum);
      root[odd] = v_sqrt(v_fma(half, sum, epsilon));
    }
    // Two inverse roots with one division.
    const v_float32 inverse = half_alpha / (root[0] * root[1]);
    v_store(own[0].robust + k, root[1] * inverse);
    v_store(own[1].robust + k, root[0] * inverse);
  }
}

/// A pixel's system.
struct System {
  v_float32 c1, c2, m11, m12, m22;
};

inline System loadSystem(const float* at) {
  const auto value = [&](SystemValue which) { return vx_load(at + which * kVector); };
  return {value(kC1), value(kC2), value(kM11), value(kM12), value(kM22)};
}

/// One step of over-relaxation. Edges across the border need no mask: zeros lie beyond it.
inline Pixels relaxed(const System& system, const v_float32& keep, const Pixels& own,
                      const Pixels& left, const Pixels& right, const Pixels& up,
                      const Pixels& down) {
  const Pixels* const neighbours[4] = {&left, &right, &up, &down};
  v_float32 sum_u = vx_setzero_f32();
  v_float32 sum_v = vx_setzero_f32();
  for (const Pixels* to : neighbours) {
    const v_float32 weight = own.robust + to->robust;
    sum_u = v_fma(weight, to->u, sum_u);
    sum_v = v_fma(weight, to->v, sum_v);
  }
  const v_float32 next_u = v_fma(system.m11, sum_u, v_fma(keep, own.u, system.c1));
  const v_float32 next_v = v_fma(system.m22, sum_v, v_fma(keep, own.v, system.c2));
  return {next_u - system.m12 * sum_v, next_v - system.m12 * sum_u, own.robust};
}

/// The linear systems of a row, and the first half sweep of its red pixels, whose neighbours are
/// still as the iteration found them.
void systemRow(const SolverRows& rows, int y) {
  const RefineArgs& args = rows.args;
  const v_float32 epsilon = vx_setall_f32(kEpsilonSquared);
  const v_float32 omega = vx_setall_f32(args.omega);
  const v_float32 keep = vx_setall_f32(1.0F - args.omega);
  const v_float32 delta = vx_setall_f32(args.delta);
  const v_float32 gamma = vx_setall_f32(args.gamma);
  const v_float32 proximal = vx_setall_f32(kProximal);
  const v_float32 zero = vx_setzero_f32();
  const v_float32 has_up = vx_setall_f32(y > 0 ? 1.0F : 0.0F);
  const v_float32 has_down = vx_setall_f32(y + 1 < args.h ? 1.0F : 0.0F);
  for (int colour = 0; colour < 2; ++colour) {
    const int odd = firstX(y, colour);
    const PixelRow own_row = rows.given(colour, y);
    const PixelRow side = rows.given(1 - colour, y);
    const PixelRow above = rows.given(1 - colour, y - 1);
    const PixelRow below = rows.given(1 - colour, y + 1);
    const PixelRow out_row = rows.current(colour, y);
    const float* const terms = termRow(args, y, colour);
    float* const systems = rows.ring(kSystem, colour, y);

    /// The inverse robust weights of the data terms, without delta and gamma.
    struct Roots {
      v_float32 colour, gradient;
    };
    const auto rootsAt = [&](std::ptrdiff_t k) {
      const v_float32 u = vx_load(own_row.u + k);
      const v_float32 v = vx_load(own_row.u + own_row.v_distance + k);
      const float* const term = terms + kTerms * k;
      v_float32 residual[3];
      for (int i = 0; i < 3; ++i) {
        const float* const abc = term + 3 * kVector * i;
        residual[i] =
            v_fma(vx_load(abc), u, v_fma(vx_load(abc + kLanes), v, vx_load(abc + 2 * kVector)));
      }
      return Roots{
          v_sqrt(v_fma(residual[0], residual[0], epsilon)),
          v_sqrt(v_fma(residual[1], residual[1], v_fma(residual[2], residual[2], epsilon)))};
    };
    // One vector ahead of their use, as roots take long.
    Roots next_roots = rootsAt(0);
    for (std::ptrdiff_t k = 0; k < halfCount(args); k += kLanes) {
      const Roots roots = next_roots;
      next_roots = rootsAt(k + kLanes);
      const Pixels own = own_row.at(k);
      const Pixels left = side.at(k - 1 + odd);
      const Pixels right = side.at(k + odd);
      const Pixels up = above.at(k);
      const Pixels down = below.at(k);
      // The whole system is scaled by both roots, which saves the divisions by each.
      const v_float32 scale = roots.colour * roots.gradient;
      const v_float32 pull = proximal * scale;
      const v_float32 smooth =
          v_fma((vx_load(args.has_left[odd] + k) * (own.robust + left.robust) +
                 vx_load(args.has_right[odd] + k) * (own.robust + right.robust)) +
                    (has_up * (own.robust + up.robust) + has_down * (own.robust + down.robust)),
                scale, pull);
      v_float32 a11 = zero;
      v_float32 a12 = zero;
      v_float32 a22 = zero;
      v_float32 b1 = pull * own.u;
      v_float32 b2 = pull * own.v;
      for (int i = 0; i < 3; ++i) {
        const float* const term = terms + kTerms * k + 3 * kVector * i;
        const v_float32 a = vx_load(term);
        const v_float32 b = vx_load(term + kLanes);
        const v_float32 c = vx_load(term + 2 * kVector);
        const v_float32 weight = i == 0 ? delta * roots.gradient : gamma * roots.colour;
        const v_float32 wa = weight * a;
        const v_float32 wb = weight * b;
        a11 = v_fma(wa, a, a11);
        a12 = v_fma(wa, b, a12);
        a22 = v_fma(wb, b, a22);
        b1 -= wa * c;
        b2 -= wb * c;
      }
      // det = S^2 + S (A11 + A22) + (A11 A22 - A12^2): no cancellation against S, and the last
      // term is not negative but for rounding. Nothing beside the row may change: it is read.
      const v_float32 data_det = v_max(a11 * a22 - a12 * a12, zero);
      const v_float32 inverse =
          vx_load(args.exists[odd] + k) * omega / v_fma(smooth, smooth + (a11 + a22), data_det);
      const v_float32 m11 = (a22 + smooth) * inverse;
      const v_float32 m12 = a12 * inverse;
      const v_float32 m22 = (a11 + smooth) * inverse;
      const System system{m11 * b1 - m12 * b2, m22 * b2 - m12 * b1, m11 * scale, m12 * scale,
                          m22 * scale};
      float* const out = systems + kSystemValues * k;
      v_store(out + kC1 * kVector, system.c1);
      v_store(out + kC2 * kVector, system.c2);
      v_store(out + kM11 * kVector, system.m11);
      v_store(out + kM12 * kVector, system.m12);
      v_store(out + kM22 * kVector, system.m22);
      if (colour == 0) out_row.put(k, relaxed(system, keep, own, left, right, up, down));
    }
  }
}

/// Half sweep t, not the first, of row y.
void sweepRow(const SolverRows& rows, int t, int y) {
  const int colour = t & 1;
  const PixelRow out = rows.current(colour, y);
  const PixelRow own = t == 1 ? rows.given(colour, y) : out;
  const PixelRow side = rows.current(1 - colour, y);
  const PixelRow up = rows.current(1 - colour, y - 1);
  const PixelRow down = rows.current(1 - colour, y + 1);
  const float* system = rows.ring(kSystem, colour, y);
  const std::ptrdiff_t left = firstX(y, colour) - 1;
  const v_float32 keep = vx_setall_f32(1.0F - rows.args.omega);
  const int count = halfCount(rows.args);
  for (std::ptrdiff_t k = 0; k < count; k += kLanes, system += kSystemValues * kVector) {
    out.put(k, relaxed(loadSystem(system), keep, own.at(k), side.at(k + left),
                       side.at(k + left + 1), up.at(k), down.at(k)));
  }
}

/// Half sweep t, of black pixels, of row y and the next one of the row above: they share loads.
void sweepTwoRows(const SolverRows& rows, int t, int y) {
  const PixelRow out = rows.current(1, y);
  const PixelRow own = t == 1 ? rows.given(1, y) : out;
  const PixelRow side = rows.current(0, y);
  const PixelRow down = rows.current(0, y + 1);
  const PixelRow upper = rows.current(0, y - 1);
  const PixelRow upper_side = rows.current(1, y - 1);
  const PixelRow upper_up = rows.current(1, y - 2);
  const float* system = rows.ring(kSystem, 1, y);
  const float* upper_system = rows.ring(kSystem, 0, y - 1);
  const std::ptrdiff_t left = firstX(y, 1) - 1;  // the same in both rows
  const v_float32 keep = vx_setall_f32(1.0F - rows.args.omega);
  const int count = halfCount(rows.args);
  for (std::ptrdiff_t k = 0; k < count; k += kLanes) {
    const Pixels up = upper.at(k);
    const Pixels next = relaxed(loadSystem(system), keep, own.at(k), side.at(k + left),
                                side.at(k + left + 1), up, down.at(k));
    out.put(k, next);
    upper.put(k, relaxed(loadSystem(upper_system), keep, up, upper_side.at(k + left),
                         upper_side.at(k + left + 1), upper_up.at(k), next));
    system += kSystemValues * kVector;
    upper_system += kSystemValues * kVector;
  }
}

/// Hands a finished row to the caller.
void finishRow(const RefineArgs& args, int buffer, int y) {
  const int even = y & 1;
  for (const FlowPlane plane : {kFlowU, kFlowV}) {
    mergeRow(flowRow(args, buffer, y, plane, even), flowRow(args, buffer, y, plane, 1 - even),
             plane == kFlowU ? args.u + y * args.u_stride : args.v + y * args.v_stride, args.w);
  }
}

void solve(const RefineArgs& args, const Band& band, int iteration, bool last) {
  // A diagonal order through rows and half sweeps: at step s, half sweep t is at row s - t. The
  // band takes in a halo as deep as information travels in the sweeps, so that it needs no other
  // band; towards the ends of the halo each half sweep has one row less whose neighbours are up to
  // date. A block of steps is done by one group of half sweeps after the other, as the rows of a
  // group fit the nearest cache.
  const SolverRows rows{args, band, iteration % 2};
  const int count = args.half_sweeps;
  const int first = maxOf(band.begin - (count - 1), 0);
  const int end = minOf(band.end + (count - 1), args.h);
  const auto reaches = [&](int t, int y) {
    const int margin = count - 1 - t;
    return t < count && y >= maxOf(0, band.begin - margin) && y < minOf(args.h, band.end + margin);
  };
  for (int y = maxOf(first - 1, 0); y <= first; ++y) smoothnessRow(rows, y);
  const int steps_end = band.end + count - 1;
  for (int block = first; block < steps_end; block += band.block_steps) {
    const int block_end = minOf(block + band.block_steps, steps_end);
    for (int y = block; y < minOf(block_end, end); ++y) {
      if (y + 1 < args.h) smoothnessRow(rows, y + 1);
      systemRow(rows, y);
    }
    for (int group = 1; group < count; group += band.group_sweeps) {
      for (int step = block; step < block_end; ++step) {
        for (int t = group; t < group + band.group_sweeps; t += 2) {
          const int y = step - t;
          const bool lower = reaches(t, y);
          const bool upper = reaches(t + 1, y - 1);
          if (lower && upper) {
            sweepTwoRows(rows, t, y);
          } else if (lower) {
            sweepRow(rows, t, y);
          } else if (upper) {
            sweepRow(rows, t + 1, y - 1);
          }
        }
      }
    }
    if (!last) continue;
    for (int y = maxOf(block - (count - 1), band.begin); y < block_end - (count - 1); ++y) {
      finishRow(args, 1 - rows.from, y);
    }
  }
}
