#include "variational_refinement.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <numeric>
#include <thread>
#include <vector>

#include "flow_kernels.h"
#include "huge_pages.h"
#include "simd/parallel_for.h"

namespace cv::optflow::lum {
namespace {

using kernels::Band;
using kernels::Kernels;
using kernels::kFlowHalves;
using kernels::kNaturalPlanes;
using kernels::kNaturalRows;
using kernels::kPad;
using kernels::kRowHalves;
using kernels::kSolverHalves;
using kernels::RefineArgs;

/// Below this many pixels per task the tasks cost more than they save.
constexpr int kMinPixelsPerBand = 3000;

constexpr int kLargestSide = 16384;  // offsets into the second image are 32 bits wide
constexpr int kMostSweeps = 1000;

/// Half rows of the solver that a group of half sweeps may hold in the nearest cache.
constexpr int kGroupBytes = 32 << 10;
constexpr int kBlockSteps = 16;

/// The largest of the three weights is scaled to this, that of the defaults.
constexpr float kLargestWeight = 20.0F;
/// Pull of each pixel towards the flow that the first warp starts from; stronger for each next one,
/// so that the flow settles. At the minimum of the energy itself it is smoother than motions are:
/// the error falls for ten iterations and would rise again.
constexpr float kPull = 0.1F;
constexpr float kLargestPull = 1e5F;  // nothing moves any more

int aligned(int count) { return (count + 15) / 16 * 16; }

/// Floats of a row. Rows whose distance is about a multiple of a page are moved apart: their equal
/// columns share lines of the nearest cache and look alike to the processor's check whether a load
/// depends on a store.
int rowStride(int floats) {
  constexpr int kLine = 16;
  constexpr int kPage = 64;
  constexpr int kNear = 8;
  constexpr int kApart = 19;
  const int lines = (floats + kLine - 1) / kLine;
  const int beyond = (lines + kNear) % kPage - kNear;
  const bool near = lines >= kPage - kNear && beyond < kNear;
  return (near ? lines + kApart - beyond : lines) * kLine;
}

/// Rows of planes, zero at first: what lies beside the pixels is read and must be finite.
void createZeroed(Mat& mat, int rows, int cols, int type = CV_32FC1) {
  if (mat.rows == rows && mat.cols == cols) return;
  mat.create(rows, cols, type);
  adviseHugePages(mat);
  mat.setTo(0);
}

/// Calls `work(band, phase)` for every band and each of its phases in turn, in parallel. A phase
/// starts when the band and the two beside it, whose rows it reads, have done the one before.
///
/// Each worker prefers its own band and takes over one that no worker has begun: the phase that
/// another one waits for is thus done or in the hands of a running worker, however few of them
/// come. `begun` and `done` count each band's phases.
template <typename Work>
void runBands(std::vector<std::atomic<int>>& begun, std::vector<std::atomic<int>>& done, int phases,
              const Work& work) {
  for (std::atomic<int>& count : begun) count.store(0, std::memory_order_relaxed);
  for (std::atomic<int>& count : done) count.store(0, std::memory_order_relaxed);
  const std::size_t bands = begun.size();
  const auto isDone = [&](std::size_t band, int count) {
    return done[band].load(std::memory_order_acquire) >= count;
  };
  const auto isReady = [&](std::size_t band, int phase) {
    return isDone(band, phase) && (band == 0 || isDone(band - 1, phase)) &&
           (band + 1 == bands || isDone(band + 1, phase));
  };
  ::lum::simd::ParallelFor(static_cast<int>(bands), [&](int worker) {
    for (bool finished = false; !finished;) {
      finished = true;
      bool worked = false;
      for (std::size_t i = 0; i < bands && !worked; ++i) {
        const std::size_t band = (static_cast<std::size_t>(worker) + i) % bands;
        finished = finished && isDone(band, phases);
        int phase = begun[band].load(std::memory_order_relaxed);
        if (phase == phases || !isReady(band, phase)) continue;
        if (!begun[band].compare_exchange_strong(phase, phase + 1)) continue;
        worked = true;
        work(static_cast<int>(band), phase);
        done[band].store(phase + 1, std::memory_order_release);
      }
      if (worked) {
        finished = false;
      } else if (!finished) {
        std::this_thread::yield();
      }
    }
  });
}

void requireFiniteNonNegative(float value, const char* message) {
  if (!(value >= 0.0F) || !std::isfinite(value)) CV_Error(Error::StsOutOfRange, message);
}

}  // namespace

Ptr<VariationalRefinement> VariationalRefinement::create() {
  return makePtr<VariationalRefinement>();
}

void VariationalRefinement::collectGarbage() {
  for (Mat* mat :
       {&second_, &flow_[0], &flow_[1], &natural_, &solver_, &row_, &edge_sums_, &edge_masks_}) {
    mat->release();
  }
  size_ = Size();
}

void VariationalRefinement::checkParameters() const {
  requireFiniteNonNegative(alpha_, "alpha must be finite and at least 0");
  requireFiniteNonNegative(delta_, "delta must be finite and at least 0");
  requireFiniteNonNegative(gamma_, "gamma must be finite and at least 0");
  if (std::min(iterations_, least_warps_) < 0) {
    CV_Error(Error::StsOutOfRange, "iterations and warps must be at least 0");
  }
  if (!(pull_growth_ >= 1.0F && std::isfinite(pull_growth_))) {
    CV_Error(Error::StsOutOfRange, "pull growth must be finite and at least 1");
  }
  if (sweeps_ < 1 || sweeps_ > kMostSweeps) {
    CV_Error(Error::StsOutOfRange, "solver sweeps must be 1 to 1000");
  }
  if (!(omega_ > 0.0F && omega_ < 2.0F)) {
    CV_Error(Error::StsOutOfRange, "relaxation must be above 0 and below 2");
  }
}

int VariationalRefinement::warpCount() const {
  const int wanted = std::max(iterations_, least_warps_);
  int warps = 0;
  for (float pull = kPull; warps < wanted && pull < kLargestPull; pull *= pull_growth_) ++warps;
  return warps;
}

void VariationalRefinement::allocate(Size size, int bands) {
  const int w = size.width;
  const int h = size.height;
  if (size != size_) {
    // What a smaller image left beside the pixels of a larger one must not stay.
    collectGarbage();
    size_ = size;
  }
  // Two vectors after each row: the last of a row is read and written whole.
  const int natural_cols = rowStride(kPad + aligned(w) + 3 * kPad);
  const int half_cols = rowStride(kPad + aligned((w + 1) / 2) + 2 * kPad);
  second_.create(h + 3, aligned(w + 3), CV_8UC1);
  for (Mat& flow : flow_) createZeroed(flow, (h + 2) * kFlowHalves, half_cols);
  createZeroed(natural_, bands * kNaturalRows * kNaturalPlanes, natural_cols);
  createZeroed(solver_, bands * (solver_rows_ * kSolverHalves + 1), half_cols);
  createZeroed(row_, bands * kRowHalves, half_cols);
  edge_sums_.create(1, h, CV_64FC1);
  if (begun_.size() != static_cast<std::size_t>(bands)) {
    begun_ = std::vector<std::atomic<int>>(static_cast<std::size_t>(bands));
    done_ = std::vector<std::atomic<int>>(static_cast<std::size_t>(bands));
  }
  if (edge_masks_.cols != half_cols) {
    createZeroed(edge_masks_, 6, half_cols);
    for (int odd = 0; odd < 2; ++odd) {
      float* has_left = edge_masks_.ptr<float>(odd);
      float* has_right = edge_masks_.ptr<float>(2 + odd);
      float* exists = edge_masks_.ptr<float>(4 + odd);
      for (int x = odd; x < w; x += 2) {
        has_left[x / 2] = x > 0 ? 1.0F : 0.0F;
        has_right[x / 2] = x + 1 < w ? 1.0F : 0.0F;
        exists[x / 2] = 1.0F;
      }
    }
  }
}

/// Chooses the order of the half sweeps and the rows of the solver's ring.
void VariationalRefinement::planSolver(int width) {
  // A group of g half sweeps reads systems of g half rows and the two unknowns of both colours in
  // g + 1 rows.
  const int half_row = (width + 1) / 2 * static_cast<int>(sizeof(float));
  const auto bytes = [&](int sweeps) { return (9 * sweeps + 4 * (sweeps + 1)) * half_row; };
  group_sweeps_ = 2;
  while (group_sweeps_ < 2 * sweeps_ && bytes(group_sweeps_ + 2) <= kGroupBytes) group_sweeps_ += 2;
  const bool fits = bytes(group_sweeps_) <= kGroupBytes;
  if (!fits) group_sweeps_ = 2 * sweeps_;
  block_steps_ = fits ? kBlockSteps : 1;
  solver_rows_ = 4;
  while (solver_rows_ < 2 * sweeps_ + block_steps_ + 2) solver_rows_ *= 2;
}

RefineArgs VariationalRefinement::refineArgs(const Mat& i0, Mat& u, Mat& v) {
  RefineArgs args{};
  args.w = i0.cols;
  args.h = i0.rows;
  args.natural_stride = natural_.cols;
  args.half_stride = solver_.cols;
  args.i0 = i0.ptr();
  args.i0_stride = static_cast<std::ptrdiff_t>(i0.step);
  args.u = u.ptr<float>();
  args.v = v.ptr<float>();
  args.u_stride = static_cast<std::ptrdiff_t>(u.step1());
  args.v_stride = static_cast<std::ptrdiff_t>(v.step1());
  args.second = second_.ptr();
  args.second_stride = static_cast<std::ptrdiff_t>(second_.step);
  args.edge_sums = edge_sums_.ptr<double>();
  for (int i = 0; i < 2; ++i) {
    args.flow[i] = flow_[i].ptr<float>(kFlowHalves) + kPad;
    args.has_left[i] = edge_masks_.ptr<float>(i);
    args.has_right[i] = edge_masks_.ptr<float>(2 + i);
    args.exists[i] = edge_masks_.ptr<float>(4 + i);
  }
  // Only the ratios of the weights count: scaled, no product of theirs leaves the range.
  const float scale = std::max({alpha_, delta_, gamma_}) / kLargestWeight;
  args.alpha = alpha_ / scale;
  args.delta = delta_ / scale;
  args.gamma = gamma_ / scale;
  args.omega = omega_;
  args.half_sweeps = 2 * sweeps_;
  return args;
}

Band VariationalRefinement::bandAt(int index, int bands) {
  const auto begin = [&](int i) {
    return static_cast<int>(static_cast<int64>(size_.height) * i / bands);
  };
  Band band{};
  band.begin = begin(index);
  band.end = begin(index + 1);
  band.natural = natural_.ptr<float>(index * kNaturalRows * kNaturalPlanes) + kPad;
  band.row = row_.ptr<float>(index * kRowHalves) + kPad;
  const int solver_halves = solver_rows_ * kSolverHalves;
  band.solver = solver_.ptr<float>(index * (solver_halves + 1)) + kPad;
  band.zeros = solver_.ptr<float>(index * (solver_halves + 1) + solver_halves) + kPad;
  band.solver_rows = solver_rows_;
  band.block_steps = block_steps_;
  band.group_sweeps = group_sweeps_;
  return band;
}

void VariationalRefinement::refine(const Mat& i0, const Mat& i1, Mat& u, Mat& v) {
  CV_Assert(i0.type() == CV_8UC1 && i1.type() == CV_8UC1);
  CV_Assert(u.type() == CV_32FC1 && v.type() == CV_32FC1);
  CV_Assert(i0.size() == i1.size() && i0.size() == u.size() && i0.size() == v.size());
  CV_Assert(i0.cols <= kLargestSide && i0.rows <= kLargestSide);
  checkParameters();
  const bool has_terms = std::max({alpha_, delta_, gamma_}) > 0.0F;
  if (i0.empty() || iterations_ == 0 || !has_terms) return;

  const Size size = i0.size();
  const int halo = 2 * sweeps_;
  const double pixels = static_cast<double>(size.width) * size.height;
  const int bands =
      std::max(1, std::min({getNumThreads(), size.height / (2 * halo),
                            static_cast<int>(std::min(pixels / kMinPixelsPerBand, 1024.0))}));
  planSolver(size.width);
  allocate(size, bands);
  Mat second = second_.colRange(0, size.width + 3);
  copyMakeBorder(i1, second, 1, 2, 1, 2, BORDER_REPLICATE | BORDER_ISOLATED);
  RefineArgs args = refineArgs(i0, u, v);
  const Kernels& table = kernels::activeKernels();
  ::lum::simd::ParallelFor(bands,
                           [&](int band) { table.beginRefinement(args, bandAt(band, bands)); });
  // Edges count as many in all as without weights, whatever the image.
  const double edges = 2 * pixels - size.width - size.height;
  const double sum = std::accumulate(args.edge_sums, args.edge_sums + size.height, 0.0);
  if (sum > 0.0) args.alpha *= static_cast<float>(edges / sum);

  const int warps = warpCount();
  runBands(begun_, done_, warps, [&](int band, int warp) {
    RefineArgs now = args;
    now.pull = kPull * std::pow(pull_growth_, static_cast<float>(warp));
    table.solve(now, bandAt(band, bands), warp, warp + 1 == warps);
  });
}

}  // namespace cv::optflow::lum
