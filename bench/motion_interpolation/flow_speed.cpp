// Speed of the optical flow against plain scalar loops of the same rules, in one run.
//
//   flow_speed [FOLDER]
//
// FOLDER holds img0.pgm and img1.pgm of 1024 x 436 (other sizes are scaled to it); without it a
// synthetic pair serves. Every figure is the median of several runs that alternate between both
// sides; results of both sides are compared before anything is timed.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <exception>
#include <functional>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "../../tests/motion_interpolation/reference_flow.h"
#include "flow_io.h"
#include "motionInterpolation/dis_flow.h"
#include "motionInterpolation/flow_kernels.h"

namespace {

namespace kernels = cv::optflow::lum::kernels;
using Clock = std::chrono::steady_clock;

struct Images {
  cv::Mat i0, i1;
};

Images syntheticPair(cv::Size size) {
  cv::Mat noise(size.height / 4, size.width / 4, CV_8UC1);
  cv::RNG rng(1);
  rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
  Images images;
  cv::resize(noise, images.i0, size, 0, 0, cv::INTER_CUBIC);
  const cv::Matx23d motion(1.01, 0.005, -3.0, -0.005, 1.01, 2.0);
  cv::warpAffine(images.i0, images.i1, motion, size, cv::INTER_LINEAR, cv::BORDER_REFLECT_101);
  return images;
}

Images scaledTo(const Images& images, cv::Size size) {
  Images scaled;
  cv::resize(images.i0, scaled.i0, size, 0, 0, cv::INTER_CUBIC);
  cv::resize(images.i1, scaled.i1, size, 0, 0, cv::INTER_CUBIC);
  return scaled;
}

/// Processor time of this thread, in milliseconds: for stages on one thread it leaves out what
/// other programs take meanwhile.
double threadMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

double wallMilliseconds() {
  return std::chrono::duration<double, std::milli>(Clock::now().time_since_epoch()).count();
}

/// Medians in milliseconds of functions that are run in turns, so that a slow moment of the machine
/// meets all of them.
std::vector<double> medians(const std::vector<std::function<void()>>& functions, int rounds,
                            double (*milliseconds)()) {
  std::vector<std::vector<double>> times(functions.size());
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < functions.size(); ++i) {
      const double start = milliseconds();
      functions[i]();
      times[i].push_back(milliseconds() - start);
    }
  }
  std::vector<double> result;
  for (std::vector<double>& values : times) {
    std::sort(values.begin(), values.end());
    result.push_back(values[values.size() / 2]);
  }
  return result;
}

/// One scale prepared for the kernels, with the flow that search starts from.
struct Scale {
  Scale(const Images& images, const cv::Mat& flow) : level(images.i0, images.i1), start(flow) {
    const int patches = lum_reference::gridSide(images.i0.cols, params) *
                        lum_reference::gridSide(images.i0.rows, params);
    for (cv::Mat* mat : {&sx, &sy, &xx, &yy, &xy, &x, &y}) mat->create(1, patches, CV_32F);
    weights.create(images.i0.size(), CV_32F);
    scratch.create(1, 5 * images.i0.cols, CV_32S);
    u.create(images.i0.size(), CV_32F);
    v.create(images.i0.size(), CV_32F);
    cv::split(start, start_components);
  }

  kernels::SearchArgs args() {
    kernels::SearchArgs a{};
    const auto stride = [](const cv::Mat& mat) { return std::ptrdiff_t(mat.step1()); };
    a.i0 = level.i0.ptr();
    a.i0_stride = stride(level.i0);
    a.i1 = level.i1.ptr();
    a.i1_stride = stride(level.i1);
    a.i1_ext = level.i1_ext.ptr();
    a.i1_ext_stride = stride(level.i1_ext);
    a.ix = level.ix.ptr<short>();
    a.iy = level.iy.ptr<short>();
    a.grad_stride = stride(level.ix);
    a.ux = u.ptr<float>();
    a.uy = v.ptr<float>();
    a.u_stride = stride(u);
    a.weight_sums = weights.ptr<float>();
    a.sx = sx.ptr<float>();
    a.sy = sy.ptr<float>();
    a.xx = xx.ptr<float>();
    a.yy = yy.ptr<float>();
    a.xy = xy.ptr<float>();
    a.x = x.ptr<float>();
    a.y = y.ptr<float>();
    a.w = level.i0.cols;
    a.h = level.i0.rows;
    a.ws = lum_reference::gridSide(a.w, params);
    a.hs = lum_reference::gridSide(a.h, params);
    a.patch_size = params.patch_size;
    a.patch_stride = params.patch_stride;
    a.border = lum_reference::kBorder;
    a.passes = 2;
    a.inner_iterations = params.iterations / 2;
    a.mean_normalization = params.mean_normalization;
    a.spatial_propagation = params.spatial_propagation;
    return a;
  }

  void search(const kernels::Kernels& set) {
    const kernels::SearchArgs a = args();
    start_components[0].copyTo(u);
    start_components[1].copyTo(v);
    set.structureTensor(a, 0, a.hs, scratch.ptr<int>());
    const int rows = (a.hs + 7) / 8;
    for (int row = 0; row < a.hs; row += rows) set.search(a, row, std::min(row + rows, a.hs));
  }
  void densify(const kernels::Kernels& set) { set.densify(args(), 0, level.i0.rows); }

  lum_reference::SearchParams params;
  lum_reference::Level level;
  cv::Mat start, start_components[2];
  cv::Mat u, v, weights, scratch, sx, sy, xx, yy, xy, x, y;
};

double meanDifference(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat difference;
  cv::absdiff(a, b, difference);
  const cv::Scalar mean = cv::mean(difference);
  return mean[0] + mean[1];
}

std::vector<const kernels::Kernels*> vectorKernels() {
  std::vector<const kernels::Kernels*> sets{&kernels::kBaselineKernels};
#ifdef LUM_HAVE_AVX2_KERNELS
  if (kernels::isSupported(kernels::kAvx2Kernels)) sets.push_back(&kernels::kAvx2Kernels);
#endif
#ifdef LUM_HAVE_AVX512_KERNELS
  if (kernels::isSupported(kernels::kAvx512Kernels)) sets.push_back(&kernels::kAvx512Kernels);
#endif
  return sets;
}

/// Search, densification and refinement of the default finest scale, one thread.
void compareStages(const Images& full, int rounds) {
  cv::setNumThreads(1);
  const cv::Size size(full.i0.cols / 4, full.i0.rows / 4);
  Images images;
  cv::resize(full.i0, images.i0, size, 0, 0, cv::INTER_AREA);
  cv::resize(full.i1, images.i1, size, 0, 0, cv::INTER_AREA);
  // What the coarser scales hand down.
  const lum_reference::SearchParams params;
  cv::Mat start;
  cv::resize(lum_reference::denseFlow(images.i0, images.i1, params, 1), start, size);
  Scale scale(images, start);
  cv::Mat patches;
  cv::Mat dense;
  cv::Mat refined;
  const lum_reference::RefineParams refine_params;

  for (const kernels::Kernels* set : vectorKernels()) {
    kernels::forceKernels(set);
    const auto refinement = cv::optflow::lum::VariationalRefinement::create();
    cv::Mat ru;
    cv::Mat rv;
    const std::vector<std::function<void()>> functions = {
        [&] { patches = lum_reference::search(scale.level, params, start, cv::Mat()); },
        [&] { scale.search(*set); },
        [&] { dense = lum_reference::densify(scale.level, params, patches); },
        [&] { scale.densify(*set); },
        [&] {
          refined =
              lum_reference::Refinement(images.i0, images.i1, dense, refine_params).minimise(dense);
        },
        [&] {
          scale.u.copyTo(ru);
          scale.v.copyTo(rv);
          refinement->refine(images.i0, images.i1, ru, rv);
        }};
    for (const auto& function : functions) function();
    const auto merged = [](const cv::Mat& u, const cv::Mat& v) {
      cv::Mat flow;
      cv::merge(std::vector<cv::Mat>{u, v}, flow);
      return flow;
    };
    const double dense_difference = meanDifference(merged(scale.u, scale.v), dense);
    const double refined_difference = meanDifference(merged(ru, rv), refined);
    const std::vector<double> ms = medians(functions, rounds, threadMilliseconds);
    std::printf(
        "%4d x %-4d %-9s search %7.2f -> %6.3f ms (%.1fx)  densify %6.2f -> %6.3f ms (%.1fx)"
        "  both %.1fx  refine %7.2f -> %6.3f ms (%.1fx)  mean differences %.1e, %.1e px\n",
        full.i0.cols, full.i0.rows, set->name, ms[0], ms[1], ms[0] / ms[1], ms[2], ms[3],
        ms[2] / ms[3], (ms[0] + ms[2]) / (ms[1] + ms[3]), ms[4], ms[5], ms[4] / ms[5],
        dense_difference, refined_difference);
    kernels::forceKernels(nullptr);
  }
}

void compareThreads(const Images& images, int rounds) {
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  cv::Mat flow;
  const auto run = [&](int threads, int refinement) {
    return [&, threads, refinement] {
      cv::setNumThreads(threads);
      engine->setVariationalRefinementIterations(refinement);
      flow.release();
      engine->calc(images.i0, images.i1, flow);
    };
  };
  const std::vector<std::function<void()>> functions = {run(1, 5), run(2, 5), run(1, 0), run(2, 0)};
  for (const auto& function : functions) function();
  const std::vector<double> ms = medians(functions, rounds, wallMilliseconds);
  const double megapixels = double(images.i0.total()) * 1e-6;
  std::printf(
      "%4d x %-4d defaults: 1 thread %8.2f ms (%.2f ms per megapixel), 2 threads %8.2f ms "
      "(%.2fx); without refinement %7.2f, %7.2f ms (%.2fx)\n",
      images.i0.cols, images.i0.rows, ms[0], ms[0] / megapixels, ms[1], ms[0] / ms[1], ms[2], ms[3],
      ms[2] / ms[3]);
}

int run(const std::vector<std::string>& args) {
  Images base;
  if (args.empty()) {
    base = syntheticPair({1024, 436});
  } else {
    base.i0 = lum_bench::readPgm(args[0] + "/img0.pgm");
    base.i1 = lum_bench::readPgm(args[0] + "/img1.pgm");
  }
  std::printf("kernels in use: %s\n", kernels::activeKernels().name);
  compareStages(scaledTo(base, {1024, 436}), 15);
  compareStages(scaledTo(base, {1920, 1080}), 7);
  compareThreads(scaledTo(base, {1024, 436}), 25);
  compareThreads(scaledTo(base, {1920, 1080}), 11);
  compareThreads(scaledTo(base, {3840, 2160}), 5);
  compareThreads(scaledTo(base, {7680, 4320}), 3);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "flow_speed: %s\n", error.what());
    return 1;
  }
}
