// Speed of the raw Bayer kernels as ratios to a baseline of the same run.
//
// Each round of a benchmark times its kernel and then its baselines on the same buffers, so that
// all of them meet the same load; the counters are medians over the rounds, the `_q1` and `_q3`
// ones quartiles. Rates count bytes read plus written, whole planes each.
//   vs_memcpy    kernel's rate / rate of memcpy of one mosaic, on as many threads
//   memcpy_GBps  that memcpy's rate: how much memory bandwidth others left
//   vs_scalar    time of the library's plain loops on one thread / kernel's time
// Before the clock starts the kernel's result is compared with the plain loops'.
//
// Outputs are reused, as they should be; the rows named fresh allocate them in each call.
//
// A benchmark's name ends in the backend or, for the processor with its instruction set forced, in
// the name of that set.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <string>
#include <vector>

#include "raw_bayer/raw_bayer.h"
#include "raw_bayer/row_kernels.h"

namespace lum::raw {
namespace {

constexpr int kWidth = 8000;
constexpr int kHeight = 6000;
constexpr int kThreads = 2;
constexpr int kBorder = 2;

template <typename Work>
double Seconds(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Bytes(const cv::Mat& image) { return static_cast<double>(image.total() * image.elemSize()); }

/// Copies a mosaic with memcpy, one block per thread.
void CopyInParallel(const cv::Mat& from, cv::Mat& to) {
  cv::parallel_for_(
      cv::Range(0, kThreads),
      [&](const cv::Range& range) {
        const std::size_t bytes = from.total() * from.elemSize();
        const std::size_t begin = bytes * static_cast<std::size_t>(range.start) / kThreads;
        const std::size_t end = bytes * static_cast<std::size_t>(range.end) / kThreads;
        std::memcpy(to.data + begin, from.data + begin, end - begin);
      },
      kThreads);
}

struct Figures {
  std::vector<double> values;
  void Report(benchmark::State& state, const std::string& name) {
    if (values.empty()) {
      return;
    }
    std::sort(values.begin(), values.end());
    state.counters[name] = values[values.size() / 2];
    state.counters[name + "_q1"] = values[values.size() / 4];
    state.counters[name + "_q3"] = values[values.size() * 3 / 4];
  }
};

/// Two images to copy between, touched before any timing.
struct CopyBuffers {
  cv::Mat from = cv::Mat(kHeight, kWidth, CV_16UC1, cv::Scalar(1));
  cv::Mat to = cv::Mat(kHeight, kWidth, CV_16UC1, cv::Scalar(2));
};

/// Where a benchmark runs; `kernels` is null for the backend's own choice.
struct Place {
  Backend backend;
  const kernels::Kernels* kernels;
};

bool Usable(benchmark::State& state, const Place& place) {
  const std::vector<Backend> available = AvailableBackends();
  if (std::find(available.begin(), available.end(), place.backend) == available.end()) {
    state.SkipWithError((std::string("no ") + BackendName(place.backend) + " device").c_str());
    return false;
  }
  cv::setNumThreads(kThreads);
  kernels::Force(place.kernels);
  return true;
}

/// Calls `work` with plain loops on one thread.
template <typename Work>
void Plainly(const Place& place, const Work& work) {
  kernels::Force(&kernels::kPlainKernels);
  cv::setNumThreads(1);
  work();
  cv::setNumThreads(kThreads);
  kernels::Force(place.kernels);
}

template <typename Reset, typename Kernel, typename Plain>
void Measure(benchmark::State& state, const Place& place, double bytes, const Reset& reset,
             const Kernel& kernel, const Plain& plain) {
  CopyBuffers copy;
  Figures vs_memcpy;
  Figures memcpy_rate;
  Figures vs_scalar;
  double all_scalar_s = 0;
  for ([[maybe_unused]] auto _ : state) {
    reset();
    const double kernel_s = Seconds(kernel);
    const double copy_s = Seconds([&] { CopyInParallel(copy.from, copy.to); });
    state.SetIterationTime(kernel_s);
    const double copy_rate = 2 * Bytes(copy.from) / copy_s;
    vs_memcpy.values.push_back(bytes / kernel_s / copy_rate);
    memcpy_rate.values.push_back(copy_rate / 1e9);
    if (vs_scalar.values.size() < 3 || all_scalar_s < 1.0) {  // Slow: a few are enough.
      double scalar_s = 0;
      Plainly(place, [&] { scalar_s = Seconds(plain); });
      all_scalar_s += scalar_s;
      vs_scalar.values.push_back(scalar_s / kernel_s);
    }
  }
  vs_memcpy.Report(state, "vs_memcpy");
  memcpy_rate.Report(state, "memcpy_GBps");
  vs_scalar.Report(state, "vs_scalar");
}

/// What a repair is measured on: a smooth scene with some noise, in which one of `samples_per_hot`
/// samples is hot.
struct Scene {
  const char* name;
  int level;
  int noise;
  int samples_per_hot;  // 1: nothing but hot ones, that is pure noise
  float rate;
};
constexpr Scene kScenes[] = {
    {"few", 4000, 100, 100000, 1.5F}, {"scene", 4000, 100, 1000, 1.5F},
    {"many", 4000, 100, 20, 1.5F},    {"noise", 0, 0, 1, 1.0F},
    {"dark", 20, 10, 1000, 1.5F},  // Quotients near the neighbours: the division decides.
};
constexpr const Scene& kNoise = kScenes[3];

cv::Mat Draw(const Scene& scene, int width = kWidth) {
  cv::RNG random(7);
  cv::Mat image(kHeight, width, CV_16UC1);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < width; ++x) {
      const int level = scene.level + (x + y) * scene.level / 16000 +
                        random.uniform(-scene.noise, scene.noise + 1);
      const bool hot = random.uniform(0, scene.samples_per_hot) == 0;
      image.at<std::uint16_t>(y, x) =
          static_cast<std::uint16_t>(hot ? random.uniform(0, 65536) : level);
    }
  }
  return image;
}

bool Same(const cv::Mat& a, const cv::Mat& b) { return cv::norm(a, b, cv::NORM_INF) == 0.0; }

using Fix = void (*)(cv::Mat&, float, Backend);

void Repair(benchmark::State& state, Fix fix, const Place& place, const Scene& scene) {
  if (!Usable(state, place)) {
    return;
  }
  const cv::Mat source = Draw(scene);
  cv::Mat image = source.clone();
  cv::Mat expected = source.clone();
  const auto plain = [&] { fix(expected, scene.rate, Backend::kProcessor); };
  fix(image, scene.rate, place.backend);
  Plainly(place, plain);
  if (!Same(image, expected)) {
    state.SkipWithError("result differs from the plain loops'");
    return;
  }
  Measure(
      state, place, 2 * Bytes(image),
      [&] {
        source.copyTo(image);
        source.copyTo(expected);
      },
      [&] { fix(image, scene.rate, place.backend); }, plain);
}

/// What is split: with planes whose rows are whole lines of the cache, or not.
struct Shape {
  const char* name;
  int width;
  bool fresh;
};
constexpr Shape kShapes[] = {
    {"", kWidth, false}, {"aligned/", kWidth + 2 * kBorder, false}, {"fresh/", kWidth, true}};

void Split(benchmark::State& state, const Place& place, const Shape& shape) {
  if (!Usable(state, place)) {
    return;
  }
  const cv::Mat raw = Draw(kNoise, shape.width);
  cv::Mat planes[3], g, r, b;
  const auto kernel = [&] { SplitRaw(raw, g, r, b, kBorder, place.backend); };
  const auto plain = [&] {
    SplitRaw(raw, planes[0], planes[1], planes[2], kBorder, Backend::kProcessor);
  };
  const auto reset = [&] {
    if (shape.fresh) g = cv::Mat(), r = cv::Mat(), b = cv::Mat();
  };
  kernel();
  Plainly(place, plain);
  if (!Same(g, planes[0]) || !Same(r, planes[1]) || !Same(b, planes[2])) {
    state.SkipWithError("result differs from the plain loops'");
    return;
  }
  Measure(state, place, Bytes(raw) + Bytes(g) + Bytes(r) + Bytes(b), reset, kernel, plain);
}

void Merge(benchmark::State& state, const Place& place) {
  if (!Usable(state, place)) {
    return;
  }
  const cv::Mat g = Draw(kNoise);
  const cv::Mat r = g(cv::Rect(0, 0, kWidth / 2, kHeight / 2)).clone();
  const cv::Mat b = g(cv::Rect(9, 9, kWidth / 2, kHeight / 2)).clone();
  cv::Mat expected, raw;
  const auto kernel = [&] { MergeRaw(g, r, b, raw, 0, place.backend); };
  const auto plain = [&] { MergeRaw(g, r, b, expected, 0, Backend::kProcessor); };
  kernel();
  Plainly(place, plain);
  if (!Same(raw, expected)) {
    state.SkipWithError("result differs from the plain loops'");
    return;
  }
  Measure(
      state, place, Bytes(g) + Bytes(r) + Bytes(b) + Bytes(raw), [] {}, kernel, plain);
}

template <typename Run>
void Register(const std::string& name, const Run& run) {
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(15);
}

void RegisterAll(const std::string& where, const Place& place) {
  for (const Shape& shape : kShapes) {
    Register(std::string("SplitRaw/") + shape.name + where,
             [place, &shape](benchmark::State& state) { Split(state, place, shape); });
  }
  Register("MergeRaw/" + where, [place](benchmark::State& state) { Merge(state, place); });
  for (const Scene& scene : kScenes) {
    const std::string what = std::string("/") + scene.name + "/" + where;
    Register("FixBadPixels" + what, [place, &scene](benchmark::State& state) {
      Repair(state, FixBadPixels, place, scene);
    });
    Register("FixBadPixels2" + what, [place, &scene](benchmark::State& state) {
      Repair(state, FixBadPixels2, place, scene);
    });
  }
}

}  // namespace
}  // namespace lum::raw

int main(int argc, char** argv) {
  using lum::raw::Backend;
  for (const Backend backend : {Backend::kProcessor, Backend::kOpenCl, Backend::kCuda}) {
    lum::raw::RegisterAll(lum::raw::BackendName(backend), {backend, nullptr});
  }
  for (const auto* set = lum::raw::kernels::Supported(); *set != nullptr; ++set) {
    lum::raw::RegisterAll((*set)->name, {Backend::kProcessor, *set});
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
