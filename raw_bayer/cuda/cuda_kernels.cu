#include <cuda_runtime.h>

#include <opencv2/core.hpp>
#include <string>

#include "raw_bayer/backends.h"
#include "raw_bayer/cuda/cuda_kernels.h"
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

__device__ int GlobalX() { return static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x); }
__device__ int GlobalY() { return static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y); }

/// Reads an image by the access rule.
struct Reader {
  ConstPlane plane;
  __device__ std::uint16_t operator()(int x, int y) const { return SampleAt(plane, x, y); }
};

__device__ void Fix(const Image& source, const Image& image, float bad_pixel_rate) {
  const int x = GlobalX();
  const int y = GlobalY();
  if (x < image.cols && y < image.rows) {
    SampleAt(View(image), x, y) =
        raw::Repaired(Reader{ConstView(source)}, x, y, image.cols, image.rows, bad_pixel_rate);
  }
}

__device__ void Fix2(const Image& source, const Image& image, float bad_pixel_rate) {
  const int x = GlobalX();
  const int y = GlobalY();
  if (x < image.cols && y < image.rows) {
    SampleAt(View(image), x, y) =
        raw::Repaired2(Reader{ConstView(source)}, x, y, image.cols, image.rows, bad_pixel_rate);
  }
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

__global__ void kernel_splitRaw(Image raw_border, Image g, Image r, Image b, int border_size) {
  if (GlobalX() < r.cols && GlobalY() < r.rows) {
    raw::SplitCell(ConstView(raw_border), View(g), View(r), View(b), border_size, GlobalX(),
                   GlobalY());
  }
}

__global__ void kernel_mergeRaw(Image g, Image r, Image b, Image raw) {
  if (GlobalX() < r.cols && GlobalY() < r.rows) {
    raw::MergeCell(ConstView(g), ConstView(r), ConstView(b), View(raw), GlobalX(), GlobalY());
  }
}

}  // namespace lum::cuda_lum_raw

namespace lum::raw::cuda {
namespace {

using cuda_lum_raw::Image;

void Check(cudaError_t status, const char* what) {
  if (status != cudaSuccess) {
    throw cv::Exception(cv::Error::GpuApiCallError,
                        std::string("CUDA backend: ") + what + ": " + cudaGetErrorString(status),
                        "lum::raw", __FILE__, __LINE__);
  }
}

/// An image in device memory, which it owns.
class DeviceImage {
 public:
  explicit DeviceImage(const cv::Size& size) : size_(size) {
    Check(cudaMallocPitch(&data_, &step_, Bytes(), static_cast<std::size_t>(size.height)),
          "allocating device memory");
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

void RequireDevice() {
  int devices = 0;
  Check(cudaGetDeviceCount(&devices), "looking for a device");
  if (devices == 0) {
    Check(cudaErrorNoDevice, "looking for a device");
  }
}

template <typename... Parameters, typename... Arguments>
void Run(void (*kernel)(Parameters...), const cv::Size& size, const Arguments&... arguments) {
  const dim3 block(32, 8);
  const dim3 grid((static_cast<unsigned>(size.width) + block.x - 1) / block.x,
                  (static_cast<unsigned>(size.height) + block.y - 1) / block.y);
  kernel<<<grid, block>>>(arguments...);
  Check(cudaGetLastError(), "starting a kernel");
  Check(cudaDeviceSynchronize(), "running a kernel");
}

void Repair(void (*kernel)(Image, Image, float), cv::Mat& image, float bad_pixel_rate) {
  RequireDevice();
  const DeviceImage source(image);
  const DeviceImage repaired(image.size());
  Run(kernel, image.size(), source.view(), repaired.view(), bad_pixel_rate);
  cv::Mat result(image.size(), CV_16UC1);  // The image itself stays whole if the download fails.
  repaired.Download(result);
  result.copyTo(image);
}

}  // namespace

bool Available() {
  int devices = 0;
  return cudaGetDeviceCount(&devices) == cudaSuccess && devices > 0;
}

void FixBadPixels(cv::Mat& image, float bad_pixel_rate) {
  Repair(cuda_lum_raw::kernel_fixBadPixelsFrom, image, bad_pixel_rate);
}

void FixBadPixels2(cv::Mat& image, float bad_pixel_rate) {
  Repair(cuda_lum_raw::kernel_fixBadPixels2From, image, bad_pixel_rate);
}

void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size) {
  RequireDevice();
  const DeviceImage raw(raw_border);
  const DeviceImage green(g.size());
  const DeviceImage red(r.size());
  const DeviceImage blue(b.size());
  Run(cuda_lum_raw::kernel_splitRaw, r.size(), raw.view(), green.view(), red.view(), blue.view(),
      border_size);
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
  Run(cuda_lum_raw::kernel_mergeRaw, r.size(), green.view(), red.view(), blue.view(),
      mosaic.view());
  mosaic.Download(raw);
}

}  // namespace lum::raw::cuda
