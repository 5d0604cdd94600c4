#ifndef RAW_BAYER_CUDA_H_
#define RAW_BAYER_CUDA_H_

#include <opencv2/core/cvdef.h>

#include <cstddef>
#include <cstdint>
#include <opencv2/core/cuda_types.hpp>

struct CUstream_st;

/// The raw Bayer kernels for images that are in device memory already.
///
/// Images do not own their samples; rows lie at any distance, a multiple of 2 bytes. Outputs must
/// not share memory with one another or with inputs. Rules and layout are those of
/// raw_bayer/raw_bayer.h, results the same bit for bit.
///
/// Threads: any number at the same time; the functions work on the calling thread's current device.
/// Errors: `cv::Exception` if sizes do not fit or a kernel cannot be started; what goes wrong on
/// the device later is reported by the call that waits for it. In a build without CUDA every
/// function throws.
namespace lum::cuda_lum_raw {

using Image = cv::cuda::PtrStepSz<std::uint16_t>;

/// Each queues its work on `stream` (a `cudaStream_t`; null for the default stream) and does not
/// wait. The repairs read `source` and write every sample of `image`, which has the same size.
void FixBadPixels(const Image& source, const Image& image, float bad_pixel_rate,
                  CUstream_st* stream = nullptr);
void FixBadPixels2(const Image& source, const Image& image, float bad_pixel_rate,
                   CUstream_st* stream = nullptr);
/// @param r,b  half as wide and high as `g`, which is `raw_border` less `border_size`, at least 1,
///     on each side.
void SplitRaw(const Image& raw_border, const Image& g, const Image& r, const Image& b,
              int border_size, CUstream_st* stream = nullptr);
/// @param g,raw  twice as wide and high as `r` and `b`.
void MergeRaw(const Image& g, const Image& r, const Image& b, const Image& raw,
              CUstream_st* stream = nullptr);

#if defined(__CUDACC__)
/// The kernels themselves, for callers that start them: one thread per column of the image (the
/// repairs) or of the red plane (split and merge), on a grid that may be wider and of any height.

/// In place: a neighbour may already have been replaced when a sample is examined.
__global__ void kernel_fixBadPixels(Image image, float bad_pixel_rate);
__global__ void kernel_fixBadPixels2(Image image, float bad_pixel_rate);

/// From an unmodified source of the same size: independent of the order of the threads.
__global__ void kernel_fixBadPixelsFrom(Image source, Image image, float bad_pixel_rate);
__global__ void kernel_fixBadPixels2From(Image source, Image image, float bad_pixel_rate);

__global__ void kernel_splitRaw(Image raw_border, Image g, Image r, Image b, int border_size);
__global__ void kernel_mergeRaw(Image g, Image r, Image b, Image raw);
#endif

}  // namespace lum::cuda_lum_raw

#endif  // RAW_BAYER_CUDA_H_
