#include "dis_flow.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "flow_kernels.h"
#include "huge_pages.h"
#include "simd/parallel_for.h"

namespace cv::optflow::lum {
namespace {

constexpr int kLargestSide = 16384;  // offsets into a scale are 32 bits wide in places
constexpr int kLargestStride = 1 << 16;

constexpr int kScales = 10;
constexpr int kPropagationStripes = 8;
/// Pixels of a pyramid level beyond which all threads share its work.
constexpr int kSharedPixels = 1 << 20;
constexpr int kMinPixelsPerStripe = 1 << 14;
constexpr int kMinPixelsToShare = 1000;

/// Callers match on where a check is: the reported place is part of the interface.
void require(bool condition, const char* text, int line) {
  if (condition) return;
  cv::error(Error::StsAssert, text, "cv::optflow::lum::DISOpticalFlowImpl::calc",
            "frame_interpolation/motionInterpolation/dis_flow.cpp", line);
}

Size sizeAt(Size full, int scale) { return {full.width >> scale, full.height >> scale}; }

int gridSide(int side, int patch_size, int stride) {
  return side < patch_size ? 0 : 1 + (side - patch_size) / stride;
}

/// Splits `count` rows into stripes of equal height, the last ones less or none, and calls
/// `body(begin, end, stripe)` for each; one after the other unless `shared`.
template <typename Body>
void forStripes(int count, int stripes, bool shared, const Body& body) {
  const int rows = (count + stripes - 1) / stripes;
  const auto work = [&](int stripe) {
    const int begin = std::min(stripe * rows, count);
    const int end = std::min(begin + rows, count);
    if (begin < end) body(begin, end, stripe);
  };
  if (shared) {
    ::lum::simd::ParallelFor(stripes, work);
  } else {
    for (int stripe = 0; stripe < stripes; ++stripe) work(stripe);
  }
}

}  // namespace

Ptr<DISOpticalFlow> DISOpticalFlow::create() { return makePtr<DISOpticalFlowImpl>(); }

DISOpticalFlowImpl::DISOpticalFlowImpl() {
  variational_refinement.reserve(kScales);
  for (int i = 0; i < kScales; ++i) {
    variational_refinement.push_back(VariationalRefinement::create());
  }
}

void DISOpticalFlowImpl::collectGarbage() {
  for (std::vector<Mat>* mats :
       {&I0s, &I1s, &I1s_ext, &I0xs, &I0ys, &Ux, &Uy, &initial_Ux, &initial_Uy}) {
    mats->clear();
  }
  for (Mat* mat :
       {&Sx, &Sy, &I0xx_buf, &I0yy_buf, &I0xy_buf, &I0x_buf, &I0y_buf, &weight_sums, &column_sums,
        &resize_columns, &resize_fractions, &resize_rows, &split_flow[0], &split_flow[1]}) {
    mat->release();
  }
  for (const Ptr<VariationalRefinement>& refinement : variational_refinement) {
    refinement->collectGarbage();
  }
}

void DISOpticalFlowImpl::checkParameters() const {
  const auto fail = [](const char* message) { CV_Error(Error::StsOutOfRange, message); };
  if (finest_scale < 0) fail("finest_scale must be at least 0");
  if (patch_size < 1) fail("patch_size must be at least 1");
  if (patch_size > border_size) fail("patch_size must not exceed the border of 16 pixels");
  if (patch_stride < 1) fail("patch_stride must be at least 1");
  if (grad_descent_iter < 0) fail("grad_descent_iter must be at least 0");
  if (variational_refinement_iter < 0) fail("variational_refinement_iter must be at least 0");
  const auto weight = [&](float value, const char* message) {
    if (!(value >= 0.0F) || !std::isfinite(value)) fail(message);
  };
  weight(variational_refinement_alpha, "variational_refinement_alpha must be finite, at least 0");
  weight(variational_refinement_gamma, "variational_refinement_gamma must be finite, at least 0");
  weight(variational_refinement_delta, "variational_refinement_delta must be finite, at least 0");
}

void DISOpticalFlowImpl::prepareBuffers(const Mat& i0, const Mat& i1, const Mat& initial_flow,
                                        int finest, int coarsest) {
  const auto scales = static_cast<std::size_t>(coarsest) + 1;
  for (std::vector<Mat>* mats : {&I0s, &I1s, &I1s_ext, &I0xs, &I0ys, &Ux, &Uy}) {
    if (mats->size() < scales) mats->resize(scales);
  }
  while (variational_refinement.size() < scales) {
    variational_refinement.push_back(VariationalRefinement::create());
  }
  const bool has_initial = !initial_flow.empty();
  if (has_initial) {
    initial_Ux.resize(std::max(initial_Ux.size(), scales));
    initial_Uy.resize(std::max(initial_Uy.size(), scales));
    split(initial_flow, split_flow);
  }

  // Only read, and given back at the end of calc.
  I0s[0] = i0;
  I1s[0] = i1;
  const auto prepareLevel = [&](int image, int i) {
    const auto at = static_cast<std::size_t>(i);
    std::vector<Mat>& images = image == 0 ? I0s : I1s;
    const Size size = sizeAt(i0.size(), i);
    if (i > 0) resize(images[at - 1], images[at], size, 0, 0, INTER_AREA);
    if (i < finest) return;  // only passed through on the way to coarser scales
    if (image == 0) {
      spatialGradient(I0s[at], I0xs[at], I0ys[at], /*ksize=*/3, BORDER_REFLECT_101);
    } else {
      // Isolated: the caller's image may be part of a larger one, whose pixels are not its border.
      copyMakeBorder(I1s[at], I1s_ext[at], border_size, border_size, border_size, border_size,
                     BORDER_REPLICATE | BORDER_ISOLATED);
    }
    if (has_initial) {
      resize(split_flow[image], (image == 0 ? initial_Ux : initial_Uy)[at], size, 0, 0,
             INTER_LINEAR);
      Mat& component = (image == 0 ? initial_Ux : initial_Uy)[at];
      component.convertTo(component, -1, 1.0 / static_cast<double>(1 << i));
    }
  };
  // OpenCV's threads share a large level's work; the small ones of the two images go in parallel.
  int level = 0;
  for (; level <= coarsest && sizeAt(i0.size(), level).area() > kSharedPixels; ++level) {
    prepareLevel(0, level);
    prepareLevel(1, level);
  }
  ::lum::simd::ParallelFor(2, [&](int image) {
    for (int i = level; i <= coarsest; ++i) prepareLevel(image, i);
  });
  for (int i = finest; i <= coarsest; ++i) {
    const auto at = static_cast<std::size_t>(i);
    const Size size = sizeAt(i0.size(), i);
    Ux[at].create(size, CV_32FC1);
    Uy[at].create(size, CV_32FC1);
    adviseHugePages(Ux[at]);
    adviseHugePages(Uy[at]);
    VariationalRefinement& refinement = *variational_refinement[at];
    refinement.setAlpha(variational_refinement_alpha);
    refinement.setDelta(variational_refinement_delta);
    refinement.setGamma(variational_refinement_gamma);
    refinement.setIterations(variational_refinement_iter);
  }

  const Size finest_size = sizeAt(i0.size(), finest);
  const int patches = gridSide(finest_size.width, patch_size, patch_stride) *
                      gridSide(finest_size.height, patch_size, patch_stride);
  for (Mat* mat : {&Sx, &Sy, &I0xx_buf, &I0yy_buf, &I0xy_buf, &I0x_buf, &I0y_buf}) {
    mat->create(1, std::max(patches, 1), CV_32FC1);
  }
  weight_sums.create(finest_size, CV_32FC1);
  column_sums.create(searchStripes(), 5 * finest_size.width, CV_32SC1);
  resize_columns.create(1, i0.cols, CV_32SC1);
  resize_fractions.create(1, i0.cols, CV_32FC1);
  resize_rows.create(4 * std::max(getNumThreads(), 1), 2 * i0.cols, CV_32FC1);
}

void DISOpticalFlowImpl::setScale(int scale) {
  const Size size = I0s[static_cast<std::size_t>(scale)].size();
  w = size.width;
  h = size.height;
  // A grid needs both sides.
  ws = gridSide(w, patch_size, patch_stride);
  hs = gridSide(h, patch_size, patch_stride);
  if (ws == 0 || hs == 0) ws = hs = 0;
}

kernels::SearchArgs DISOpticalFlowImpl::searchArgs(int scale, bool use_initial_flow) {
  const auto at = static_cast<std::size_t>(scale);
  const auto stride = [](const Mat& mat) { return static_cast<std::ptrdiff_t>(mat.step1()); };
  kernels::SearchArgs args{};
  args.i0 = I0s[at].ptr();
  args.i0_stride = stride(I0s[at]);
  args.i1 = I1s[at].ptr();
  args.i1_stride = stride(I1s[at]);
  args.i1_ext = I1s_ext[at].ptr();
  args.i1_ext_stride = stride(I1s_ext[at]);
  args.ix = I0xs[at].ptr<short>();
  args.iy = I0ys[at].ptr<short>();
  args.grad_stride = stride(I0xs[at]);
  args.ux = Ux[at].ptr<float>();
  args.uy = Uy[at].ptr<float>();
  args.u_stride = stride(Ux[at]);
  if (use_initial_flow) {
    args.initial_ux = initial_Ux[at].ptr<float>();
    args.initial_uy = initial_Uy[at].ptr<float>();
    args.initial_stride = stride(initial_Ux[at]);
  }
  args.weight_sums = weight_sums.ptr<float>();
  args.sx = Sx.ptr<float>();
  args.sy = Sy.ptr<float>();
  args.xx = I0xx_buf.ptr<float>();
  args.yy = I0yy_buf.ptr<float>();
  args.xy = I0xy_buf.ptr<float>();
  args.x = I0x_buf.ptr<float>();
  args.y = I0y_buf.ptr<float>();
  args.w = w;
  args.h = h;
  args.ws = ws;
  args.hs = hs;
  args.patch_size = patch_size;
  // Any stride beyond the image's sides means one patch; the sum of two must not overflow.
  args.patch_stride = std::min(patch_stride, kLargestStride);
  args.border = border_size;
  args.passes = use_spatial_propagation ? 2 : 1;
  args.inner_iterations = grad_descent_iter / args.passes;
  args.mean_normalization = use_mean_normalization;
  args.spatial_propagation = use_spatial_propagation;
  return args;
}

int DISOpticalFlowImpl::searchStripes() const {
  // Propagation reaches as far as a stripe: a fixed number of them makes the result independent of
  // the threads. Without it patches do not depend on each other.
  return use_spatial_propagation ? kPropagationStripes : std::max(getNumThreads(), 1);
}

void DISOpticalFlowImpl::searchPatches(const kernels::SearchArgs& args) {
  const kernels::Kernels& table = kernels::activeKernels();
  forStripes(hs, searchStripes(), w * h >= kMinPixelsToShare, [&](int begin, int end, int stripe) {
    table.structureTensor(args, begin, end, column_sums.ptr<int>(stripe));
    table.search(args, begin, end);
  });
}

void DISOpticalFlowImpl::densify(const kernels::SearchArgs& args) {
  const kernels::Kernels& table = kernels::activeKernels();
  forStripes(h, std::max(getNumThreads(), 1), w * h >= kMinPixelsToShare,
             [&](int begin, int end, int) { table.densify(args, begin, end); });
}

void DISOpticalFlowImpl::calc(InputArray I0, InputArray I1, InputOutputArray flow) {
  require(!I0.empty() && I0.depth() == CV_8U && I0.channels() == 1,
          "!I0.empty() && I0.depth() == CV_8U && I0.channels() == 1", 1016);
  require(!I1.empty() && I1.depth() == CV_8U && I1.channels() == 1,
          "!I1.empty() && I1.depth() == CV_8U && I1.channels() == 1", 1017);
  require(I0.size() == I1.size(), "I0.size() == I1.size()", 1018);
  require(I0.isContinuous(), "I0.isContinuous()", 1019);
  require(I1.isContinuous(), "I1.isContinuous()", 1020);
  if (I0.dims() > 2 || I1.dims() > 2) CV_Error(Error::StsBadSize, "I0 and I1 must be images");
  const Size full = I0.size();
  if (std::max(full.width, full.height) > kLargestSide) {
    CV_Error(Error::StsBadSize, "I0 and I1 must have at most 16384 pixels on a side");
  }
  checkParameters();

  const Mat i0 = I0.getMat();
  const Mat i1 = I1.getMat();
  const bool use_initial_flow =
      !flow.empty() && flow.type() == CV_32FC2 && flow.size() == i0.size();
  const Mat initial_flow = use_initial_flow ? flow.getMat() : Mat();

  // Truncated after adding a half, as the scales are defined.
  const double levels = std::log((2 * i0.cols) / (4.0 * patch_size)) / std::log(2.0);
  coarsest_scale = static_cast<int>(std::trunc(levels + 0.5)) - 1;
  // The formula looks at the width only: levels that the height does not reach have no pixels, and
  // an image narrower than two patches still has its full resolution.
  coarsest_scale = std::max(coarsest_scale, 0);
  while (coarsest_scale > 0 && (i0.rows >> coarsest_scale) == 0) --coarsest_scale;
  const int finest = std::min(finest_scale, coarsest_scale);

  prepareBuffers(i0, i1, initial_flow, finest, coarsest_scale);
  const auto top = static_cast<std::size_t>(coarsest_scale);
  Ux[top].setTo(0);
  Uy[top].setTo(0);

  bool any_patch = false;
  for (int i = coarsest_scale; i >= finest; --i) {
    const auto at = static_cast<std::size_t>(i);
    setScale(i);
    if (ws > 0) {
      any_patch = true;
      const kernels::SearchArgs args = searchArgs(i, use_initial_flow);
      searchPatches(args);
      densify(args);
      if (variational_refinement_iter > 0) {
        variational_refinement[at]->refine(I0s[at], I1s[at], Ux[at], Uy[at]);
      }
    }
    if (i > finest) {
      const Mat from[2] = {Ux[at], Uy[at]};
      Mat to[2] = {Ux[at - 1], Uy[at - 1]};
      resizeFlow(from, 2.0F, to, 2);
    }
  }
  I0s[0].release();
  I1s[0].release();

  if (any_patch) {
    writeFlow(finest, i0.size(), flow);
  } else if (!use_initial_flow) {
    flow.create(i0.size(), CV_32FC2);
    flow.setTo(Scalar::all(0));
  }
}

void DISOpticalFlowImpl::writeFlow(int finest, Size size, InputOutputArray flow) {
  const auto at = static_cast<std::size_t>(finest);
  const Mat components[2] = {Ux[at], Uy[at]};
  flow.create(size, CV_32FC2);
  Mat out = flow.getMat();
  adviseHugePages(out);
  resizeFlow(components, static_cast<float>(1 << finest), &out, 1);
}

void DISOpticalFlowImpl::resizeFlow(const Mat (&components)[2], float factor, Mat* outs,
                                    int planes) {
  const int channels = 2 / planes;
  const Size from = components[0].size();
  const Size to = outs[0].size();
  const int length = to.width * channels;
  const auto scale = [](int source, int target) {
    return 1.0 / (static_cast<double>(target) / source);
  };

  // Where a column lies between two of the source.
  const double scale_x = scale(from.width, to.width);
  int* const columns = resize_columns.ptr<int>();
  float* const fractions = resize_fractions.ptr<float>();
  for (int x = 0; x < to.width; ++x) {
    const float position = static_cast<float>((x + 0.5) * scale_x - 0.5);
    const int column = cvFloor(position);
    const bool between = column >= 0 && column < from.width - 1;
    columns[x] = std::min(std::max(column, 0), from.width - 1);
    fractions[x] = between ? position - static_cast<float>(column) : 0.0F;
  }

  const double scale_y = scale(from.height, to.height);
  const auto most =
      static_cast<int>(std::max<std::size_t>(outs[0].total() / kMinPixelsPerStripe, 1));
  const int stripes = std::max(std::min(getNumThreads(), most), 1);
  const int rows = (to.height + stripes - 1) / stripes;
  ::lum::simd::ParallelFor(planes * stripes, [&](int task) {
    const int plane = task / stripes;
    const int begin = std::min(task % stripes * rows, to.height);
    const int end = std::min(begin + rows, to.height);
    // The last two source rows, interpolated along x.
    float* held[2] = {resize_rows.ptr<float>(2 * task), resize_rows.ptr<float>(2 * task + 1)};
    int held_row[2] = {-1, -1};
    const auto fill = [&](int slot, int row) {
      held_row[slot] = row;
      for (int c = 0; c < channels; ++c) {
        const float* source = components[plane + c].ptr<float>(row);
        float* target = held[slot] + c;
        for (std::ptrdiff_t x = 0; x < to.width; ++x) {
          const int left = columns[x];
          const int right = std::min(left + 1, from.width - 1);
          target[x * channels] =
              source[left] * (1.0F - fractions[x]) + source[right] * fractions[x];
        }
      }
    };
    for (int y = begin; y < end; ++y) {
      const float position = static_cast<float>((y + 0.5) * scale_y - 0.5);
      const int row = cvFloor(position);
      const float fraction = position - static_cast<float>(row);
      const int above = std::min(std::max(row, 0), from.height - 1);
      const int below = std::min(std::max(row + 1, 0), from.height - 1);
      if (held_row[1] == above) {
        std::swap(held[0], held[1]);
        std::swap(held_row[0], held_row[1]);
      }
      if (held_row[0] != above) fill(0, above);
      if (held_row[1] != below) fill(1, below);
      // The factor is a power of two: the same wherever it is applied.
      const float weight_above = (1.0F - fraction) * factor;
      const float weight_below = fraction * factor;
      const float* const first = held[0];
      const float* const second = held[1];
      auto* const target = outs[plane].ptr<float>(y);
      for (int i = 0; i < length; ++i) {
        target[i] = first[i] * weight_above + second[i] * weight_below;
      }
    }
  });
}

}  // namespace cv::optflow::lum
