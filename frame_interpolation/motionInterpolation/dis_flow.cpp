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
/// Refinement of the scales above the finest one. They only start the search below them, but where
/// motions are large any change of a coarse flow sends it elsewhere. With this many warps, after
/// which the pull lets nothing move, every number of iterations starts the finest scale alike, and
/// more of them don't come out worse by chance.
constexpr int kCoarseWarps = 5;
constexpr float kCoarsePullGrowth = 16.0F;
constexpr float kFinestPullGrowth = 2.0F;
/// Pixels of a pyramid level beyond which all threads share its work.
constexpr int kSharedPixels = 1 << 20;
constexpr int kMinPixelsPerStripe = 1 << 14;
constexpr int kMinPixelsToShare = 1000;

/// Callers match on where a check is: the reported place is part of the interface.
void require(bool condition, const char* text, int line) {
  if (condition) return;
  cv::error(Error::StsAssert, text, "cv::optflow::lum::DISOpticalFlowImpl::calc",
            "frame_interpolation/motionInterpolation/dis_flow", line);
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
  for (Mat* mat : {&Sx, &Sy, &I0xx_buf, &I0yy_buf, &I0xy_buf, &I0x_buf, &I0y_buf, &weight_sums,
                   &column_sums, &resize_columns, &resize_fractions, &resize_rows}) {
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

void DISOpticalFlowImpl::prepareLevel(int image, int level, int finest, bool has_initial) {
  const auto at = static_cast<std::size_t>(level);
  std::vector<Mat>& images = image == 0 ? I0s : I1s;
  const Size size = sizeAt(images[0].size(), level);
  if (level > 0) resize(images[at - 1], images[at], size, 0, 0, INTER_AREA);
  if (level < finest) return;  // only passed through on the way to coarser scales
  if (image == 0) {
    spatialGradient(I0s[at], I0xs[at], I0ys[at], /*ksize=*/3, BORDER_REFLECT_101);
  } else {
    // Isolated: the caller's image may be part of a larger one, whose pixels are not its border.
    copyMakeBorder(I1s[at], I1s_ext[at], border_size, border_size, border_size, border_size,
                   BORDER_REPLICATE | BORDER_ISOLATED);
  }
  if (has_initial && level > 0) {
    std::vector<Mat>& components = image == 0 ? initial_Ux : initial_Uy;
    resize(components[0], components[at], size, 0, 0, INTER_LINEAR);
    components[at].convertTo(components[at], -1, 1.0 / static_cast<double>(1 << level));
  }
}

void DISOpticalFlowImpl::preparePyramids(const Mat& i0, const Mat& i1, const Mat& initial_flow,
                                         int finest, int coarsest) {
  const auto scales = static_cast<std::size_t>(coarsest) + 1;
  for (std::vector<Mat>* mats : {&I0s, &I1s, &I1s_ext, &I0xs, &I0ys}) {
    if (mats->size() < scales) mats->resize(scales);
  }
  // Only read, and given back at the end of calc.
  I0s[0] = i0;
  I1s[0] = i1;
  const bool has_initial = !initial_flow.empty();
  if (has_initial) {
    initial_Ux.resize(std::max(initial_Ux.size(), scales));
    initial_Uy.resize(std::max(initial_Uy.size(), scales));
    Mat components[2] = {initial_Ux[0], initial_Uy[0]};
    split(initial_flow, components);
    initial_Ux[0] = components[0];
    initial_Uy[0] = components[1];
  }
  // OpenCV's threads share a large level's work; the small ones of the two images go in parallel.
  int shared = 0;
  for (; shared <= coarsest && sizeAt(i0.size(), shared).area() > kSharedPixels; ++shared) {
    prepareLevel(0, shared, finest, has_initial);
    prepareLevel(1, shared, finest, has_initial);
  }
  ::lum::simd::ParallelFor(2, [&](int image) {
    for (int i = shared; i <= coarsest; ++i) prepareLevel(image, i, finest, has_initial);
  });
}

void DISOpticalFlowImpl::prepareBuffers(Size full, int finest, int coarsest) {
  const auto scales = static_cast<std::size_t>(coarsest) + 1;
  for (std::vector<Mat>* mats : {&Ux, &Uy}) {
    if (mats->size() < scales) mats->resize(scales);
  }
  while (variational_refinement.size() < scales) {
    variational_refinement.push_back(VariationalRefinement::create());
  }
  for (int i = finest; i <= coarsest; ++i) {
    const auto at = static_cast<std::size_t>(i);
    for (Mat* component : {&Ux[at], &Uy[at]}) {
      component->create(sizeAt(full, i), CV_32FC1);
      adviseHugePages(*component);
    }
    VariationalRefinement& refinement = *variational_refinement[at];
    refinement.setAlpha(variational_refinement_alpha);
    refinement.setDelta(variational_refinement_delta);
    refinement.setGamma(variational_refinement_gamma);
    refinement.setIterations(variational_refinement_iter);
    refinement.setLeastWarps(i > finest ? kCoarseWarps : 0);
    refinement.setPullGrowth(i > finest ? kCoarsePullGrowth : kFinestPullGrowth);
  }

  const Size finest_size = sizeAt(full, finest);
  const int patches = gridSide(finest_size.width, patch_size, patch_stride) *
                      gridSide(finest_size.height, patch_size, patch_stride);
  for (Mat* mat : {&Sx, &Sy, &I0xx_buf, &I0yy_buf, &I0xy_buf, &I0x_buf, &I0y_buf}) {
    mat->create(1, std::max(patches, 1), CV_32FC1);
  }
  weight_sums.create(finest_size, CV_32FC1);
  column_sums.create(searchStripes(), 5 * finest_size.width, CV_32SC1);
  resize_columns.create(1, full.width, CV_32SC1);
  resize_fractions.create(1, full.width, CV_32FC1);
  resize_rows.create(std::max(getNumThreads(), 1), 4 * full.width, CV_32FC1);
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
  forStripes(hs, column_sums.rows, w * h >= kMinPixelsToShare, [&](int begin, int end, int stripe) {
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
  const bool use_initial_flow = getUseInitialFlow() && !flow.empty() && flow.dims() <= 2 &&
                                flow.type() == CV_32FC2 && flow.size() == i0.size();
  const Mat initial_flow = use_initial_flow ? flow.getMat() : Mat();
  const int finest = chooseScales(full);

  preparePyramids(i0, i1, initial_flow, finest, coarsest_scale);
  prepareBuffers(full, finest, coarsest_scale);
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
      resizeFlow(i, 2.0F, {Ux[at - 1], Uy[at - 1]});
    }
  }
  I0s[0].release();
  I1s[0].release();

  if (any_patch) {
    writeFlow(finest, i0.size(), flow);
  } else if (use_initial_flow) {
    Mat out = flow.getMat();
    patchNaNs(out);
  } else {
    flow.create(i0.size(), CV_32FC2);
    flow.setTo(Scalar::all(0));
  }
}

/// Sets `coarsest_scale` and returns the finest scale to be processed.
int DISOpticalFlowImpl::chooseScales(Size full) {
  // Truncated after adding a half, as the scales are defined.
  const double levels = std::log((2 * full.width) / (4.0 * patch_size)) / std::log(2.0);
  coarsest_scale = static_cast<int>(std::trunc(levels + 0.5)) - 1;
  // The formula looks at the width only: levels that the height does not reach have no pixels, and
  // an image narrower than two patches still has its full resolution.
  coarsest_scale = std::max(coarsest_scale, 0);
  while (coarsest_scale > 0 && (full.height >> coarsest_scale) == 0) --coarsest_scale;
  int finest = std::min(finest_scale, coarsest_scale);
  const auto holdsPatch = [&](int scale) {
    const Size size = sizeAt(full, scale);
    return std::min(size.width, size.height) >= patch_size;
  };
  while (finest > 0 && !holdsPatch(finest)) --finest;
  return finest;
}

void DISOpticalFlowImpl::writeFlow(int finest, Size size, InputOutputArray flow) {
  const uchar* const before = flow.empty() ? nullptr : flow.getMat().data;
  flow.create(size, CV_32FC2);
  const Mat out = flow.getMat();
  if (out.data != before) adviseHugePages(out);  // memory of the caller's is none of ours
  resizeFlow(finest, static_cast<float>(1 << finest), {out});
}

void DISOpticalFlowImpl::resizeFlow(int scale, float factor, const std::vector<Mat>& outs) {
  const auto at = static_cast<std::size_t>(scale);
  const Size from = Ux[at].size();
  const Size to = outs[0].size();
  kernels::ResizeArgs args{};
  args.source_height = from.height;
  args.factor = factor;
  args.width = to.width;
  args.columns = resize_columns.ptr<int>();
  args.fractions = resize_fractions.ptr<float>();
  args.scale_y = 1.0 / (static_cast<double>(to.height) / from.height);
  Mat components[2] = {Ux[at], Uy[at]};
  for (std::size_t i = 0; i < 2; ++i) {
    // Two columns are read at a time.
    if (from.width == 1) copyMakeBorder(components[i], components[i], 0, 0, 0, 1, BORDER_REPLICATE);
    args.source[i] = components[i].ptr<float>();
    args.source_stride[i] = static_cast<std::ptrdiff_t>(components[i].step1());
    if (i < outs.size()) {
      args.out[i] = const_cast<float*>(outs[i].ptr<float>());
      args.out_stride[i] = static_cast<std::ptrdiff_t>(outs[i].step1());
    }
  }
  findColumns(from.width, to.width);
  const auto most =
      static_cast<int>(std::max<std::size_t>(outs[0].total() / kMinPixelsPerStripe, 1));
  const kernels::Kernels& table = kernels::activeKernels();
  forStripes(to.height, std::min(resize_rows.rows, most), /*shared=*/true,
             [&](int begin, int end, int stripe) {
               table.resize(args, begin, end, resize_rows.ptr<float>(stripe));
             });
}

/// For each column of a row scaled to `to` columns: the left one of the two that it lies between,
/// and the fraction of the right one.
void DISOpticalFlowImpl::findColumns(int from, int to) {
  const double scale = 1.0 / (static_cast<double>(to) / from);
  int* const columns = resize_columns.ptr<int>();
  float* const fractions = resize_fractions.ptr<float>();
  for (int x = 0; x < to; ++x) {
    const auto position = static_cast<float>((x + 0.5) * scale - 0.5);
    columns[x] = std::min(std::max(cvFloor(position), 0), std::max(from - 2, 0));
    fractions[x] = std::min(std::max(position - static_cast<float>(columns[x]), 0.0F), 1.0F);
  }
}

}  // namespace cv::optflow::lum
