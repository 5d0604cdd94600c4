#ifndef RAW_BAYER_BACKENDS_H_
#define RAW_BAYER_BACKENDS_H_

#include <opencv2/core/mat.hpp>

// What each backend does once raw_bayer.cpp has checked the arguments: every plane is allocated and
// fits, and no output shares memory with another plane. `MergeRaw` gets the one image of a batch
// that is meant. A failing device may leave the planes of split and merge half written, as they are
// never the caller's then; it must leave the image of a repair as it was.

namespace lum::raw::processor {
void FixBadPixels(cv::Mat& image, float bad_pixel_rate);
void FixBadPixels2(cv::Mat& image, float bad_pixel_rate);
void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size);
void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw);
}  // namespace lum::raw::processor

namespace lum::raw::opencl {
bool Available();
void FixBadPixels(cv::Mat& image, float bad_pixel_rate);
void FixBadPixels2(cv::Mat& image, float bad_pixel_rate);
void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size);
void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw);
}  // namespace lum::raw::opencl

namespace lum::raw::cuda {
bool Available();
void FixBadPixels(cv::Mat& image, float bad_pixel_rate);
void FixBadPixels2(cv::Mat& image, float bad_pixel_rate);
void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size);
void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw);
}  // namespace lum::raw::cuda

#endif  // RAW_BAYER_BACKENDS_H_
