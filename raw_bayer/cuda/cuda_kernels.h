#ifndef RAW_BAYER_CUDA_CUDA_KERNELS_H_
#define RAW_BAYER_CUDA_CUDA_KERNELS_H_

#include <cstdint>
#include <opencv2/core/cuda_types.hpp>

/// The CUDA kernels, for callers whose images are on the device already. For CUDA sources only.
///
/// Images are in device memory, with rows at any distance; sizes are those of the images. One
/// thread per sample (the repairs) or per 2 x 2 cell, that is per red sample (split and merge), on
/// a two-dimensional grid that may be larger.
namespace lum::cuda_lum_raw {

using Image = cv::cuda::PtrStepSz<std::uint16_t>;

/// In place: a neighbour may already have been replaced when a sample is examined.
__global__ void kernel_fixBadPixels(Image image, float bad_pixel_rate);
__global__ void kernel_fixBadPixels2(Image image, float bad_pixel_rate);

/// From an unmodified source of the same size: independent of the order of the threads.
__global__ void kernel_fixBadPixelsFrom(Image source, Image image, float bad_pixel_rate);
__global__ void kernel_fixBadPixels2From(Image source, Image image, float bad_pixel_rate);

__global__ void kernel_splitRaw(Image raw_border, Image g, Image r, Image b, int border_size);
__global__ void kernel_mergeRaw(Image g, Image r, Image b, Image raw);

}  // namespace lum::cuda_lum_raw

#endif  // RAW_BAYER_CUDA_CUDA_KERNELS_H_
