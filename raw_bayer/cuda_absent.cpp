// The CUDA backend of builds without a CUDA compiler.

#include <opencv2/core.hpp>

#include "raw_bayer/backends.h"

namespace lum::raw::cuda {
namespace {

[[noreturn]] void Fail() {
  throw cv::Exception(cv::Error::GpuNotSupported,
                      "CUDA backend: not in this build, which had no CUDA compiler", "lum::raw",
                      __FILE__, __LINE__);
}

}  // namespace

bool Available() { return false; }
void FixBadPixels(cv::Mat& /*image*/, float /*bad_pixel_rate*/) { Fail(); }
void FixBadPixels2(cv::Mat& /*image*/, float /*bad_pixel_rate*/) { Fail(); }
void SplitRaw(const cv::Mat& /*raw_border*/, cv::Mat& /*g*/, cv::Mat& /*r*/, cv::Mat& /*b*/,
              int /*border_size*/) {
  Fail();
}
void MergeRaw(const cv::Mat& /*g*/, const cv::Mat& /*r*/, const cv::Mat& /*b*/, cv::Mat& /*raw*/) {
  Fail();
}

}  // namespace lum::raw::cuda
