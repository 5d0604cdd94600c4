// The kernels as one plain loop per rule. They are what the other sets are compared with and
// measured against; no processor needs them.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "flow_kernels.h"

namespace cv::optflow::lum::kernels {
namespace {

float lerp(float a, float b, float t) { return (1 - t) * a + t * b; }

void structureTensor(const SearchArgs& args, int begin, int end, std::int32_t* /*scratch*/) {
  for (int is = begin; is < end; ++is) {
    for (int js = 0; js < args.ws; ++js) {
      std::int64_t xx = 0, yy = 0, xy = 0, x = 0, y = 0;
      for (int row = is * args.patch_stride; row < is * args.patch_stride + args.patch_size;
           ++row) {
        const std::ptrdiff_t at = row * args.grad_stride + std::ptrdiff_t{js} * args.patch_stride;
        for (std::ptrdiff_t i = at; i < at + args.patch_size; ++i) {
          xx += std::int64_t{args.ix[i]} * args.ix[i];
          yy += std::int64_t{args.iy[i]} * args.iy[i];
          xy += std::int64_t{args.ix[i]} * args.iy[i];
          x += args.ix[i];
          y += args.iy[i];
        }
      }
      const std::ptrdiff_t at = std::ptrdiff_t{is} * args.ws + js;
      args.xx[at] = static_cast<float>(xx);
      args.yy[at] = static_cast<float>(yy);
      args.xy[at] = static_cast<float>(xy);
      args.x[at] = static_cast<float>(x);
      args.y[at] = static_cast<float>(y);
    }
  }
}

struct PatchError {
  float error, gradient_x, gradient_y;
};

PatchError patchError(const SearchArgs& args, int is, int js, float u, float v) {
  const int left = js * args.patch_stride;
  const int top = is * args.patch_stride;
  const auto border = static_cast<float>(args.border);
  const auto low = static_cast<float>(args.border - args.patch_size + 1);
  const float x = std::min(std::max(static_cast<float>(left) + u + border, low),
                           static_cast<float>(args.border + args.w - 1));
  const float y = std::min(std::max(static_cast<float>(top) + v + border, low),
                           static_cast<float>(args.border + args.h - 1));
  const int xi = static_cast<int>(x);
  const int yi = static_cast<int>(y);
  const float dx = x - static_cast<float>(xi);
  const float dy = y - static_cast<float>(yi);
  const float weights[4] = {(1 - dx) * (1 - dy), dx * (1 - dy), (1 - dx) * dy, dx * dy};
  float sum = 0, squares = 0, gx = 0, gy = 0;
  for (int row = 0; row < args.patch_size; ++row) {
    const std::uint8_t* const i0 = args.i0 + (top + row) * args.i0_stride + left;
    const std::uint8_t* const above = args.i1_ext + (yi + row) * args.i1_ext_stride + xi;
    const std::uint8_t* const below = above + args.i1_ext_stride;
    const std::ptrdiff_t gradient = (top + row) * args.grad_stride + left;
    for (int i = 0; i < args.patch_size; ++i) {
      const float d = weights[0] * above[i] + weights[1] * above[i + 1] + weights[2] * below[i] +
                      weights[3] * below[i + 1] - i0[i];
      sum += d;
      squares += d * d;
      gx += d * args.ix[gradient + i];
      gy += d * args.iy[gradient + i];
    }
  }
  if (!args.mean_normalization) return {squares, gx, gy};
  const std::ptrdiff_t at = std::ptrdiff_t{is} * args.ws + js;
  const auto count = static_cast<float>(args.patch_size * args.patch_size);
  return {squares - sum * sum / count, gx - sum * args.x[at] / count,
          gy - sum * args.y[at] / count};
}

/// Gradient descent from (u, v), at most a patch's size far.
void descend(const SearchArgs& args, int is, int js, float& u, float& v) {
  const std::ptrdiff_t at = std::ptrdiff_t{is} * args.ws + js;
  const double xx = args.xx[at], yy = args.yy[at], xy = args.xy[at];
  const double determinant = std::max(xx * yy - xy * xy, 0.001);
  float moved_u = u;
  float moved_v = v;
  float previous = 1e10F;
  for (int i = 0; i < args.inner_iterations; ++i) {
    const PatchError now = patchError(args, is, js, moved_u, moved_v);
    moved_u -= static_cast<float>((yy * now.gradient_x - xy * now.gradient_y) / determinant);
    moved_v -= static_cast<float>((xx * now.gradient_y - xy * now.gradient_x) / determinant);
    if (now.error >= previous) break;  // after the step, which is kept
    previous = now.error;
  }
  if (std::hypot(moved_u - u, moved_v - v) > static_cast<float>(args.patch_size)) return;
  u = moved_u;
  v = moved_v;
}

void search(const SearchArgs& args, int begin, int end) {
  for (int pass = 0; pass < args.passes; ++pass) {
    const int step = pass % 2 == 0 ? 1 : -1;
    for (int is = step > 0 ? begin : end - 1; is >= begin && is < end; is += step) {
      for (int js = step > 0 ? 0 : args.ws - 1; js >= 0 && js < args.ws; js += step) {
        const std::ptrdiff_t at = std::ptrdiff_t{is} * args.ws + js;
        const int x = js * args.patch_stride + args.patch_size / 2;
        const int y = is * args.patch_stride + args.patch_size / 2;
        float& u = args.sx[at];
        float& v = args.sy[at];
        if (pass == 0) {
          u = args.ux[y * args.u_stride + x];
          v = args.uy[y * args.u_stride + x];
        }
        float best = patchError(args, is, js, u, v).error;
        const auto tryFlow = [&](float other_u, float other_v) {
          if (!(std::abs(other_u) <= 1e9F && std::abs(other_v) <= 1e9F)) return;
          const float error = patchError(args, is, js, other_u, other_v).error;
          if (!(error < best)) return;
          best = error;
          u = other_u;
          v = other_v;
        };
        if (args.initial_ux != nullptr) {
          const std::ptrdiff_t place = y * args.initial_stride + x;
          tryFlow(args.initial_ux[place], args.initial_uy[place]);
        }
        const std::ptrdiff_t beside = at - step;
        const std::ptrdiff_t above = at - std::ptrdiff_t{step} * args.ws;
        const bool propagate = args.spatial_propagation;
        if (propagate && js - step >= 0 && js - step < args.ws) {
          tryFlow(args.sx[beside], args.sy[beside]);
        }
        if (propagate && is - step >= begin && is - step < end) {
          tryFlow(args.sx[above], args.sy[above]);
        }
        descend(args, is, js, u, v);
      }
    }
  }
}

/// The patch row or column whose centre is nearest, the lower one of two.
int nearestPatch(int x, int count, const SearchArgs& args) {
  const auto gap = [&](int i) {
    return std::abs(2 * (x - i * args.patch_stride) - (args.patch_size - 1));
  };
  int best = 0;
  for (int i = 1; i < count; ++i) best = gap(i) < gap(best) ? i : best;
  return best;
}

/// The second image between its pixels; beyond the last one it repeats.
float between(const SearchArgs& args, float x, float y) {
  const int xi = static_cast<int>(x);
  const int yi = static_cast<int>(y);
  const std::uint8_t* const above = args.i1 + yi * args.i1_stride;
  const std::uint8_t* const below = args.i1 + std::min(yi + 1, args.h - 1) * args.i1_stride;
  const int right = std::min(xi + 1, args.w - 1);
  const float dx = x - static_cast<float>(xi);
  return lerp(lerp(above[xi], above[right], dx), lerp(below[xi], below[right], dx),
              y - static_cast<float>(yi));
}

void densify(const SearchArgs& args, int begin, int end) {
  const float high_x = std::max(0.0F, static_cast<float>(args.w) - 1 - 0.001F);
  const float high_y = std::max(0.0F, static_cast<float>(args.h) - 1 - 0.001F);
  const auto first = [&](int x) {
    return std::max(0, (x - args.patch_size + args.patch_stride) / args.patch_stride);
  };
  for (int y = begin; y < end; ++y) {
    for (int x = 0; x < args.w; ++x) {
      float weights = 0, sum_u = 0, sum_v = 0;
      for (int is = first(y); is < args.hs && is * args.patch_stride <= y; ++is) {
        for (int js = first(x); js < args.ws && js * args.patch_stride <= x; ++js) {
          const std::ptrdiff_t at = std::ptrdiff_t{is} * args.ws + js;
          const float sample_x = std::clamp(static_cast<float>(x) + args.sx[at], 0.0F, high_x);
          const float sample_y = std::clamp(static_cast<float>(y) + args.sy[at], 0.0F, high_y);
          const float d = between(args, sample_x, sample_y) -
                          static_cast<float>(args.i0[y * args.i0_stride + x]);
          const float weight = 1.0F / std::max(std::abs(d), 1.0F);
          weights += weight;
          sum_u += weight * args.sx[at];
          sum_v += weight * args.sy[at];
        }
      }
      const std::ptrdiff_t pixel = y * args.u_stride + x;
      args.ux[pixel] = sum_u / weights;
      args.uy[pixel] = sum_v / weights;
      if (weights > 0) continue;
      const std::ptrdiff_t nearest =
          std::ptrdiff_t{nearestPatch(y, args.hs, args)} * args.ws + nearestPatch(x, args.ws, args);
      args.ux[pixel] = args.sx[nearest];
      args.uy[pixel] = args.sy[nearest];
    }
  }
}

void resize(const ResizeArgs& args, int begin, int end, float* /*scratch*/) {
  for (int y = begin; y < end; ++y) {
    const auto position = static_cast<float>((y + 0.5) * args.scale_y - 0.5);
    const int row = static_cast<int>(std::floor(position));
    const std::ptrdiff_t rows[2] = {std::clamp(row, 0, args.source_height - 1),
                                    std::clamp(row + 1, 0, args.source_height - 1)};
    for (int part = 0; part < 2; ++part) {
      const bool interleaved = args.out[1] == nullptr;
      float* const out = interleaved ? args.out[0] + y * args.out_stride[0] + part
                                     : args.out[part] + y * args.out_stride[part];
      for (std::ptrdiff_t x = 0; x < args.width; ++x) {
        float ends[2];
        for (int i = 0; i < 2; ++i) {
          const float* const p =
              args.source[part] + rows[i] * args.source_stride[part] + args.columns[x];
          ends[i] = lerp(p[0], p[1], args.fractions[x]);
        }
        out[interleaved ? 2 * x : x] =
            lerp(ends[0], ends[1], position - static_cast<float>(row)) * args.factor;
      }
    }
  }
}

float& flowAt(const RefineArgs& args, int buffer, FlowPlane plane, int x, int y) {
  const std::ptrdiff_t half =
      std::ptrdiff_t{y} * kFlowHalves + std::ptrdiff_t{2} * plane + ((x + y) & 1);
  return args.flow[buffer][half * args.half_stride + x / 2];
}

/// The weight of the edge between two pixels of the first image.
float edgeWeight(const RefineArgs& args, int x0, int y0, int x1, int y1) {
  const int step = args.i0[y0 * args.i0_stride + x0] - args.i0[y1 * args.i0_stride + x1];
  const float rest = std::max(1.0F - static_cast<float>(std::abs(step)) / kEdgeRange, 0.0F);
  return kLeastEdge + (1.0F - kLeastEdge) * std::pow(rest, 8.0F);
}

void beginRefinement(const RefineArgs& args, const Band& band) {
  for (int y = band.begin; y < band.end; ++y) {
    args.edge_sums[y] = 0.0;
    for (int x = 0; x < args.w; ++x) {
      const float u = args.u[y * args.u_stride + x];
      const float v = args.v[y * args.v_stride + x];
      flowAt(args, 0, kFlowU, x, y) = std::abs(u) <= 1e9F ? u : 0.0F;
      flowAt(args, 0, kFlowV, x, y) = std::abs(v) <= 1e9F ? v : 0.0F;
      if (x + 1 < args.w) args.edge_sums[y] += edgeWeight(args, x, y, x + 1, y);
      if (y + 1 < args.h) args.edge_sums[y] += edgeWeight(args, x, y, x, y + 1);
    }
  }
}

/// One iteration on a band and a margin around it, as deep as information travels; what lies beyond
/// is as if the image ended there.
class Iteration {
 public:
  Iteration(const RefineArgs& args, int top, int bottom, int from)
      : args_(args), top_(top), rows_(bottom - top), pixels_(at(0, bottom)) {
    for (int y = top; y < bottom; ++y) {
      for (int x = 0; x < args.w; ++x) {
        pixel(x, y).u = flowAt(args, from, kFlowU, x, y);
        pixel(x, y).v = flowAt(args, from, kFlowV, x, y);
      }
    }
    eachPixel([&](int x, int y) { warp(x, y); });
    eachPixel([&](int x, int y) {
      pixel(x, y).mean_x = derivative(&Pixel::mean, x, y, 1, 0);
      pixel(x, y).mean_y = derivative(&Pixel::mean, x, y, 0, 1);
    });
    eachPixel([&](int x, int y) { prepare(x, y); });
  }

  /// One colour of a sweep.
  void halfSweep(int colour) {
    eachPixel([&](int x, int y) {
      if (((x + y) & 1) == colour) relax(x, y);
    });
  }

  float value(FlowPlane plane, int x, int y) {
    return plane == kFlowU ? pixel(x, y).u : pixel(x, y).v;
  }

 private:
  struct Pixel {
    float u, v, edge_right, edge_down, mean, diff, mean_x, mean_y, robust;
    bool inside;
    float a11, a12, a22, b1, b2;
  };

  std::size_t at(int x, int y) const {
    return static_cast<std::size_t>(y - top_) * static_cast<std::size_t>(args_.w) +
           static_cast<std::size_t>(x);
  }
  Pixel& pixel(int x, int y) { return pixels_[at(x, y)]; }

  template <typename Body>
  void eachPixel(const Body& body) {
    for (int y = top_; y < top_ + rows_; ++y) {
      for (int x = 0; x < args_.w; ++x) body(x, y);
    }
  }
  /// Calls `body(neighbour, weight of the edge to it)` for the neighbours of a pixel.
  template <typename Body>
  void eachNeighbour(int x, int y, const Body& body) {
    const Pixel& own = pixel(x, y);
    if (x > 0) body(pixel(x - 1, y), pixel(x - 1, y).edge_right);
    if (x + 1 < args_.w) body(pixel(x + 1, y), own.edge_right);
    if (y > top_) body(pixel(x, y - 1), pixel(x, y - 1).edge_down);
    if (y + 1 < top_ + rows_) body(pixel(x, y + 1), own.edge_down);
  }

  static std::array<float, 4> cubicWeights(float t) {
    return {-0.5F * t + t * t - 0.5F * t * t * t, 1 - 2.5F * t * t + 1.5F * t * t * t,
            0.5F * t + 2 * t * t - 1.5F * t * t * t, -0.5F * t * t + 0.5F * t * t * t};
  }

  void warp(int x, int y) {
    Pixel& p = pixel(x, y);
    const float px = static_cast<float>(x) + p.u;
    const float py = static_cast<float>(y) + p.v;
    const auto high_x = static_cast<float>(args_.w - 1);
    const auto high_y = static_cast<float>(args_.h - 1);
    p.inside = px >= 0 && py >= 0 && px <= high_x && py <= high_y;
    const float cx = std::clamp(px, 0.0F, high_x);
    const float cy = std::clamp(py, 0.0F, high_y);
    const int xi = static_cast<int>(cx);
    const int yi = static_cast<int>(cy);
    const std::array<float, 4> across = cubicWeights(cx - static_cast<float>(xi));
    const std::array<float, 4> down = cubicWeights(cy - static_cast<float>(yi));
    float warped = 0;
    for (int row = 0; row < 4; ++row) {
      for (int i = 0; i < 4; ++i) {
        warped += down[static_cast<std::size_t>(row)] * across[static_cast<std::size_t>(i)] *
                  args_.second[(yi + row) * args_.second_stride + xi + i];
      }
    }
    const auto first = static_cast<float>(args_.i0[y * args_.i0_stride + x]);
    p.mean = 0.5F * (first + warped);
    p.diff = warped - first;
    if (x + 1 < args_.w) p.edge_right = edgeWeight(args_, x, y, x + 1, y);
    if (y + 1 < args_.h) p.edge_down = edgeWeight(args_, x, y, x, y + 1);
  }

  float derivative(float Pixel::*plane, int x, int y, int along_x, int along_y) {
    const auto value = [&](int i) {
      return pixel(std::clamp(x + i * along_x, 0, args_.w - 1),
                   std::clamp(y + i * along_y, top_, top_ + rows_ - 1)).*
             plane;
    };
    return (8 * (value(1) - value(-1)) - (value(2) - value(-2))) / 12;
  }

  /// Data term and robust weights of a pixel.
  void prepare(int x, int y) {
    Pixel& p = pixel(x, y);
    const float mixed = derivative(&Pixel::mean_x, x, y, 0, 1);
    const float terms[3][3] = {
        {p.mean_x, p.mean_y, p.diff},
        {derivative(&Pixel::mean_x, x, y, 1, 0), mixed, derivative(&Pixel::diff, x, y, 1, 0)},
        {mixed, derivative(&Pixel::mean_y, x, y, 0, 1), derivative(&Pixel::diff, x, y, 0, 1)}};
    float scales[3];
    float squares[3];
    for (int i = 0; i < 3; ++i) {
      const float* const t = terms[i];
      scales[i] = p.inside ? 1 / (t[0] * t[0] + t[1] * t[1] + t[2] * t[2] + kZetaSquared) : 0.0F;
      squares[i] = t[2] * t[2] * scales[i];
    }
    const float colour = args_.delta / std::sqrt(squares[0] + kDataEpsilonSquared);
    const float gradient = args_.gamma / std::sqrt(squares[1] + squares[2] + kDataEpsilonSquared);
    p.a11 = p.a22 = args_.pull;
    p.a12 = p.b1 = p.b2 = 0;
    for (int i = 0; i < 3; ++i) {
      const float* const t = terms[i];
      const float weight = scales[i] * (i == 0 ? colour : gradient);
      p.a11 += weight * t[0] * t[0];
      p.a12 += weight * t[0] * t[1];
      p.a22 += weight * t[1] * t[1];
      p.b1 -= weight * t[0] * t[2];
      p.b2 -= weight * t[1] * t[2];
    }
    p.b1 += p.a11 * p.u + p.a12 * p.v;
    p.b2 += p.a12 * p.u + p.a22 * p.v;
    float squared = 0;
    eachNeighbour(x, y, [&](const Pixel& other, float /*edge*/) {
      squared += 0.5F * ((other.u - p.u) * (other.u - p.u) + (other.v - p.v) * (other.v - p.v));
    });
    p.robust = 0.5F * args_.alpha / std::sqrt(squared + kSmoothEpsilonSquared);
  }

  void relax(int x, int y) {
    Pixel& p = pixel(x, y);
    float a11 = p.a11, a22 = p.a22, b1 = p.b1, b2 = p.b2;
    eachNeighbour(x, y, [&](const Pixel& other, float edge) {
      const float weight = edge * (p.robust + other.robust);
      a11 += weight;
      a22 += weight;
      b1 += weight * other.u;
      b2 += weight * other.v;
    });
    const float determinant = a11 * a22 - p.a12 * p.a12;
    p.u += args_.omega * ((a22 * b1 - p.a12 * b2) / determinant - p.u);
    p.v += args_.omega * ((a11 * b2 - p.a12 * b1) / determinant - p.v);
  }

  const RefineArgs& args_;
  int top_, rows_;
  std::vector<Pixel> pixels_;
};

void solve(const RefineArgs& args, const Band& band, int iteration, bool last) {
  constexpr int kDerivatives = 2 * 2;
  const int margin = args.half_sweeps + kDerivatives + 1;
  const int from = iteration % 2;
  Iteration now(args, std::max(band.begin - margin, 0), std::min(band.end + margin, args.h), from);
  for (int i = 0; i < args.half_sweeps; ++i) now.halfSweep(i & 1);
  for (int y = band.begin; y < band.end; ++y) {
    for (int x = 0; x < args.w; ++x) {
      for (const FlowPlane plane : {kFlowU, kFlowV}) {
        flowAt(args, 1 - from, plane, x, y) = now.value(plane, x, y);
      }
      if (!last) continue;
      args.u[y * args.u_stride + x] = now.value(kFlowU, x, y);
      args.v[y * args.v_stride + x] = now.value(kFlowV, x, y);
    }
  }
}

}  // namespace

const Kernels kPlainKernels = {"plain", structureTensor, search, densify,
                               resize,  beginRefinement, solve};

}  // namespace cv::optflow::lum::kernels
