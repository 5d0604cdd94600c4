// Bilinear scaling of a flow: a part of flow_kernels.simd.hpp.

/// A row of the source, interpolated along x.
void stretchRow(const ResizeArgs& args, const float* source, float* out) {
  int x = 0;
  for (; x <= args.width - kLanes; x += kLanes) {
    v_float32 left;
    v_float32 right;
    v_lut_deinterleave(source, vx_load(args.columns + x), left, right);
    v_store(out + x, lerp(left, right, vx_load(args.fractions + x)));
  }
  for (; x < args.width; ++x) {
    const float* const p = source + args.columns[x];
    out[x] = lerp(p[0], p[1], args.fractions[x]);
  }
}

/// The row between two, of both components.
void mixRows(const ResizeArgs& args, const float* const (&above)[2], const float* const (&below)[2],
             float fraction, int y) {
  // The factor is a power of two: the same wherever it is applied.
  const float weights[2] = {(1.0F - fraction) * args.factor, fraction * args.factor};
  const v_float32 upper = vx_setall_f32(weights[0]);
  const v_float32 lower = vx_setall_f32(weights[1]);
  const auto mixed = [&](int part, int x) {
    return v_fma(vx_load(below[part] + x), lower, vx_load(above[part] + x) * upper);
  };
  const auto mixedOne = [&](int part, int x) {
    return above[part][x] * weights[0] + below[part][x] * weights[1];
  };
  float* const out = args.out[0] + y * args.out_stride[0];
  int x = 0;
  if (args.out[1] == nullptr) {
    for (; x <= args.width - kLanes; x += kLanes) {
      v_store_interleave(out + 2 * static_cast<std::ptrdiff_t>(x), mixed(0, x), mixed(1, x));
    }
    for (; x < args.width; ++x) {
      for (int part = 0; part < 2; ++part) {
        out[2 * static_cast<std::ptrdiff_t>(x) + part] = mixedOne(part, x);
      }
    }
    return;
  }
  float* const other = args.out[1] + y * args.out_stride[1];
  for (; x <= args.width - kLanes; x += kLanes) {
    v_store(out + x, mixed(0, x));
    v_store(other + x, mixed(1, x));
  }
  for (; x < args.width; ++x) {
    out[x] = mixedOne(0, x);
    other[x] = mixedOne(1, x);
  }
}

void resize(const ResizeArgs& args, int begin, int end, float* scratch) {
  // The last two source rows, stretched.
  float* held[2][2] = {{scratch, scratch + args.width},
                       {scratch + 2 * static_cast<std::ptrdiff_t>(args.width),
                        scratch + 3 * static_cast<std::ptrdiff_t>(args.width)}};
  int held_row[2] = {-1, -1};
  for (int y = begin; y < end; ++y) {
    const float position = static_cast<float>((y + 0.5) * args.scale_y - 0.5);
    int row = static_cast<int>(position);
    if (static_cast<float>(row) > position) --row;
    const int wanted[2] = {minOf(maxOf(row, 0), args.source_height - 1),
                           minOf(maxOf(row + 1, 0), args.source_height - 1)};
    if (held_row[1] == wanted[0]) {
      for (int part = 0; part < 2; ++part) {
        float* const row_above = held[1][part];
        held[1][part] = held[0][part];
        held[0][part] = row_above;
      }
      held_row[0] = wanted[0];
      held_row[1] = -1;
    }
    for (int i = 0; i < 2; ++i) {
      if (held_row[i] == wanted[i]) continue;
      held_row[i] = wanted[i];
      for (int part = 0; part < 2; ++part) {
        stretchRow(args, args.source[part] + wanted[i] * args.source_stride[part], held[i][part]);
      }
    }
    mixRows(args, {held[0][0], held[0][1]}, {held[1][0], held[1][1]},
            position - static_cast<float>(row), y);
  }
}
