// Speed of the CUDA split and merge on images that are on the device already, as a ratio to a
// device-to-device copy of one mosaic.
//
// Each round times the kernel and then the copy, both by events on the device; `vs_copy` is the
// median over the rounds of kernel's rate / copy's rate, where a rate counts bytes read plus
// written, whole planes each. Samples are not compared here: the tests do that.

#include <benchmark/benchmark.h>
#include <cuda_runtime.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "raw_bayer/cuda.h"

namespace lum::cuda_lum_raw {
namespace {

constexpr int kWidth = 8000;
constexpr int kHeight = 6000;
constexpr int kBorder = 2;

void Check(cudaError_t status) {
  if (status != cudaSuccess) {
    throw std::runtime_error(cudaGetErrorString(status));
  }
}

class DeviceImage {
 public:
  DeviceImage(int width, int height) : width_(width), height_(height) {
    Check(cudaMallocPitch(&data_, &step_, width * sizeof(std::uint16_t), height));
    Check(cudaMemset2D(data_, step_, 1, width * sizeof(std::uint16_t), height));
  }
  ~DeviceImage() { cudaFree(data_); }
  DeviceImage(const DeviceImage&) = delete;
  DeviceImage& operator=(const DeviceImage&) = delete;

  Image view() const { return {height_, width_, static_cast<std::uint16_t*>(data_), step_}; }
  double bytes() const { return static_cast<double>(width_) * height_ * sizeof(std::uint16_t); }
  void CopyTo(DeviceImage& other) const {
    Check(cudaMemcpyAsync(other.data_, data_, step_ * height_, cudaMemcpyDeviceToDevice));
  }
  double copied_bytes() const { return 2.0 * static_cast<double>(step_) * height_; }

 private:
  int width_;
  int height_;
  void* data_ = nullptr;
  std::size_t step_ = 0;
};

class Event {
 public:
  Event() { Check(cudaEventCreate(&event_)); }
  ~Event() { cudaEventDestroy(event_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  cudaEvent_t get() const { return event_; }

 private:
  cudaEvent_t event_ = nullptr;
};

/// Seconds that `work` takes on the device.
template <typename Work>
double Seconds(const Work& work) {
  const Event begin;
  const Event end;
  Check(cudaEventRecord(begin.get()));
  work();
  Check(cudaGetLastError());
  Check(cudaEventRecord(end.get()));
  Check(cudaEventSynchronize(end.get()));
  float milliseconds = 0;
  Check(cudaEventElapsedTime(&milliseconds, begin.get(), end.get()));
  return milliseconds / 1e3;
}

template <typename Kernel>
void Measure(benchmark::State& state, double bytes, const Kernel& kernel) {
  const DeviceImage from(kWidth, kHeight);
  DeviceImage to(kWidth, kHeight);
  const auto copy = [&] { from.CopyTo(to); };
  Seconds(kernel);  // The first launch also loads the code.
  Seconds(copy);
  std::vector<double> ratios;
  for ([[maybe_unused]] auto _ : state) {
    const double kernel_s = Seconds(kernel);
    const double copy_s = Seconds(copy);
    state.SetIterationTime(kernel_s);
    ratios.push_back(bytes / kernel_s / (from.copied_bytes() / copy_s));
  }
  std::sort(ratios.begin(), ratios.end());
  state.counters["vs_copy"] = ratios.empty() ? 0.0 : ratios[ratios.size() / 2];
  state.counters["bytes_per_second"] = benchmark::Counter(
      bytes * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void Split(benchmark::State& state) {
  const DeviceImage raw(kWidth, kHeight);
  const DeviceImage g(kWidth - 2 * kBorder, kHeight - 2 * kBorder);
  const DeviceImage r(kWidth / 2 - kBorder, kHeight / 2 - kBorder);
  const DeviceImage b(kWidth / 2 - kBorder, kHeight / 2 - kBorder);
  Measure(state, raw.bytes() + g.bytes() + r.bytes() + b.bytes(), [&] {
    SplitRaw(raw.view(), g.view(), r.view(), b.view(), kBorder);
  });
}

void Merge(benchmark::State& state) {
  const DeviceImage g(kWidth, kHeight);
  const DeviceImage r(kWidth / 2, kHeight / 2);
  const DeviceImage b(kWidth / 2, kHeight / 2);
  const DeviceImage raw(kWidth, kHeight);
  Measure(state, g.bytes() + r.bytes() + b.bytes() + raw.bytes(), [&] {
    MergeRaw(g.view(), r.view(), b.view(), raw.view());
  });
}

void OnDevice(benchmark::State& state, void (*run)(benchmark::State&)) {
  int devices = 0;
  const cudaError_t status = cudaGetDeviceCount(&devices);
  if (status != cudaSuccess || devices == 0) {
    const std::string why = status != cudaSuccess ? cudaGetErrorString(status) : "none listed";
    state.SkipWithError(("no CUDA device: " + why).c_str());
    return;
  }
  try {
    run(state);
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
}

BENCHMARK_CAPTURE(OnDevice, SplitRaw, Split)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OnDevice, MergeRaw, Merge)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace lum::cuda_lum_raw

BENCHMARK_MAIN();
