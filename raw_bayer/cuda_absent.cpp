// The CUDA backend of builds without CUDA.

#include <opencv2/core.hpp>

#include "raw_bayer/backends.h"
#include "raw_bayer/cuda.h"

namespace lum {
namespace {

[[noreturn]] void Fail() {
  throw cv::Exception(cv::Error::GpuNotSupported, "CUDA backend: not in this build", "lum::raw",
                      __FILE__, __LINE__);
}

}  // namespace

namespace raw::cuda {

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

}  // namespace raw::cuda

namespace cuda_lum_raw {

void FixBadPixels(const Image& /*source*/, const Image& /*image*/, float /*bad_pixel_rate*/,
                  CUstream_st* /*stream*/) {
  Fail();
}
void FixBadPixels2(const Image& /*source*/, const Image& /*image*/, float /*bad_pixel_rate*/,
                   CUstream_st* /*stream*/) {
  Fail();
}
void SplitRaw(const Image& /*raw_border*/, const Image& /*g*/, const Image& /*r*/,
              const Image& /*b*/, int /*border_size*/, CUstream_st* /*stream*/) {
  Fail();
}
void MergeRaw(const Image& /*g*/, const Image& /*r*/, const Image& /*b*/, const Image& /*raw*/,
              CUstream_st* /*stream*/) {
  Fail();
}

}  // namespace cuda_lum_raw
}  // namespace lum
