// Speed of the optical flow against plain scalar loops of the same rules, in one run.
//
//   flow_speed [FOLDER]
//
// FOLDER holds img0.pgm and img1.pgm of 1024 x 436 (other sizes are scaled to it); without it a
// synthetic pair serves. Every figure is the median of several calls that alternate between both
// sides, whose results are compared. Then whole calls from 512 x 218 to 8K, with one thread and
// two, into fresh memory and into memory that is kept, and where their time goes. Tables are in
// Markdown.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "flow_io.h"
#include "flow_program.h"
#include "motionInterpolation/dis_flow.h"
#include "motionInterpolation/flow_kernels.h"

namespace {

constexpr char kHelp[] =
    "usage: flow_speed [FOLDER]\n"
    "Speed of the optical flow against plain scalar loops of the same rules, on img0.pgm and\n"
    "img1.pgm in FOLDER, else on a synthetic pair.\n";

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

/// Processor time of this thread, in milliseconds: it leaves out what other programs take.
double threadMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

double wallMilliseconds() {
  return std::chrono::duration<double, std::milli>(Clock::now().time_since_epoch()).count();
}

/// Milliseconds spent in the kernels of the stages of one thread.
struct StageTimes {
  double search = 0, densification = 0, refinement = 0, scaling = 0;
};
StageTimes g_times;
const kernels::Kernels* g_timed = nullptr;

template <typename Function>
void addTime(double& sum, const Function& function) {
  const double start = threadMilliseconds();
  function();
  sum += threadMilliseconds() - start;
}

/// The kernels of `g_timed` with a clock around each.
const kernels::Kernels kTimedKernels = {
    "timed",
    [](const kernels::SearchArgs& args, int begin, int end, std::int32_t* scratch) {
      addTime(g_times.search, [&] { g_timed->structureTensor(args, begin, end, scratch); });
    },
    [](const kernels::SearchArgs& args, int begin, int end) {
      addTime(g_times.search, [&] { g_timed->search(args, begin, end); });
    },
    [](const kernels::SearchArgs& args, int begin, int end) {
      addTime(g_times.densification, [&] { g_timed->densify(args, begin, end); });
    },
    [](const kernels::ResizeArgs& args, int begin, int end, float* scratch) {
      addTime(g_times.scaling, [&] { g_timed->resize(args, begin, end, scratch); });
    },
    [](const kernels::RefineArgs& args, const kernels::Band& band) {
      addTime(g_times.refinement, [&] { g_timed->beginRefinement(args, band); });
    },
    [](const kernels::RefineArgs& args, const kernels::Band& band, int iteration, bool last) {
      addTime(g_times.refinement, [&] { g_timed->solve(args, band, iteration, last); });
    }};

double medianOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double meanDifference(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat difference;
  cv::absdiff(a, b, difference);
  const cv::Scalar mean = cv::mean(difference);
  return mean[0] + mean[1];
}

/// The stages of whole calls on one thread, by the plain loops and by every other set in turns.
void compareStages(const Images& images, int rounds) {
  cv::setNumThreads(1);
  kernels::forceKernels(&kTimedKernels);
  for (const kernels::Kernels* const* set = kernels::supportedKernels(); *set != nullptr; ++set) {
    if (*set == &kernels::kPlainKernels) continue;
    const kernels::Kernels* const sides[2] = {&kernels::kPlainKernels, *set};
    constexpr double StageTimes::*kStages[] = {&StageTimes::search, &StageTimes::densification,
                                               &StageTimes::refinement, &StageTimes::scaling};
    std::vector<double> times[4][2];
    cv::Mat flows[2];
    const auto engine = cv::optflow::lum::DISOpticalFlow::create();
    engine->setUseInitialFlow(false);
    for (int round = 0; round <= rounds; ++round) {
      for (std::size_t side = 0; side < 2; ++side) {
        g_timed = sides[side];
        g_times = StageTimes();
        engine->calc(images.i0, images.i1, flows[side]);
        for (std::size_t i = 0; i < 4 && round > 0; ++i) {
          times[i][side].push_back(g_times.*kStages[i]);
        }
      }
    }
    std::printf("| %d x %d | %s |", images.i0.cols, images.i0.rows, (*set)->name);
    for (const auto& stage : times) {
      const double plain = medianOf(stage[0]);
      const double own = medianOf(stage[1]);
      std::printf(" %.2f, %.2f ms: %.1fx |", plain, own, plain / own);
    }
    std::printf(" %.0e px |\n", meanDifference(flows[0], flows[1]));
  }
  kernels::forceKernels(nullptr);
}

/// What `calc` does before its first patch, at the default finest scale.
void preparePyramids(const Images& images, std::vector<cv::Mat>& buffers) {
  constexpr int kFinest = 2;
  constexpr int kPatch = 8;
  buffers.resize(64);
  const cv::Mat* levels[2] = {&images.i0, &images.i1};
  std::size_t next = 0;
  for (int i = 0; (images.i0.cols >> i) >= 2 * kPatch && (images.i0.rows >> i) > 0; ++i) {
    const cv::Size size(images.i0.cols >> i, images.i0.rows >> i);
    for (const cv::Mat*& level : levels) {
      if (i == 0) continue;
      cv::resize(*level, buffers[next], size, 0, 0, cv::INTER_AREA);
      level = &buffers[next++];
    }
    if (i < kFinest) continue;
    cv::spatialGradient(*levels[0], buffers[next], buffers[next + 1]);
    cv::copyMakeBorder(*levels[1], buffers[next + 2], 16, 16, 16, 16, cv::BORDER_REPLICATE);
    next += 3;
  }
}

/// Where the time of whole calls goes on one thread.
void profile(const Images& images, int rounds) {
  cv::setNumThreads(1);
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  g_timed = &kernels::activeKernels();
  kernels::forceKernels(&kTimedKernels);
  engine->setUseInitialFlow(false);
  cv::Mat flow;
  cv::Mat warm(images.i0.size(), CV_32FC2, cv::Scalar::all(1));
  cv::Mat copy = warm.clone();
  std::vector<cv::Mat> buffers;
  std::vector<double> pyramids, search, densification, refinement, scaling, total, copies;
  for (int round = 0; round <= rounds; ++round) {
    g_times = StageTimes();
    double times[3] = {};
    addTime(times[0], [&] { preparePyramids(images, buffers); });
    addTime(times[1], [&] { engine->calc(images.i0, images.i1, flow); });
    addTime(times[2], [&] { warm.copyTo(copy); });
    if (round == 0) continue;  // allocates what is kept between calls
    pyramids.push_back(times[0]);
    total.push_back(times[1]);
    copies.push_back(times[2]);
    search.push_back(g_times.search);
    densification.push_back(g_times.densification);
    refinement.push_back(g_times.refinement);
    scaling.push_back(g_times.scaling);
  }
  kernels::forceKernels(nullptr);
  const double all = medianOf(total);
  const double pixels = double(images.i0.total()) / 16 * 4 / 3;  // of all scales from 1/4 on
  const double output = double(images.i0.total()) * 8;
  std::printf("%4d x %-4d profile, 1 thread, %s: %.2f ms; memcpy moves %.1f GB/s\n", images.i0.cols,
              images.i0.rows, g_timed->name, all, 2e-6 * output / medianOf(copies));
  const auto line = [&](const char* stage, double ms, const std::string& bound) {
    std::printf("    %-22s %8.2f ms %5.1f %%  %s\n", stage, ms, 100 * ms / all, bound.c_str());
  };
  const auto text = [](const char* format, double a, double b) {
    char buffer[160];
    std::snprintf(buffer, sizeof buffer, format, a, b);
    return std::string(buffer);
  };
  line("pyramids, gradients", medianOf(pyramids),
       text("reads %.1f GB/s, OpenCV's", 2e-6 * double(images.i0.total()) / medianOf(pyramids), 0));
  line("search", medianOf(search),
       text("%.0f ns per patch", 1e6 * medianOf(search) / (pixels / 16), 0));
  line("densification", medianOf(densification),
       text("%.1f ns per pixel", 1e6 * medianOf(densification) / pixels, 0));
  line("refinement", medianOf(refinement),
       text("%.0f ns per pixel", 1e6 * medianOf(refinement) / pixels, 0));
  line("upscaling and output", medianOf(scaling),
       text("copying the output %.2f ms", medianOf(copies), 0));
}

/// Whole calls in runs of `rounds` with one thread and with two, in turns. The first calls of a run
/// do not count: OpenCV starts its threads anew when their number changes, and the system moves
/// them to processors of their own.
void compareThreads(const Images& images, int rounds) {
  constexpr int kTurns = 5;
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  engine->setUseInitialFlow(false);
  cv::Mat flow;
  std::vector<double> times[2];
  for (int turn = 0; turn < kTurns; ++turn) {
    for (int threads = 1; threads <= 2; ++threads) {
      cv::setNumThreads(threads);
      for (int i = -rounds / 2 - 1; i < rounds; ++i) {
        const double start = wallMilliseconds();
        engine->calc(images.i0, images.i1, flow);
        if (i >= 0) times[threads - 1].push_back(wallMilliseconds() - start);
      }
    }
  }
  const double one = medianOf(times[0]);
  const double two = medianOf(times[1]);
  const double megapixels = double(images.i0.total()) * 1e-6;
  std::printf("| %d x %d | %.2f ms, %.1f ms | %.2f ms, %.2fx |", images.i0.cols, images.i0.rows,
              one, one / megapixels, two, one / two);
}

/// Whole calls on one thread that write to fresh memory, and those that write to a kept matrix, in
/// turns: processor time and page faults.
void compareOutputs(const Images& images, int rounds) {
  cv::setNumThreads(1);
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  engine->setUseInitialFlow(false);
  cv::Mat kept;
  std::vector<double> times[2], faults[2];
  for (int round = 0; round <= rounds; ++round) {
    for (const bool keeps : {false, true}) {
      cv::Mat fresh;
      rusage before{};
      rusage after{};
      double time = 0.0;
      getrusage(RUSAGE_THREAD, &before);
      addTime(time, [&] { engine->calc(images.i0, images.i1, keeps ? kept : fresh); });
      getrusage(RUSAGE_THREAD, &after);
      if (round == 0) continue;
      times[keeps ? 1 : 0].push_back(time);
      faults[keeps ? 1 : 0].push_back(static_cast<double>(after.ru_minflt - before.ru_minflt));
    }
  }
  for (std::size_t i = 0; i < 2; ++i) {
    std::printf(" %.2f ms, %.0f |", medianOf(times[i]), medianOf(faults[i]));
  }
  std::printf("\n");
}

int run(const std::vector<std::string>& args) {
  Images base;
  if (args.empty()) {
    base = syntheticPair({1024, 436});
  } else {
    base.i0 = lum_bench::readGrey(args[0] + "/img0.pgm");
    base.i1 = lum_bench::readGrey(args[0] + "/img1.pgm");
  }
  std::printf("| Size | kernels | search | densification | refinement | scaling | apart |\n");
  std::printf("|---|---|---|---|---|---|---|\n");
  compareStages(scaledTo(base, {1024, 436}), 15);
  compareStages(scaledTo(base, {1920, 1080}), 7);
  struct Case {
    int width, height, rounds;
  };
  constexpr Case kCases[] = {
      {512, 218, 40}, {1024, 436, 40}, {1920, 1080, 10}, {3840, 2160, 3}, {7680, 4320, 1}};
  std::printf(
      "\n| Size | 1 thread, a megapixel | 2 threads | fresh output, faults | kept output |\n");
  std::printf("|---|---|---|---|---|\n");
  for (const Case& c : kCases) {
    const Images images = scaledTo(base, {c.width, c.height});
    compareThreads(images, c.rounds);
    compareOutputs(images, std::max(c.rounds, 5));
  }
  std::printf("\n");
  for (const Case& c : kCases) {
    profile(scaledTo(base, {c.width, c.height}), std::max(c.rounds, 5));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return lum_bench::runProgram(argc, argv, kHelp, run); }
