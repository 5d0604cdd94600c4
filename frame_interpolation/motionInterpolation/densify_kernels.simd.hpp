// Densification: a part of flow_kernels.simd.hpp.

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

/// A patch, its flow, and the rows of it that a stripe covers.
struct DensePatch {
  int left, top, row_begin, row_end;
  float u, v;
};

/// A patch whose samples all lie between four pixels: one set of fractions holds for all.
void addInside(const SearchArgs& args, const DensePatch& patch, int xi, int yi, float dx,
               float dy) {
  const v_float32 vdx = vx_setall_f32(dx);
  const v_float32 vdy = vx_setall_f32(dy);
  int i = 0;
  for (; i <= args.patch_size - kLanes; i += kLanes) {
    const std::uint8_t* p = args.i1 + (yi + patch.row_begin - patch.top) * args.i1_stride + xi + i;
    v_float32 above = lerp(loadFloats(p), loadFloats(p + 1), vdx);
    for (int row = patch.row_begin; row < patch.row_end; ++row) {
      p += args.i1_stride;
      const v_float32 below = lerp(loadFloats(p), loadFloats(p + 1), vdx);
      const std::ptrdiff_t pixel = row * args.u_stride + patch.left + i;
      addWeighted(lerp(above, below, vdy), args.i0 + row * args.i0_stride + patch.left + i, patch.u,
                  patch.v,
                  args.weight_sums + static_cast<std::ptrdiff_t>(row) * args.w + patch.left + i,
                  args.ux + pixel, args.uy + pixel);
      above = below;
    }
  }
  for (; i < args.patch_size; ++i) {
    for (int row = patch.row_begin; row < patch.row_end; ++row) {
      const std::uint8_t* p = args.i1 + (yi + row - patch.top) * args.i1_stride + xi + i;
      const float above = lerp(p[0], p[1], dx);
      const float below = lerp(p[args.i1_stride], p[args.i1_stride + 1], dx);
      const std::ptrdiff_t pixel = row * args.u_stride + patch.left + i;
      addWeighted(lerp(above, below, dy), args.i0[row * args.i0_stride + patch.left + i], patch.u,
                  patch.v,
                  args.weight_sums[static_cast<std::ptrdiff_t>(row) * args.w + patch.left + i],
                  args.ux[pixel], args.uy[pixel]);
    }
  }
}

/// A patch with samples at the border, each clamped by itself.
void addClamped(const SearchArgs& args, const DensePatch& patch, float high_x, float high_y) {
  const int size = args.patch_size;
  int columns[kMaxPatch];
  float fractions[kMaxPatch];
  for (int i = 0; i < size; ++i) {
    const float column = clampOf(static_cast<float>(patch.left + i) + patch.u, 0.0F, high_x);
    columns[i] = static_cast<int>(column);
    fractions[i] = column - static_cast<float>(columns[i]);
  }
  // A side of one pixel clamps to 0 with nothing beside it.
  const int right = args.w > 1 ? 1 : 0;
  const std::ptrdiff_t below = args.h > 1 ? args.i1_stride : 0;
  for (int row = patch.row_begin; row < patch.row_end; ++row) {
    const float sample_y = clampOf(static_cast<float>(row) + patch.v, 0.0F, high_y);
    const int sample_row = static_cast<int>(sample_y);
    const float dy = sample_y - static_cast<float>(sample_row);
    float second[kMaxPatch];
    for (int i = 0; i < size; ++i) {
      const std::uint8_t* p = args.i1 + sample_row * args.i1_stride + columns[i];
      second[i] = lerp(lerp(p[0], p[right], fractions[i]),
                       lerp(p[below], p[below + right], fractions[i]), dy);
    }
    const std::uint8_t* i0 = args.i0 + row * args.i0_stride + patch.left;
    float* weights = args.weight_sums + static_cast<std::ptrdiff_t>(row) * args.w + patch.left;
    float* ux = args.ux + row * args.u_stride + patch.left;
    float* uy = args.uy + row * args.u_stride + patch.left;
    int i = 0;
    for (; i <= size - kLanes; i += kLanes) {
      addWeighted(vx_load(second + i), i0 + i, patch.u, patch.v, weights + i, ux + i, uy + i);
    }
    for (; i < size; ++i) {
      addWeighted(second[i], i0[i], patch.u, patch.v, weights[i], ux[i], uy[i]);
    }
  }
}

void addPatch(const SearchArgs& args, const DensePatch& patch) {
  const int size = args.patch_size;
  const float high_x = static_cast<float>(args.w) - 1.0F - 0.001F;
  const float high_y = static_cast<float>(args.h) - 1.0F - 0.001F;
  const float x = static_cast<float>(patch.left) + patch.u;
  const float y = static_cast<float>(patch.top) + patch.v;
  // Not `>=` alone: a flow that is not a number takes the clamped path.
  const bool inside = x >= 0.0F && y >= 0.0F && x + static_cast<float>(size - 1) <= high_x &&
                      y + static_cast<float>(size - 1) <= high_y;
  const int xi = inside ? static_cast<int>(x) : 0;
  const int yi = inside ? static_cast<int>(y) : 0;
  if (inside && xi + size <= args.w - 1 && yi + size <= args.h - 1) {
    addInside(args, patch, xi, yi, x - static_cast<float>(xi), y - static_cast<float>(yi));
  } else {
    addClamped(args, patch, high_x, high_y);
  }
}

/// Means from the sums of a row; pixels under no patch take the flow of the nearest one.
void finishDenseRow(const SearchArgs& args, int y) {
  const int size = args.patch_size;
  const int stride = args.patch_stride;
  const int covered = (args.ws - 1) * stride + size;  // columns left of it may be covered
  const float* weights = args.weight_sums + static_cast<std::ptrdiff_t>(y) * args.w;
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
  for (; x < args.w; ++x) {
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

void densify(const SearchArgs& args, int begin, int end) {
  for (int y = begin; y < end; ++y) {
    float* weights = args.weight_sums + static_cast<std::ptrdiff_t>(y) * args.w;
    float* ux = args.ux + y * args.u_stride;
    float* uy = args.uy + y * args.u_stride;
    for (int x = 0; x < args.w; ++x) weights[x] = ux[x] = uy[x] = 0.0F;
  }
  // All pixels of a patch move alike, so going by patches makes the interpolation's weights
  // constant. Each pixel still meets its patches row by row, left to right, whatever the stripe.
  const int size = args.patch_size;
  const int stride = args.patch_stride;
  for (int is = maxOf(0, (begin - size + stride) / stride); is < args.hs && is * stride < end;
       ++is) {
    const int top = is * stride;
    for (int js = 0; js < args.ws; ++js) {
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(is) * args.ws + js;
      addPatch(args, {js * stride, top, maxOf(top, begin), minOf(top + size, end), args.sx[at],
                      args.sy[at]});
    }
  }
  for (int y = begin; y < end; ++y) finishDenseRow(args, y);
}
