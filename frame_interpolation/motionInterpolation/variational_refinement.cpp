#include "variational_refinement.h"

#include <algorithm>
#include <cmath>

#include "flow_kernels.h"

namespace cv::optflow::lum {
namespace {

using kernels::ColourPlane;
using kernels::Kernels;
using kernels::kPad;
using kernels::RefineArgs;
using kernels::SweepBand;

constexpr int kNaturalPlanes = 6;
constexpr int kColourPlanes = 19;
/// Below this many pixels per task the tasks cost more than they save.
constexpr int kMinPixelsPerBand = 6000;

int aligned(int count) { return (count + 15) / 16 * 16; }

/// Rows of float planes, zero at first: what lies beside the pixels is read and must be finite.
void createZeroed(Mat& mat, int rows, int cols) {
  if (mat.rows == rows && mat.cols == cols) return;
  mat.create(rows, cols, CV_32FC1);
  mat.setTo(0);
}

void requireFiniteNonNegative(float value, const char* message) {
  if (!(value >= 0.0F) || !std::isfinite(value)) CV_Error(Error::StsOutOfRange, message);
}

}  // namespace

Ptr<VariationalRefinement> VariationalRefinement::create() {
  return makePtr<VariationalRefinement>();
}

void VariationalRefinement::collectGarbage() {
  for (Mat* mat : {&natural_, &colours_, &band_flow_, &edge_masks_}) mat->release();
  size_ = Size();
}

void VariationalRefinement::checkParameters() const {
  requireFiniteNonNegative(alpha_, "alpha must be finite and at least 0");
  requireFiniteNonNegative(delta_, "delta must be finite and at least 0");
  requireFiniteNonNegative(gamma_, "gamma must be finite and at least 0");
  if (iterations_ < 0) CV_Error(Error::StsOutOfRange, "iterations must be at least 0");
  if (sweeps_ < 1) CV_Error(Error::StsOutOfRange, "solver sweeps must be at least 1");
  if (!(omega_ > 0.0F && omega_ < 2.0F)) {
    CV_Error(Error::StsOutOfRange, "relaxation must be above 0 and below 2");
  }
}

void VariationalRefinement::allocate(Size size, int bands) {
  const int w = size.width;
  const int h = size.height;
  if (size != size_) {
    // What a smaller image left beside the pixels of a larger one must not stay.
    collectGarbage();
    size_ = size;
  }
  // Two vectors behind each row: the last of a row is read and written whole.
  createZeroed(natural_, kNaturalPlanes * (h + 1), kPad + aligned(w) + 3 * kPad);
  const int colour_cols = kPad + aligned((w + 1) / 2) + 2 * kPad;
  createZeroed(colours_, kColourPlanes * 2 * (h + 2), colour_cols);
  if (bands > 1) {
    const int halo = 2 * sweeps_;
    const int band_rows = (h + bands - 1) / bands + 2 * halo + 2;
    createZeroed(band_flow_, bands * 4 * band_rows, colour_cols);
  }
  if (edge_masks_.cols != colour_cols) {
    createZeroed(edge_masks_, 4, colour_cols);
    for (int odd = 0; odd < 2; ++odd) {
      float* has_left = edge_masks_.ptr<float>(odd);
      float* has_right = edge_masks_.ptr<float>(2 + odd);
      for (int x = odd; x < w; x += 2) {
        has_left[x / 2] = x > 0 ? 1.0F : 0.0F;
        has_right[x / 2] = x + 1 < w ? 1.0F : 0.0F;
      }
    }
  }
}

void VariationalRefinement::refine(const Mat& i0, const Mat& i1, Mat& u, Mat& v) {
  CV_Assert(i0.type() == CV_8UC1 && i1.type() == CV_8UC1);
  CV_Assert(u.type() == CV_32FC1 && v.type() == CV_32FC1);
  CV_Assert(i0.size() == i1.size() && i0.size() == u.size() && i0.size() == v.size());
  checkParameters();
  if (i0.empty() || iterations_ == 0) return;

  const Size size = i0.size();
  const int h = size.height;
  const int halo = 2 * sweeps_;
  const double pixels = static_cast<double>(size.width) * h;
  const int bands =
      std::max(1, std::min({getNumThreads(), h / (2 * halo),
                            static_cast<int>(std::min(pixels / kMinPixelsPerBand, 1024.0))}));
  allocate(size, bands);

  RefineArgs args{};
  args.w = size.width;
  args.h = h;
  args.natural_stride = natural_.cols;
  args.colour_stride = colours_.cols;
  args.i0 = i0.ptr();
  args.i0_stride = static_cast<std::ptrdiff_t>(i0.step);
  args.i1 = i1.ptr();
  args.i1_stride = static_cast<std::ptrdiff_t>(i1.step);
  args.u = u.ptr<float>();
  args.v = v.ptr<float>();
  args.u_stride = static_cast<std::ptrdiff_t>(u.step1());
  args.v_stride = static_cast<std::ptrdiff_t>(v.step1());

  int next_natural = 0;
  for (float** plane :
       {&args.second, &args.mean, &args.diff, &args.inside, &args.mean_x, &args.mean_y}) {
    *plane = natural_.ptr<float>(next_natural++ * (h + 1)) + kPad;
  }
  CV_DbgAssert(next_natural == kNaturalPlanes);
  int next_colour = 0;
  for (ColourPlane* plane :
       {&args.flow_u, &args.flow_v, &args.a[0], &args.a[1], &args.a[2], &args.b[0], &args.b[1],
        &args.b[2], &args.c[0], &args.c[1], &args.c[2], &args.robust, &args.m11, &args.m12,
        &args.m22, &args.b1, &args.b2, &args.right, &args.down}) {
    for (float*& row0 : plane->row0) {
      row0 = colours_.ptr<float>(next_colour++ * (h + 2) + 1) + kPad;
    }
  }
  CV_DbgAssert(next_colour == 2 * kColourPlanes);
  for (int odd = 0; odd < 2; ++odd) {
    args.has_left[odd] = edge_masks_.ptr<float>(odd);
    args.has_right[odd] = edge_masks_.ptr<float>(2 + odd);
  }
  args.alpha = alpha_;
  args.delta = delta_;
  args.gamma = gamma_;
  args.omega = omega_;

  const Kernels& table = kernels::activeKernels();
  const auto bandBegin = [&](int band) {
    return static_cast<int>(static_cast<int64>(h) * band / bands);
  };
  const auto forBands = [&](void (*rows)(const RefineArgs&, int, int)) {
    if (bands == 1) {
      rows(args, 0, h);
      return;
    }
    parallel_for_(
        Range(0, bands),
        [&](const Range& range) {
          for (int band = range.start; band < range.end; ++band) {
            rows(args, bandBegin(band), bandBegin(band + 1));
          }
        },
        bands);
  };

  // A band's sweeps run on a private copy with a halo as deep as information travels in them: no
  // waiting between half sweeps, and each pixel sees exactly the values that it would see alone.
  const std::ptrdiff_t row_floats = colours_.cols;
  const int band_rows = (h + bands - 1) / bands + 2 * halo + 2;
  const auto makeBand = [&](int index) {
    SweepBand band{};
    band.begin = bandBegin(index);
    band.end = bandBegin(index + 1);
    band.first = std::max(0, band.begin - halo);
    band.last = std::min(h, band.end + halo);
    band.half_sweeps = halo;
    for (int colour = 0; colour < 2; ++colour) {
      float** const planes[2] = {&band.u[colour], &band.v[colour]};
      for (int i = 0; i < 2; ++i) {
        // Row 1 of the copy is row `first` of the image.
        *planes[i] = band_flow_.ptr<float>((index * 4 + colour * 2 + i) * band_rows + 1) + kPad -
                     band.first * row_floats;
      }
    }
    return band;
  };
  const auto copyRows = [&](const SweepBand& band, bool to_band, int begin, int end) {
    for (int colour = 0; colour < 2; ++colour) {
      float* const shared[2] = {args.flow_u.row0[colour], args.flow_v.row0[colour]};
      float* const own[2] = {band.u[colour], band.v[colour]};
      for (int i = 0; i < 2; ++i) {
        const float* source = (to_band ? shared[i] : own[i]) + begin * row_floats - kPad;
        float* target = (to_band ? own[i] : shared[i]) + begin * row_floats - kPad;
        std::copy(source, source + (end - begin) * row_floats, target);
      }
    }
  };

  forBands(table.importRows);
  forBands(table.warpRows);
  forBands(table.firstDerivatives);
  forBands(table.dataTerms);
  for (int iteration = 0; iteration < iterations_; ++iteration) {
    forBands(table.smoothnessRows);
    forBands(table.systemRows);
    if (bands == 1) {
      SweepBand band{};
      for (int colour = 0; colour < 2; ++colour) {
        band.u[colour] = args.flow_u.row0[colour];
        band.v[colour] = args.flow_v.row0[colour];
      }
      band.end = band.last = h;
      band.half_sweeps = halo;
      table.sweep(args, band);
      continue;
    }
    parallel_for_(
        Range(0, bands),
        [&](const Range& range) {
          for (int index = range.start; index < range.end; ++index) {
            const SweepBand band = makeBand(index);
            // With the rows beside the image, which stay zero.
            copyRows(band, /*to_band=*/true, band.first == 0 ? -1 : band.first,
                     band.last == h ? h + 1 : band.last);
            table.sweep(args, band);
          }
        },
        bands);
    parallel_for_(
        Range(0, bands),
        [&](const Range& range) {
          for (int index = range.start; index < range.end; ++index) {
            const SweepBand band = makeBand(index);
            copyRows(band, /*to_band=*/false, band.begin, band.end);
          }
        },
        bands);
  }
  forBands(table.exportRows);
}

}  // namespace cv::optflow::lum
