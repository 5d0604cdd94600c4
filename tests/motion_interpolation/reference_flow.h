#pragma once

/// Plain scalar versions of patch search, densification and variational refinement, for tests to
/// compare with and benchmarks to measure against. One loop per rule, no shared code with the
/// library.

#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace lum_reference {

struct SearchParams {
  int patch_size = 8;
  int patch_stride = 4;
  int iterations = 16;
  bool mean_normalization = true;
  bool spatial_propagation = true;
};

constexpr int kBorder = 16;

/// The images of one scale; `search` and `densify` read nothing else.
struct Level {
  Level(const cv::Mat& first, const cv::Mat& second) : i0(first), i1(second) {
    cv::copyMakeBorder(i1, i1_ext, kBorder, kBorder, kBorder, kBorder, cv::BORDER_REPLICATE);
    cv::spatialGradient(i0, ix, iy, 3, cv::BORDER_REFLECT_101);
  }
  cv::Mat i0, i1, i1_ext, ix, iy;
};

inline int gridSide(int side, const SearchParams& p) {
  return side < p.patch_size ? 0 : 1 + (side - p.patch_size) / p.patch_stride;
}

struct PatchSums {
  float xx, yy, xy, x, y;
};

inline PatchSums structureTensor(const Level& level, const SearchParams& p, int left, int top) {
  double xx = 0, yy = 0, xy = 0, x = 0, y = 0;
  for (int r = top; r < top + p.patch_size; ++r) {
    const short* gx = level.ix.ptr<short>(r);
    const short* gy = level.iy.ptr<short>(r);
    for (int c = left; c < left + p.patch_size; ++c) {
      xx += gx[c] * gx[c];
      yy += gy[c] * gy[c];
      xy += gx[c] * gy[c];
      x += gx[c];
      y += gy[c];
    }
  }
  return {float(xx), float(yy), float(xy), float(x), float(y)};
}

/// The patch error at flow (u, v); with `gradient`, also the two gradient sums.
inline float patchError(const Level& level, const SearchParams& p, const PatchSums& sums, int left,
                        int top, float u, float v, float* gradient) {
  const float low = float(kBorder - p.patch_size + 1);
  const float x =
      std::min(std::max(float(left) + u + kBorder, low), float(kBorder + level.i0.cols - 1));
  const float y =
      std::min(std::max(float(top) + v + kBorder, low), float(kBorder + level.i0.rows - 1));
  const int xi = int(std::floor(x));
  const int yi = int(std::floor(y));
  const float dx = x - float(xi);
  const float dy = y - float(yi);
  const float w00 = (1 - dx) * (1 - dy), w01 = dx * (1 - dy), w10 = (1 - dx) * dy, w11 = dx * dy;
  float sum = 0, squares = 0, gx = 0, gy = 0;
  for (int r = 0; r < p.patch_size; ++r) {
    const uchar* i0 = level.i0.ptr(top + r) + left;
    const uchar* above = level.i1_ext.ptr(yi + r) + xi;
    const uchar* below = level.i1_ext.ptr(yi + r + 1) + xi;
    const short* ix = level.ix.ptr<short>(top + r) + left;
    const short* iy = level.iy.ptr<short>(top + r) + left;
    for (int c = 0; c < p.patch_size; ++c) {
      const float d =
          w00 * above[c] + w01 * above[c + 1] + w10 * below[c] + w11 * below[c + 1] - i0[c];
      sum += d;
      squares += d * d;
      if (gradient != nullptr) {
        gx += d * ix[c];
        gy += d * iy[c];
      }
    }
  }
  const float count = float(p.patch_size * p.patch_size);
  if (gradient != nullptr) {
    gradient[0] = p.mean_normalization ? gx - sum * sums.x / count : gx;
    gradient[1] = p.mean_normalization ? gy - sum * sums.y / count : gy;
  }
  return p.mean_normalization ? squares - sum * sum / count : squares;
}

/// Patch flows (`CV_32FC2`, one per patch) from the flow handed down and, unless empty, an initial
/// flow, both `CV_32FC2` of the level's size.
inline cv::Mat search(const Level& level, const SearchParams& p, const cv::Mat& flow,
                      const cv::Mat& initial) {
  const int ws = gridSide(level.i0.cols, p);
  const int hs = gridSide(level.i0.rows, p);
  cv::Mat patches(hs, ws, CV_32FC2);
  const int passes = p.spatial_propagation ? 2 : 1;
  const int stripe_rows = p.spatial_propagation ? int(std::ceil(double(hs) * 0.125)) : hs;
  const int half = p.patch_size / 2;
  for (int begin = 0; begin < hs; begin += stripe_rows) {
    const int end = std::min(begin + stripe_rows, hs);
    for (int pass = 0; pass < passes; ++pass) {
      const bool forward = pass % 2 == 0;
      const int step = forward ? 1 : -1;
      for (int is = forward ? begin : end - 1; is >= begin && is < end; is += step) {
        for (int js = forward ? 0 : ws - 1; js >= 0 && js < ws; js += step) {
          const int left = js * p.patch_stride;
          const int top = is * p.patch_stride;
          const PatchSums sums = structureTensor(level, p, left, top);
          cv::Vec2f& own = patches.at<cv::Vec2f>(is, js);
          if (pass == 0) own = flow.at<cv::Vec2f>(top + half, left + half);
          float best = patchError(level, p, sums, left, top, own[0], own[1], nullptr);
          const auto tryFlow = [&](const cv::Vec2f& other) {
            const float error = patchError(level, p, sums, left, top, other[0], other[1], nullptr);
            if (error < best) {
              best = error;
              own = other;
            }
          };
          if (!initial.empty()) tryFlow(initial.at<cv::Vec2f>(top + half, left + half));
          if (p.spatial_propagation) {
            if (js - step >= 0 && js - step < ws) tryFlow(patches.at<cv::Vec2f>(is, js - step));
            if (is - step >= begin && is - step < end)
              tryFlow(patches.at<cv::Vec2f>(is - step, js));
          }
          double det = double(sums.xx) * sums.yy - double(sums.xy) * sums.xy;
          if (det < 0.001) det = 0.001;
          const float a = float(sums.yy / det), b = float(-sums.xy / det), c = float(sums.xx / det);
          cv::Vec2f moved = own;
          float previous = 1e10F;
          for (int i = 0; i < p.iterations / passes; ++i) {
            float g[2];
            const float error = patchError(level, p, sums, left, top, moved[0], moved[1], g);
            moved -= cv::Vec2f(a * g[0] + b * g[1], b * g[0] + c * g[1]);
            if (error >= previous) break;
            previous = error;
          }
          const cv::Vec2f way = moved - own;
          if (way.dot(way) <= float(p.patch_size * p.patch_size)) own = moved;
        }
      }
    }
  }
  return patches;
}

inline int nearestPatch(int x, int count, const SearchParams& p) {
  int best = 0;
  int best_gap = INT_MAX;
  for (int i = 0; i < count; ++i) {
    const int gap = std::abs(2 * (x - i * p.patch_stride) - (p.patch_size - 1));
    if (gap < best_gap) {
      best_gap = gap;
      best = i;
    }
  }
  return best;
}

/// The image between its pixels; a position beyond the last pixel repeats it.
inline float sample(const cv::Mat& image, float x, float y) {
  const int xi = int(x), yi = int(y);
  const float dx = x - float(xi), dy = y - float(yi);
  const int x1 = std::min(xi + 1, image.cols - 1);
  const uchar* above = image.ptr(yi);
  const uchar* below = image.ptr(std::min(yi + 1, image.rows - 1));
  return (1 - dy) * ((1 - dx) * above[xi] + dx * above[x1]) +
         dy * ((1 - dx) * below[xi] + dx * below[x1]);
}

/// The flow per pixel, `CV_32FC2`.
inline cv::Mat densify(const Level& level, const SearchParams& p, const cv::Mat& patches) {
  const int w = level.i0.cols;
  const int h = level.i0.rows;
  const float high_x = std::max(0.0F, float(w) - 1 - 0.001F);
  const float high_y = std::max(0.0F, float(h) - 1 - 0.001F);
  cv::Mat flow(h, w, CV_32FC2);
  for (int y = 0; y < h; ++y) {
    const int first_row = std::max(0, (y - p.patch_size + p.patch_stride) / p.patch_stride);
    for (int x = 0; x < w; ++x) {
      const int first_column = std::max(0, (x - p.patch_size + p.patch_stride) / p.patch_stride);
      float weights = 0, sum_u = 0, sum_v = 0;
      for (int is = first_row; is < patches.rows && is * p.patch_stride <= y; ++is) {
        for (int js = first_column; js < patches.cols && js * p.patch_stride <= x; ++js) {
          const cv::Vec2f& f = patches.at<cv::Vec2f>(is, js);
          const float sx = std::clamp(float(x) + f[0], 0.0F, high_x);
          const float sy = std::clamp(float(y) + f[1], 0.0F, high_y);
          const float d = sample(level.i1, sx, sy) - level.i0.ptr(y)[x];
          const float weight = 1.0F / std::max(std::abs(d), 1.0F);
          weights += weight;
          sum_u += weight * f[0];
          sum_v += weight * f[1];
        }
      }
      flow.at<cv::Vec2f>(y, x) = weights > 0
                                     ? cv::Vec2f(sum_u / weights, sum_v / weights)
                                     : patches.at<cv::Vec2f>(nearestPatch(y, patches.rows, p),
                                                             nearestPatch(x, patches.cols, p));
    }
  }
  return flow;
}

/// The whole engine without refinement.
inline cv::Mat denseFlow(const cv::Mat& i0, const cv::Mat& i1, const SearchParams& p, int finest,
                         const cv::Mat& initial = cv::Mat()) {
  const double levels = std::log((2 * i0.cols) / (4.0 * p.patch_size)) / std::log(2.0);
  int coarsest = int(std::trunc(levels + 0.5)) - 1;
  coarsest = std::max(coarsest, 0);
  finest = std::min(finest, coarsest);
  std::vector<cv::Mat> first{i0}, second{i1};
  for (int i = 1; i <= coarsest; ++i) {
    cv::Mat a, b;
    const cv::Size size(i0.cols >> i, i0.rows >> i);
    cv::resize(first.back(), a, size, 0, 0, cv::INTER_AREA);
    cv::resize(second.back(), b, size, 0, 0, cv::INTER_AREA);
    first.push_back(a);
    second.push_back(b);
  }
  cv::Mat flow = cv::Mat::zeros(first.back().size(), CV_32FC2);
  bool any_patch = false;
  for (int i = coarsest; i >= finest; --i) {
    const Level level(first[size_t(i)], second[size_t(i)]);
    if (gridSide(level.i0.cols, p) > 0 && gridSide(level.i0.rows, p) > 0) {
      any_patch = true;
      cv::Mat start;
      if (!initial.empty()) {
        cv::resize(initial, start, level.i0.size(), 0, 0, cv::INTER_LINEAR);
        start = start / double(1 << i);
      }
      flow = densify(level, p, search(level, p, flow, start));
    }
    if (i > finest) {
      cv::Mat finer;
      cv::resize(flow, finer, first[size_t(i) - 1].size(), 0, 0, cv::INTER_LINEAR);
      flow = finer * 2.0;
    }
  }
  if (!any_patch && !initial.empty()) return initial.clone();
  cv::Mat result;
  cv::resize(flow, result, i0.size(), 0, 0, cv::INTER_LINEAR);
  return result * double(1 << finest);
}

struct RefineParams {
  float alpha = 20, delta = 5, gamma = 10;
  int iterations = 5, sweeps = 5;
  float omega = 1.6F;
};

/// The linearised energy around one flow, and its minimisation. Flows are `CV_32FC2`.
class Refinement {
 public:
  Refinement(const cv::Mat& i0, const cv::Mat& i1, const cv::Mat& flow, const RefineParams& p)
      : p_(p), w_(i0.cols), h_(i0.rows), terms_(size_t(w_) * size_t(h_)) {
    cv::Mat mean(h_, w_, CV_32F), diff(h_, w_, CV_32F), inside(h_, w_, CV_32F);
    for (int y = 0; y < h_; ++y) {
      for (int x = 0; x < w_; ++x) {
        const cv::Vec2f& f = flow.at<cv::Vec2f>(y, x);
        const float px = float(x) + f[0], py = float(y) + f[1];
        inside.at<float>(y, x) = px >= 0 && py >= 0 && px <= float(w_ - 1) && py <= float(h_ - 1);
        const float warped =
            sample(i1, std::clamp(px, 0.0F, float(w_ - 1)), std::clamp(py, 0.0F, float(h_ - 1)));
        mean.at<float>(y, x) = 0.5F * (warped + i0.ptr(y)[x]);
        diff.at<float>(y, x) = warped - i0.ptr(y)[x];
      }
    }
    const cv::Mat ix = derivative(mean, 1, 0), iy = derivative(mean, 0, 1);
    const cv::Mat ixx = derivative(ix, 1, 0), ixy = derivative(ix, 0, 1),
                  iyy = derivative(iy, 0, 1);
    const cv::Mat ixt = derivative(diff, 1, 0), iyt = derivative(diff, 0, 1);
    const auto at = [](const cv::Mat& m, int y, int x) { return m.at<float>(y, x); };
    for (int y = 0; y < h_; ++y) {
      for (int x = 0; x < w_; ++x) {
        const cv::Vec2f& f = flow.at<cv::Vec2f>(y, x);
        const float rows[3][3] = {{at(ix, y, x), at(iy, y, x), at(diff, y, x)},
                                  {at(ixx, y, x), at(ixy, y, x), at(ixt, y, x)},
                                  {at(ixy, y, x), at(iyy, y, x), at(iyt, y, x)}};
        for (int i = 0; i < 3; ++i) {
          const float* r = rows[i];
          const float norm = 1.0F / std::sqrt(r[0] * r[0] + r[1] * r[1] + 0.01F);
          // Outside the second image, or asking for a motion beyond the linear range.
          const bool valid = inside.at<float>(y, x) > 0 && std::abs(r[2] * norm) <= 1.5F;
          const float s = valid ? norm : 0.0F;
          termsAt(y, x)[size_t(i)] = {s * r[0], s * r[1], s * (r[2] - r[0] * f[0] - r[1] * f[1])};
        }
      }
    }
  }

  double energy(const cv::Mat& flow) const {
    double sum = 0;
    for (int y = 0; y < h_; ++y) {
      for (int x = 0; x < w_; ++x) {
        const cv::Vec2f& f = flow.at<cv::Vec2f>(y, x);
        double r[3];
        for (int i = 0; i < 3; ++i) r[i] = residual(termsAt(y, x)[size_t(i)], f);
        sum += p_.delta * std::sqrt(r[0] * r[0] + 1e-6) +
               p_.gamma * std::sqrt(r[1] * r[1] + r[2] * r[2] + 1e-6) +
               p_.alpha * std::sqrt(squaredGradient(flow, y, x) + 1e-6);
      }
    }
    return sum;
  }

  cv::Mat minimise(const cv::Mat& start) const {
    cv::Mat flow = start.clone();
    cv::Mat robust(h_, w_, CV_32F), system(h_, w_, CV_32FC(5));
    using System = cv::Vec<float, 5>;
    for (int iteration = 0; iteration < p_.iterations; ++iteration) {
      for (int y = 0; y < h_; ++y) {
        for (int x = 0; x < w_; ++x) {
          robust.at<float>(y, x) = 1.0F / std::sqrt(squaredGradient(flow, y, x) + 1e-6F);
          const auto& t = termsAt(y, x);
          const cv::Vec2f& f = flow.at<cv::Vec2f>(y, x);
          const float r0 = residual(t[0], f), r1 = residual(t[1], f), r2 = residual(t[2], f);
          const float wi = p_.delta / std::sqrt(r0 * r0 + 1e-6F);
          const float wg = p_.gamma / std::sqrt(r1 * r1 + r2 * r2 + 1e-6F);
          System s(1e-6F, 0, 1e-6F, 1e-6F * f[0], 1e-6F * f[1]);
          for (int i = 0; i < 3; ++i) {
            const float weight = i == 0 ? wi : wg;
            const Term& e = t[size_t(i)];
            s += System(weight * e.a * e.a, weight * e.a * e.b, weight * e.b * e.b,
                        -weight * e.a * e.c, -weight * e.b * e.c);
          }
          system.at<System>(y, x) = s;
        }
      }
      for (int half = 0; half < 2 * p_.sweeps; ++half) {
        for (int y = 0; y < h_; ++y) {
          for (int x = (y + half) & 1; x < w_; x += 2) {
            const System& s = system.at<System>(y, x);
            float smooth = 0, ru = s[3], rv = s[4];
            const auto edge = [&](int ny, int nx) {
              if (ny < 0 || nx < 0 || ny >= h_ || nx >= w_) return;
              const float weight =
                  0.5F * p_.alpha * (robust.at<float>(y, x) + robust.at<float>(ny, nx));
              const cv::Vec2f& other = flow.at<cv::Vec2f>(ny, nx);
              smooth += weight;
              ru += weight * other[0];
              rv += weight * other[1];
            };
            edge(y, x - 1);
            edge(y, x + 1);
            edge(y - 1, x);
            edge(y + 1, x);
            const float a11 = s[0] + smooth, a22 = s[2] + smooth;
            const float det = a11 * a22 - s[1] * s[1];
            cv::Vec2f& own = flow.at<cv::Vec2f>(y, x);
            const cv::Vec2f next((a22 * ru - s[1] * rv) / det, (a11 * rv - s[1] * ru) / det);
            own += p_.omega * (next - own);
          }
        }
      }
    }
    return flow;
  }

 private:
  struct Term {
    float a, b, c;  // r = a u + b v + c
  };
  using Terms = std::array<Term, 3>;

  static float residual(const Term& t, const cv::Vec2f& f) { return t.a * f[0] + t.b * f[1] + t.c; }
  Terms& termsAt(int y, int x) { return terms_[size_t(y) * size_t(w_) + size_t(x)]; }
  const Terms& termsAt(int y, int x) const { return terms_[size_t(y) * size_t(w_) + size_t(x)]; }

  cv::Mat derivative(const cv::Mat& m, int sx, int sy) const {
    cv::Mat out(h_, w_, CV_32F);
    for (int y = 0; y < h_; ++y) {
      for (int x = 0; x < w_; ++x) {
        const auto at = [&](int k) {
          return m.at<float>(std::clamp(y + k * sy, 0, h_ - 1), std::clamp(x + k * sx, 0, w_ - 1));
        };
        out.at<float>(y, x) = (8 * (at(1) - at(-1)) - (at(2) - at(-2))) / 12;
      }
    }
    return out;
  }

  /// |grad u|^2 + |grad v|^2: the mean of the differences to both sides, squared, in each
  /// direction.
  float squaredGradient(const cv::Mat& flow, int y, int x) const {
    const cv::Vec2f& own = flow.at<cv::Vec2f>(y, x);
    float sum = 0;
    const auto add = [&](int ny, int nx) {
      if (ny < 0 || nx < 0 || ny >= h_ || nx >= w_) return;
      const cv::Vec2f d = flow.at<cv::Vec2f>(ny, nx) - own;
      sum += 0.5F * (d[0] * d[0] + d[1] * d[1]);
    };
    add(y, x - 1);
    add(y, x + 1);
    add(y - 1, x);
    add(y + 1, x);
    return sum;
  }

  RefineParams p_;
  int w_, h_;
  std::vector<Terms> terms_;
};

}  // namespace lum_reference
