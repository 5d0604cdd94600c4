#ifndef RAW_BAYER_RAW_BAYER_H_
#define RAW_BAYER_RAW_BAYER_H_

#include <opencv2/core/mat.hpp>
#include <string>
#include <vector>

/// Kernels for raw sensor images in a Bayer mosaic of unsigned 16-bit samples: repair of bad
/// pixels, split into colour planes, merge back into a mosaic.
///
/// Mosaic layout: in the 2 x 2 cell at even coordinates red is top left, green top right and bottom
/// left, blue bottom right. Every image is a two-dimensional `CV_16UC1` `cv::Mat`; views of larger
/// images (rows not stored back to back) work as input and as output.
///
/// Results: every backend gives the same samples, bit for bit, with any number of threads. Each
/// function reads all of its input as it was before the call, also where an output shares memory
/// with an input.
///
/// Outputs: an output `cv::Mat` that already has the right size and type keeps its memory, any
/// other is allocated anew, as `cv::Mat::create` does. Keep the outputs from call to call: the
/// first touch of new memory takes several times as long as the work.
///
/// Threads: any number of threads may call these functions at the same time on different images.
/// The processor backend spreads its work with `cv::parallel_for_`. The OpenCL backend serialises
/// its calls.
///
/// Errors: `cv::Exception`. For bad input it names the argument, what was expected and what was
/// there; an OpenCL or CUDA device that is absent or fails is named too, and no other backend takes
/// over. Outputs are untouched after an exception for bad input, an absent or failing device or
/// want of memory.
///
/// Limits: the OpenCL backend takes images of at most 2^31 - 1 samples, as OpenCV does.
namespace lum::raw {

/// Where a kernel runs.
enum class Backend {
  kProcessor,  ///< SIMD and threads of this processor; always available.
  kOpenCl,     ///< OpenCV's OpenCL device on the calling thread at the time of the call, or else
               ///< the first that the machine lists.
  kCuda,       ///< The current CUDA device; only in builds with CUDA (see raw_bayer/cuda.h).
};

/// "processor", "OpenCL" or "CUDA".
[[nodiscard]] const char* BackendName(Backend backend);

/// The backends that work on this machine in this build, the processor first: those with a device
/// that can run the kernels. Starts the device runtimes on its first call, OpenCL's only where /sys
/// is mounted (PoCL ends the process otherwise).
[[nodiscard]] std::vector<Backend> AvailableBackends();

/// Replaces, in place, each sample that outshines its four direct neighbours.
///
/// A sample at least 2 away from every edge is bad if sample / `bad_pixel_rate`, one division in
/// IEEE 754 single precision, is greater than each of the four samples above, left, right and below
/// it. At a red or blue site (x and y both even or both odd) it becomes the mean of the four
/// samples 2 away on its row and column, at a green site the mean of its four diagonal neighbours;
/// means are truncated. All other samples are kept.
/// @param bad_pixel_rate  finite and greater than 0; larger values repair less.
void FixBadPixels(cv::Mat& image, float bad_pixel_rate, Backend backend = Backend::kProcessor);

/// The same for a view that is made in the call, as `image.colRange(1, n)`.
inline void FixBadPixels(cv::Mat&& view, float bad_pixel_rate,
                         Backend backend = Backend::kProcessor) {
  FixBadPixels(view, bad_pixel_rate, backend);
}

/// Replaces, in place and without regard to colour, each sample that outshines its eight
/// neighbours.
///
/// A sample is bad if sample / `bad_pixel_rate` (as above) is greater than each of the eight
/// samples around it; it becomes their truncated mean. Beyond an edge the nearest sample of the
/// image counts, so that an edge sample is a neighbour of itself.
/// @param bad_pixel_rate  finite and greater than 0; larger values repair less.
void FixBadPixels2(cv::Mat& image, float bad_pixel_rate, Backend backend = Backend::kProcessor);

/// The same for a view that is made in the call.
inline void FixBadPixels2(cv::Mat&& view, float bad_pixel_rate,
                          Backend backend = Backend::kProcessor) {
  FixBadPixels2(view, bad_pixel_rate, backend);
}

/// Splits a mosaic into a green plane of full and red and blue planes of half its width and height.
///
/// Green at red and blue sites is the truncated mean of the four direct neighbours.
/// @param raw_border  the mosaic with `border_size` extra samples on every side. Without them its
///     width and height must be even and at least 2.
/// @param g  output of raw size less twice the border. Must not share memory with `r` or `b`.
/// @param r,b  outputs of half the size of `g` each way. Must not share memory with one another.
/// @param border_size  samples, at least 1 (one sample around each cell is read). If it is odd, the
///     colours of the mosaic start with red inside the border, not at the corner of `raw_border`.
void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size,
              Backend backend = Backend::kProcessor);

/// Writes one mosaic from its planes; the green samples at red and blue sites are not read.
///
/// Batches: `g` and `raw` hold images one below the other, each twice as wide and high as `r`.
/// `index` chooses the green plane that is read and the mosaic that is written. Red and blue are
/// always one image and serve every index.
/// @param g  one or more green planes, `CV_16UC1`, 2 * `r.cols` wide, a multiple of 2 * `r.rows`
///     high.
/// @param r,b  planes of equal size.
/// @param raw  output. If it is 2 * `r.cols` wide and high enough for the mosaic `index`, it keeps
///     its memory and its other mosaics. An empty one, and for the index 0 any other, becomes an
///     image of the size of `g`, zero outside the mosaic `index`; for a higher index one that is
///     not empty is refused, as mosaics in it would be lost.
/// @param index  0 for the first; below the number of images in `g`.
void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw, int index,
              Backend backend = Backend::kProcessor);

/// The OpenCL C source of all kernels, as one string that lives as long as the program. Needs no
/// build options. Beside the in-place repairs `kernel_fixBadPixels` and `kernel_fixBadPixels2`,
/// whose result depends on the order of the work items, it has variants that read from a copy.
[[nodiscard]] const std::string& KernelSource();

}  // namespace lum::raw

#endif  // RAW_BAYER_RAW_BAYER_H_
