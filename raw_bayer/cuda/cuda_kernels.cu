#include <cuda_runtime.h>

#include <algorithm>
#include <opencv2/core.hpp>
#include <string>

#include "raw_bayer/backends.h"
#include "raw_bayer/cuda.h"
#include "raw_bayer/mosaic_rules.h"

namespace lum::cuda_lum_raw {
namespace {

using raw::ConstPlane;
using raw::MutablePlane;

__device__ MutablePlane View(const Image& image) {
  return {image.data, image.step / sizeof(std::uint16_t), image.cols, image.rows};
}
__device__ ConstPlane ConstView(const Image& image) {
  return {image.data, image.step / sizeof(std::uint16_t), image.cols, image.rows};
}

/// Calls `work(x, y)` for each row y of a thread's column x: every so many rows, as a grid has at
/// most 65535 blocks of them.
template <typename Work>
__device__ void ForRows(const Image& image, const Work& work) {
  const int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
  const long long step = static_cast<long long>(gridDim.y) * blockDim.y;
  long long y = static_cast<long long>(blockIdx.y) * blockDim.y + threadIdx.y;
  for (; x < image.cols && y < image.rows; y += step) {
    work(x, static_cast<int>(y));
  }
}

__device__ void Fix(const Image& source, const Image& image, float bad_pixel_rate) {
  const ConstPlane from = ConstView(source);
  ForRows(image, [&](int x, int y) {
    const auto at = [&](int dx, int dy) { return SampleAt(from, x + dx, y + dy); };
    const bool inside = x >= 2 && x < image.cols - 2 && y >= 2 && y < image.rows - 2;
    SampleAt(View(image), x, y) =
        inside ? raw::Repaired(at, ((x ^ y) & 1) == 0, bad_pixel_rate) : at(0, 0);
  });
}

__device__ int Clamped(int position, int size) {
  return position < 0 ? 0 : position < size ? position : size - 1;
}

__device__ void Fix2(const Image& source, const Image& image, float bad_pixel_rate) {
  const ConstPlane from = ConstView(source);
  ForRows(image, [&](int x, int y) {
    const auto at = [&](int dx, int dy) {
      return SampleAt(from, Clamped(x + dx, image.cols), Clamped(y + dy, image.rows));
    };
    SampleAt(View(image), x, y) = raw::Repaired2(at, bad_pixel_rate);
  });
}

}  // namespace

__global__ void kernel_fixBadPixels(Image image, float bad_pixel_rate) {
  Fix(image, image, bad_pixel_rate);
}
__global__ void kernel_fixBadPixels2(Image image, float bad_pixel_rate) {
  Fix2(image, image, bad_pixel_rate);
}
__global__ void kernel_fixBadPixelsFrom(Image source, Image image, float bad_pixel_rate) {
  Fix(source, image, bad_pixel_rate);
}
__global__ void kernel_fixBadPixels2From(Image source, Image image, float bad_pixel_rate) {
  Fix2(source, image, bad_pixel_rate);
}

// Both read all of a cell before they write: for all the compiler knows, planes overlap, and a load
// after a store would wait for it.

__global__ void kernel_splitRaw(Image raw_border, Image g, Image r, Image b, int border_size) {
  const ConstPlane from = ConstView(raw_border);
  ForRows(r, [&](int x, int y) {
    const raw::SplitSamples cell = raw::SplitCell([&](int dx, int dy) {
      return SampleAt(from, 2 * x + border_size + dx, 2 * y + border_size + dy);
    });
    const MutablePlane green = View(g);
    SampleAt(View(r), x, y) = cell.red;
    SampleAt(View(b), x, y) = cell.blue;
    SampleAt(green, 2 * x, 2 * y) = cell.green_at_red;
    SampleAt(green, 2 * x + 1, 2 * y) = cell.green_right;
    SampleAt(green, 2 * x, 2 * y + 1) = cell.green_below;
    SampleAt(green, 2 * x + 1, 2 * y + 1) = cell.green_at_blue;
  });
}

__global__ void kernel_mergeRaw(Image g, Image r, Image b, Image raw) {
  const ConstPlane green = ConstView(g);
  ForRows(r, [&](int x, int y) {
    const int rx = 2 * x;
    const int ry = 2 * y;
    const std::uint16_t red = SampleAt(ConstView(r), x, y);
    const std::uint16_t green_right = SampleAt(green, rx + 1, ry);
    const std::uint16_t green_below = SampleAt(green, rx, ry + 1);
    const std::uint16_t blue = SampleAt(ConstView(b), x, y);
    // Reads follow the access rule, writes do not.
    std::uint16_t* const row = raw.ptr(ry) + rx;
    std::uint16_t* const next_row = raw.ptr(ry + 1) + rx;
    row[0] = red;
    row[1] = green_right;
    next_row[0] = green_below;
    next_row[1] = blue;
  });
}

namespace {

[[noreturn]] void Fail(int code, const std::string& what) {
  throw cv::Exception(code, "CUDA backend: " + what, "lum::raw", __FILE__, __LINE__);
}

void Check(cudaError_t status, const std::string& what) {
  if (status != cudaSuccess) {
    Fail(cv::Error::GpuApiCallError, what + ": " + cudaGetErrorString(status));
  }
}

std::string SizeText(int width, int height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

void RequireSize(const char* name, const Image& image, long long width, long long height) {
  if (image.data == nullptr || image.cols != width || image.rows != height) {
    Fail(cv::Error::StsUnmatchedSizes, std::string(name) + ": expected an image of " +
                                           std::to_string(width) + " x " + std::to_string(height) +
                                           ", got " + SizeText(image.cols, image.rows));
  }
}

/// Starts a kernel with a thread per column of `image`, and per row as far as a grid goes.
template <typename... Parameters, typename... Arguments>
void Start(void (*kernel)(Parameters...), cudaStream_t stream, const Image& image,
           const Arguments&... arguments) {
  constexpr unsigned kMaxBlocksOfRows = 65535;
  const dim3 block(32, 8);
  const dim3 grid(
      (static_cast<unsigned>(image.cols) + block.x - 1) / block.x,
      std::min((static_cast<unsigned>(image.rows) + block.y - 1) / block.y, kMaxBlocksOfRows));
  void* pointers[] = {const_cast<void*>(static_cast<const void*>(&arguments))...};
  Check(cudaLaunchKernel(kernel, grid, block, pointers, /*sharedMem=*/0, stream),
        "starting a kernel");
}

}  // namespace

void FixBadPixels(const Image& source, const Image& image, float bad_pixel_rate,
                  CUstream_st* stream) {
  RequireSize("image", image, source.cols, source.rows);
  Start(kernel_fixBadPixelsFrom, stream, image, source, image, bad_pixel_rate);
}

void FixBadPixels2(const Image& source, const Image& image, float bad_pixel_rate,
                   CUstream_st* stream) {
  RequireSize("image", image, source.cols, source.rows);
  Start(kernel_fixBadPixels2From, stream, image, source, image, bad_pixel_rate);
}

void SplitRaw(const Image& raw_border, const Image& g, const Image& r, const Image& b,
              int border_size, CUstream_st* stream) {
  if (border_size < 1) {
    Fail(cv::Error::StsOutOfRange,
         "border_size: expected at least 1, got " + std::to_string(border_size));
  }
  RequireSize("g", g, 2LL * r.cols, 2LL * r.rows);
  RequireSize("b", b, r.cols, r.rows);
  RequireSize("raw_border", raw_border, g.cols + 2LL * border_size, g.rows + 2LL * border_size);
  Start(kernel_splitRaw, stream, r, raw_border, g, r, b, border_size);
}

void MergeRaw(const Image& g, const Image& r, const Image& b, const Image& raw,
              CUstream_st* stream) {
  RequireSize("g", g, 2LL * r.cols, 2LL * r.rows);
  RequireSize("b", b, r.cols, r.rows);
  RequireSize("raw", raw, g.cols, g.rows);
  Start(kernel_mergeRaw, stream, r, g, r, b, raw);
}

}  // namespace lum::cuda_lum_raw

namespace lum::raw::cuda {
namespace {

using cuda_lum_raw::Check;
using cuda_lum_raw::Image;

/// An image in device memory, which it owns.
class DeviceImage {
 public:
  explicit DeviceImage(const cv::Size& size) : size_(size) {
    Check(cudaMallocPitch(&data_, &step_, Bytes(), Rows()),
          "allocating an image of " + cuda_lum_raw::SizeText(size.width, size.height));
  }
  explicit DeviceImage(const cv::Mat& image) : DeviceImage(image.size()) {
    Check(
        cudaMemcpy2D(data_, step_, image.data, image.step, Bytes(), Rows(), cudaMemcpyHostToDevice),
        "copying to the device");
  }
  ~DeviceImage() { cudaFree(data_); }
  DeviceImage(const DeviceImage&) = delete;
  DeviceImage& operator=(const DeviceImage&) = delete;

  Image view() const {
    return Image(size_.height, size_.width, static_cast<std::uint16_t*>(data_), step_);
  }

  void Download(cv::Mat& image) const {
    Check(
        cudaMemcpy2D(image.data, image.step, data_, step_, Bytes(), Rows(), cudaMemcpyDeviceToHost),
        "copying from the device");
  }

 private:
  std::size_t Bytes() const { return static_cast<std::size_t>(size_.width) * 2; }
  std::size_t Rows() const { return static_cast<std::size_t>(size_.height); }

  cv::Size size_;
  void* data_ = nullptr;
  std::size_t step_ = 0;
};

/// Whether there is a device, and code for it in this build.
cudaError_t Probe() {
  int devices = 0;
  cudaFuncAttributes attributes;
  cudaError_t status = cudaGetDeviceCount(&devices);
  if (status == cudaSuccess) {
    status = devices == 0 ? cudaErrorNoDevice
                          : cudaFuncGetAttributes(&attributes, cuda_lum_raw::kernel_mergeRaw);
  }
  cudaGetLastError();  // Or the next check would find it.
  return status;
}

void RequireDevice() { Check(Probe(), "looking for a device that this build has code for"); }
void Finish() { Check(cudaDeviceSynchronize(), "running a kernel"); }

using Fix = void (*)(const Image&, const Image&, float, CUstream_st*);

void Repair(Fix fix, cv::Mat& image, float bad_pixel_rate) {
  RequireDevice();
  const DeviceImage source(image);
  const DeviceImage repaired(image.size());
  fix(source.view(), repaired.view(), bad_pixel_rate, nullptr);
  Finish();
  cv::Mat result(image.size(), CV_16UC1);  // The image itself stays whole if the download fails.
  repaired.Download(result);
  result.copyTo(image);
}

}  // namespace

bool Available() { return Probe() == cudaSuccess; }

void FixBadPixels(cv::Mat& image, float bad_pixel_rate) {
  Repair(cuda_lum_raw::FixBadPixels, image, bad_pixel_rate);
}

void FixBadPixels2(cv::Mat& image, float bad_pixel_rate) {
  Repair(cuda_lum_raw::FixBadPixels2, image, bad_pixel_rate);
}

void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size) {
  RequireDevice();
  const DeviceImage raw(raw_border);
  const DeviceImage green(g.size());
  const DeviceImage red(r.size());
  const DeviceImage blue(b.size());
  cuda_lum_raw::SplitRaw(raw.view(), green.view(), red.view(), blue.view(), border_size, nullptr);
  Finish();
  green.Download(g);
  red.Download(r);
  blue.Download(b);
}

void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw) {
  RequireDevice();
  const DeviceImage green(g);
  const DeviceImage red(r);
  const DeviceImage blue(b);
  const DeviceImage mosaic(raw.size());
  cuda_lum_raw::MergeRaw(green.view(), red.view(), blue.view(), mosaic.view(), nullptr);
  Finish();
  mosaic.Download(raw);
}

}  // namespace lum::raw::cuda
