// Variational refinement: a part of flow_kernels.simd.hpp.

constexpr std::ptrdiff_t kVector = kLanes;  // as an offset

/// Pixels of a flow beyond which it is no place of any image.
constexpr float kFarthestFlow = 1e9F;

/// Repeats a row's first and last value in two elements beside it, for the five-point derivative.
inline void extendRow(float* row, int w) {
  row[-2] = row[-1] = row[0];
  row[w] = row[w + 1] = row[w - 1];
}

// The data terms of a row. What they are made from lives in a ring of rows that stays in the cache:
// the derivatives of a row need two rows on either side, and theirs two more.

enum NaturalPlane { kFirst, kMean, kDiff, kInside, kMeanX, kMeanY };

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

/// Half rows of `Band::row`, each for even and for odd x: the data term's part of the systems; the
/// weights of the edges to the right; those of the edges downwards, of two rows in turns.
enum RowPlane { kA11, kA12, kA22, kB1, kB2, kEdgeRight, kEdgeDown };
inline float* rowPlane(const RefineArgs& args, const Band& band, int plane, int odd) {
  return band.row + (2 * plane + odd) * args.half_stride;
}
inline float* edgesDown(const RefineArgs& args, const Band& band, int y, int odd) {
  return rowPlane(args, band, kEdgeDown + (y & 1), odd);
}

inline int firstX(int y, int colour) { return (y + colour) & 1; }

/// Elements of a half row that are computed: all pixels of either colour.
inline int halfCount(const RefineArgs& args) { return (args.w + 1) / 2; }

/// What is not a place counts as no motion. Zeros beside the row: what an earlier call left there
/// may not be a number.
void splitRow(const float* row, float* even, float* odd, int w) {
  const auto placed = [](float value) { return absOf(value) <= kFarthestFlow ? value : 0.0F; };
  for (std::ptrdiff_t k = 0; k < w / 2; ++k) {
    even[k] = placed(row[2 * k]);
    odd[k] = placed(row[2 * k + 1]);
  }
  if (w % 2 != 0) even[w / 2] = placed(row[w - 1]);
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

/// Splits two vectors of neighbours into those of even and of odd x.
inline void split(const v_float32& low, const v_float32& high, v_float32 (&halves)[2]) {
  alignas(64) float both[2 * kLanes];
  v_store(both, low);
  v_store(both + kLanes, high);
  v_load_deinterleave(both, halves[0], halves[1]);
}

/// The weight of the edge between two pixels, by their step of grey: 1 without one, falling like
/// exp(-step / 10), which (1 - step / 80)^8 is but for 0.03.
inline v_float32 edgeWeight(const v_float32& a, const v_float32& b) {
  const v_float32 rest =
      v_max(v_fma(v_abs(a - b), vx_setall_f32(-1.0F / kEdgeRange), vx_setall_f32(1.0F)),
            vx_setzero_f32());
  const v_float32 square = rest * rest;
  const v_float32 fourth = square * square;
  return v_fma(fourth * fourth, vx_setall_f32(1.0F - kLeastEdge), vx_setall_f32(kLeastEdge));
}
inline float edgeWeight(int a, int b) {
  const float rest = 1.0F - absOf(static_cast<float>(a - b)) / kEdgeRange;
  const float square = rest > 0.0F ? rest * rest : 0.0F;
  return kLeastEdge + (1.0F - kLeastEdge) * (square * square) * (square * square);
}

double edgeSum(const std::uint8_t* from, const std::uint8_t* to, int count) {
  v_float32 sums = vx_setzero_f32();
  int x = 0;
  for (; x <= count - kLanes; x += kLanes) {
    sums += edgeWeight(loadFloats(from + x), loadFloats(to + x));
  }
  double sum = v_reduce_sum(sums);
  for (; x < count; ++x) sum += edgeWeight(from[x], to[x]);
  return sum;
}

void beginRefinement(const RefineArgs& args, const Band& band) {
  for (int y = band.begin; y < band.end; ++y) {
    const int even = y & 1;
    splitRow(args.u + y * args.u_stride, flowRow(args, 0, y, kFlowU, even),
             flowRow(args, 0, y, kFlowU, 1 - even), args.w);
    splitRow(args.v + y * args.v_stride, flowRow(args, 0, y, kFlowV, even),
             flowRow(args, 0, y, kFlowV, 1 - even), args.w);
    const std::uint8_t* const i0 = args.i0 + y * args.i0_stride;
    args.edge_sums[y] = edgeSum(i0, i0 + 1, args.w - 1) +
                        (y + 1 < args.h ? edgeSum(i0, i0 + args.i0_stride, args.w) : 0.0);
  }
}

/// Weights of the four samples around a position, `t` past the second: the cubic through them of
/// Keys, "Cubic Convolution Interpolation for Digital Image Processing", 1981.
struct CubicWeights {
  explicit CubicWeights(const v_float32& t) {
    const v_float32 half = vx_setall_f32(0.5F);
    const v_float32 one = vx_setall_f32(1.0F);
    const v_float32 square = t * t;
    w[0] = t * (t * (one - half * t) - half);
    w[1] = v_fma(square, v_fma(t, vx_setall_f32(1.5F), vx_setall_f32(-2.5F)), one);
    w[3] = square * (half * t - half);
    w[2] = one - w[0] - w[1] - w[3];
  }
  v_float32 w[4];
};

/// A vector of positions in the second image.
struct Positions {
  Positions(const RefineArgs& args, const v_float32& px, const v_float32& py) {
    const v_float32 zero = vx_setzero_f32();
    const v_float32 high_x = vx_setall_f32(static_cast<float>(args.w - 1));
    const v_float32 high_y = vx_setall_f32(static_cast<float>(args.h - 1));
    inside = (px >= zero) & (px <= high_x) & (py >= zero) & (py <= high_y);
    // Selected, not v_max: what is not a number must become an index too.
    const v_float32 cx = v_min(v_select(px >= zero, px, zero), high_x);
    const v_float32 cy = v_min(v_select(py >= zero, py, zero), high_y);
    const v_int32 xi = v_trunc(cx);
    const v_int32 yi = v_trunc(cy);
    dx = cx - v_cvt_f32(xi);
    dy = cy - v_cvt_f32(yi);
    v_store(index, yi * vx_setall_s32(static_cast<int>(args.second_stride)) + xi);
  }
  alignas(64) int index[kLanes] = {};
  v_float32 inside, dx, dy;
};

inline v_float32 sampled(const RefineArgs& args, const Positions& at) {
  const v_uint32 low_byte = vx_setall_u32(0xFF);
  const CubicWeights across(at.dx);
  const CubicWeights down(at.dy);
  v_float32 sum = vx_setzero_f32();
  for (int row = 0; row < 4; ++row) {
    // The four bytes from each index on are the four samples in a row.
    const v_uint32 bytes =
        v_reinterpret_as_u32(vx_lut_quads(args.second + row * args.second_stride, at.index));
    const auto sample = [&](const v_uint32& byte) { return v_cvt_f32(v_reinterpret_as_s32(byte)); };
    v_float32 between = across.w[0] * sample(bytes & low_byte);
    between = v_fma(across.w[1], sample((bytes >> 8) & low_byte), between);
    between = v_fma(across.w[2], sample((bytes >> 16) & low_byte), between);
    between = v_fma(across.w[3], sample(bytes >> 24), between);
    sum = v_fma(down.w[row], between, sum);
  }
  return sum;
}

void warpRow(const RefineArgs& args, const Band& band, int from, int y) {
  const v_float32 one = vx_setall_f32(1.0F);
  const v_float32 half = vx_setall_f32(0.5F);
  alignas(64) float ramp[kLanes];
  for (int i = 0; i < kLanes; ++i) ramp[i] = static_cast<float>(i);
  const v_float32 lane = vx_load(ramp);
  const v_float32 vy = vx_setall_f32(static_cast<float>(y));

  const std::uint8_t* const i0 = args.i0 + y * args.i0_stride;
  float* const first = naturalRow(args, band, kFirst, y);
  float* const mean = naturalRow(args, band, kMean, y);
  float* const diff = naturalRow(args, band, kDiff, y);
  float* const inside = naturalRow(args, band, kInside, y);
  for (int x = 0; x < args.w; ++x) first[x] = i0[x];
  // The flow, in rows that are filled later.
  float* const flow[2] = {naturalRow(args, band, kMeanX, y), naturalRow(args, band, kMeanY, y)};
  const int even = y & 1;
  for (const FlowPlane plane : {kFlowU, kFlowV}) {
    mergeRow(flowRow(args, from, y, plane, even), flowRow(args, from, y, plane, 1 - even),
             flow[plane], args.w);
  }
  for (int x = 0; x < args.w; x += kLanes) {
    const Positions at(args, vx_setall_f32(static_cast<float>(x)) + lane + vx_load(flow[0] + x),
                       vy + vx_load(flow[1] + x));
    const v_float32 warped = sampled(args, at);
    const v_float32 own = vx_load(first + x);
    v_store(mean + x, half * (own + warped));
    v_store(diff + x, warped - own);
    v_store(inside + x, at.inside & one);
  }
  for (int x = args.w; x < args.w + 2 * kPad; ++x) inside[x] = 0.0F;
  extendRow(mean, args.w);
  extendRow(diff, args.w);
}

/// Weights of a row's edges to the right and downwards; 0 where there is none.
void edgeRow(const RefineArgs& args, const Band& band, int y) {
  const float* const own = naturalRow(args, band, kFirst, y);
  const float* const below = naturalRow(args, band, kFirst, minOf(y + 1, args.h - 1));
  const v_float32 last = vx_setall_f32(static_cast<float>(args.w - 1));
  const v_float32 has_below = vx_setall_f32(y + 1 < args.h ? 1.0F : 0.0F);
  alignas(64) float ramp[kLanes];
  for (int i = 0; i < kLanes; ++i) ramp[i] = static_cast<float>(i);
  const v_float32 lane = vx_load(ramp);
  float* const right[2] = {rowPlane(args, band, kEdgeRight, 0),
                           rowPlane(args, band, kEdgeRight, 1)};
  float* const down[2] = {edgesDown(args, band, y, 0), edgesDown(args, band, y, 1)};
  for (std::ptrdiff_t k = 0; k < halfCount(args); k += kLanes) {
    v_float32 to_right[2];
    v_float32 downwards[2];
    for (int i = 0; i < 2; ++i) {
      const std::ptrdiff_t x = 2 * k + i * kVector;
      const v_float32 grey = vx_load(own + x);
      const v_float32 has_right = vx_setall_f32(static_cast<float>(x)) + lane < last;
      to_right[i] = edgeWeight(grey, vx_load(own + x + 1)) & has_right;
      downwards[i] = edgeWeight(grey, vx_load(below + x)) * has_below;
    }
    v_float32 halves[2];
    split(to_right[0], to_right[1], halves);
    for (int odd = 0; odd < 2; ++odd) v_store(right[odd] + k, halves[odd]);
    split(downwards[0], downwards[1], halves);
    for (int odd = 0; odd < 2; ++odd) v_store(down[odd] + k, halves[odd]);
  }
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

/// The data term's part of the systems of `kLanes` pixels in a row: A (du, dv) = b.
struct DataSystem {
  v_float32 values[5];  // in the order of RowPlane
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

inline DataSystem dataSystem(const RefineArgs& args, const DataRows& rows, std::ptrdiff_t x) {
  const v_float32 zeta = vx_setall_f32(kZetaSquared);
  const v_float32 epsilon = vx_setall_f32(kDataEpsilonSquared);
  // Of the colour, and of the gradient along x and y: derivatives along x and y, and difference.
  const v_float32 mixed = rows.around_x.derivativeY(x);
  const v_float32 terms[3][3] = {
      {vx_load(rows.mean_x + x), vx_load(rows.mean_y + x), vx_load(rows.diff + x)},
      {derivativeX(rows.mean_x + x), mixed, derivativeX(rows.diff + x)},
      {mixed, rows.around_y.derivativeY(x), rows.around_diff.derivativeY(x)}};
  v_float32 norms[3];
  for (int i = 0; i < 3; ++i) {
    const v_float32* const t = terms[i];
    norms[i] = v_fma(t[0], t[0], v_fma(t[1], t[1], v_fma(t[2], t[2], zeta)));
  }
  // Three quotients, and then two, with one division each.
  const v_float32 gradient_norms = norms[1] * norms[2];
  const v_float32 inverse = vx_load(rows.inside + x) / (norms[0] * gradient_norms);
  const v_float32 rest = norms[0] * inverse;
  const v_float32 scales[3] = {gradient_norms * inverse, norms[2] * rest, norms[1] * rest};
  const auto square = [&](int i) { return terms[i][2] * terms[i][2] * scales[i]; };
  const v_float32 colour = v_sqrt(square(0) + epsilon);
  const v_float32 gradient = v_sqrt(square(1) + square(2) + epsilon);
  const v_float32 inverse_roots = vx_setall_f32(1.0F) / (colour * gradient);
  const v_float32 colour_weight = vx_setall_f32(args.delta) * gradient * inverse_roots;
  const v_float32 gradient_weight = vx_setall_f32(args.gamma) * colour * inverse_roots;

  DataSystem out{};
  for (v_float32& value : out.values) value = vx_setzero_f32();
  for (int i = 0; i < 3; ++i) {
    const v_float32* const t = terms[i];
    const v_float32 weight = scales[i] * (i == 0 ? colour_weight : gradient_weight);
    const v_float32 along_x = weight * t[0];
    const v_float32 along_y = weight * t[1];
    out.values[kA11] = v_fma(along_x, t[0], out.values[kA11]);
    out.values[kA12] = v_fma(along_x, t[1], out.values[kA12]);
    out.values[kA22] = v_fma(along_y, t[1], out.values[kA22]);
    out.values[kB1] -= along_x * t[2];
    out.values[kB2] -= along_y * t[2];
  }
  return out;
}

void dataRow(const RefineArgs& args, const Band& band, int y) {
  const DataRows rows(args, band, y);
  for (std::ptrdiff_t k = 0; k < halfCount(args); k += kLanes) {
    const DataSystem low = dataSystem(args, rows, 2 * k);
    const DataSystem high = dataSystem(args, rows, 2 * k + kLanes);
    for (int plane = kA11; plane <= kB2; ++plane) {
      v_float32 halves[2];
      split(low.values[plane], high.values[plane], halves);
      for (int odd = 0; odd < 2; ++odd) v_store(rowPlane(args, band, plane, odd) + k, halves[odd]);
    }
  }
}

constexpr int kReach = 2;  // of one derivative, in rows

/// Fills `Band::row` for row y. Rows are asked for one after the other; `first` is the first one.
void prepareRow(const RefineArgs& args, const Band& band, int from, int first, int y) {
  // The rows below need one new row each, the first one all around it.
  for (int row = y == first ? maxOf(y - 2 * kReach, 0) : y + 2 * kReach; row <= y + 2 * kReach;
       ++row) {
    if (row < args.h) warpRow(args, band, from, row);
    const int derived = row - kReach;
    if (derived >= maxOf(first - kReach, 0) && derived < args.h) {
      firstDerivatives(args, band, derived);
    }
  }
  if (y == first && y > 0) edgeRow(args, band, y - 1);
  edgeRow(args, band, y);
  dataRow(args, band, y);
}

// One iteration. Systems are built shortly before their first half sweep and live in a ring of rows
// until their last one: they never leave the cache.

/// Half rows of the ring. The unknowns of the halo are here, those of the band in `flow`. A system
/// lies together vector by vector, in the order of SystemValue.
enum SolverPlane { kHaloU, kHaloV, kRobust, kSystem };
/// A pixel's linear system M (b + sum of weight * neighbour): M b, and M, which is omega times the
/// inverse of the 2 x 2 matrix; and the weights of its edges, 0 where there is none.
enum SystemValue { kC1, kC2, kM11, kM12, kM22, kLeft, kRight, kUp, kDown, kSystemValues };
static_assert(kSolverHalves == 2 * kSystem + 2 * kSystemValues, "");

/// Unknowns of `kLanes` pixels.
struct Pixels {
  v_float32 u, v;
};

/// A half row of them. v lies equally far after u in all.
struct PixelRow {
  Pixels at(std::ptrdiff_t k) const { return {vx_load(u + k), vx_load(u + v_distance + k)}; }
  void put(std::ptrdiff_t k, const Pixels& pixels) const {
    v_store(u + k, pixels.u);
    v_store(u + v_distance + k, pixels.v);
  }
  float* u;
  std::ptrdiff_t v_distance;
  float* robust;
};

/// Rows of an iteration that reads `flow[from]` and ends in the other one.
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
  const v_float32 epsilon = vx_setall_f32(kSmoothEpsilonSquared);
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
  v_float32 values[kSystemValues];
};

inline System loadSystem(const float* at) {
  System system{};
  for (int i = 0; i < kSystemValues; ++i) system.values[i] = vx_load(at + i * kVector);
  return system;
}

/// One step of over-relaxation.
inline Pixels relaxed(const System& system, const v_float32& keep, const Pixels& own,
                      const Pixels& left, const Pixels& right, const Pixels& up,
                      const Pixels& down) {
  const v_float32* const s = system.values;
  const v_float32 sum_u =
      v_fma(s[kLeft], left.u, s[kRight] * right.u) + v_fma(s[kUp], up.u, s[kDown] * down.u);
  const v_float32 sum_v =
      v_fma(s[kLeft], left.v, s[kRight] * right.v) + v_fma(s[kUp], up.v, s[kDown] * down.v);
  const v_float32 next_u = v_fma(s[kM11], sum_u, v_fma(keep, own.u, s[kC1]));
  const v_float32 next_v = v_fma(s[kM22], sum_v, v_fma(keep, own.v, s[kC2]));
  return {next_u - s[kM12] * sum_v, next_v - s[kM12] * sum_u};
}

/// What the systems of one colour of a row are made from.
struct SystemSource {
  SystemSource(const SolverRows& rows, int y, int colour)
      : odd(firstX(y, colour)),
        exists(rows.args.exists[odd]),
        own(rows.given(colour, y)),
        side(rows.given(1 - colour, y)),
        above(rows.given(1 - colour, y - 1)),
        below(rows.given(1 - colour, y + 1)),
        edges{rowPlane(rows.args, rows.band, kEdgeRight, 1 - odd) - 1 + odd,
              rowPlane(rows.args, rows.band, kEdgeRight, odd),
              // What lies above the first row is zero, which is a weight as good as any.
              edgesDown(rows.args, rows.band, y - 1, odd), edgesDown(rows.args, rows.band, y, odd)},
        has_above(y > 0 ? 1.0F : 0.0F) {
    for (int plane = kA11; plane <= kB2; ++plane) {
      data[plane] = rowPlane(rows.args, rows.band, plane, odd);
    }
  }
  int odd;
  const float* exists;
  PixelRow own, side, above, below;
  const float* edges[4];  // to the left, right, up, down
  float has_above;
  const float* data[5] = {};
};

inline System systemAt(const RefineArgs& args, const SystemSource& from, const Pixels& own,
                       std::ptrdiff_t k) {
  const v_float32 pull = vx_setall_f32(args.pull);
  const v_float32 robust = vx_load(from.own.robust + k);
  const auto edge = [&](int i, const float* other) {
    return vx_load(from.edges[i] + k) * (robust + vx_load(other));
  };
  System out{};
  v_float32* const s = out.values;
  s[kLeft] = edge(0, from.side.robust + k - 1 + from.odd);
  s[kRight] = edge(1, from.side.robust + k + from.odd);
  s[kUp] = edge(2, from.above.robust + k) * vx_setall_f32(from.has_above);
  s[kDown] = edge(3, from.below.robust + k);
  const v_float32 smooth = (s[kLeft] + s[kRight]) + (s[kUp] + s[kDown]) + pull;
  const v_float32 a11 = vx_load(from.data[kA11] + k);
  const v_float32 a12 = vx_load(from.data[kA12] + k);
  const v_float32 a22 = vx_load(from.data[kA22] + k);
  // The data term is about increments, the system about the flow.
  const v_float32 b1 = v_fma(a11 + pull, own.u, v_fma(a12, own.v, vx_load(from.data[kB1] + k)));
  const v_float32 b2 = v_fma(a22 + pull, own.v, v_fma(a12, own.u, vx_load(from.data[kB2] + k)));
  // det = S^2 + S (A11 + A22) + (A11 A22 - A12^2): no cancellation against S, and the last
  // term is not negative but for rounding. Nothing beside the row may change: it is read.
  const v_float32 data_det = v_max(a11 * a22 - a12 * a12, vx_setzero_f32());
  const v_float32 inverse = vx_load(from.exists + k) * vx_setall_f32(args.omega) /
                            v_fma(smooth, smooth + (a11 + a22), data_det);
  s[kM11] = (a22 + smooth) * inverse;
  s[kM12] = a12 * inverse;
  s[kM22] = (a11 + smooth) * inverse;
  s[kC1] = s[kM11] * b1 - s[kM12] * b2;
  s[kC2] = s[kM22] * b2 - s[kM12] * b1;
  return out;
}

/// The linear systems of a row, and the first half sweep of its red pixels, whose neighbours are
/// still as the iteration found them.
void systemRow(const SolverRows& rows, int y) {
  const RefineArgs& args = rows.args;
  const v_float32 keep = vx_setall_f32(1.0F - args.omega);
  for (int colour = 0; colour < 2; ++colour) {
    const SystemSource from(rows, y, colour);
    const PixelRow out_row = rows.current(colour, y);
    float* out = rows.ring(kSystem, colour, y);
    for (std::ptrdiff_t k = 0; k < halfCount(args); k += kLanes, out += kSystemValues * kVector) {
      const Pixels own = from.own.at(k);
      const System system = systemAt(args, from, own, k);
      for (int i = 0; i < kSystemValues; ++i) v_store(out + i * kVector, system.values[i]);
      if (colour != 0) continue;
      out_row.put(k, relaxed(system, keep, own, from.side.at(k - 1 + from.odd),
                             from.side.at(k + from.odd), from.above.at(k), from.below.at(k)));
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
      prepareRow(args, band, rows.from, first, y);
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
