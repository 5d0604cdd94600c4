// The CUDA source on a runtime that runs it on this processor.

#include "raw_bayer/cuda.h"

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "raw_bayer/raw_bayer.h"

namespace lum::raw {
namespace {

TEST(CUDA, FailureOfAnyCallIsReportedAndLeavesTheImageAlone) {
  cv::Mat image(9, 9, CV_16UC1, cv::Scalar(100));
  image.at<std::uint16_t>(4, 4) = 1000;
  const cv::Mat before = image.clone();
  int call = 1;
  for (bool failed = true; failed; ++call) {
    ASSERT_EQ(cv::norm(image, before, cv::NORM_INF), 0.0) << "call " << call;
    fake_cuda_fails_at = call;
    try {
      FixBadPixels(image, 2.0F, Backend::kCuda);
      failed = false;
    } catch (const cv::Exception& error) {
      EXPECT_NE(error.err.find("as the test asked"), std::string::npos) << error.err;
    }
  }
  EXPECT_EQ(call, 10);  // Probe twice, two allocations, upload, start, wait, download: all failed.
  EXPECT_EQ(image.at<std::uint16_t>(4, 4), 100);
  for (const int probe : {1, 2}) {
    fake_cuda_fails_at = probe;
    EXPECT_EQ(AvailableBackends().back() == Backend::kCuda, false);
  }
  fake_cuda_fails_at = 0;
}

TEST(CUDA, ImagesOnTheDeviceOfAnyHeightAndOnlyFittingOnes) {
  cv::Mat source(8 * 65535 + 2, 4, CV_16UC1, cv::Scalar(5)), fixed(source.size(), CV_16UC1);
  source.at<std::uint16_t>(source.rows - 2, 2) = 1000;
  const auto view = [](cv::Mat& image) {
    return cuda_lum_raw::Image(image.rows, image.cols, image.ptr<std::uint16_t>(), image.step);
  };
  cuda_lum_raw::FixBadPixels2(view(source), view(fixed), 2.0F);
  EXPECT_EQ(cv::norm(fixed, cv::Mat(source.size(), CV_16UC1, cv::Scalar(5)), cv::NORM_INF), 0.0);
  cv::Mat low = fixed.rowRange(1, fixed.rows), r(2, 2, CV_16UC1), g(4, 4, CV_16UC1);
  EXPECT_THROW(cuda_lum_raw::FixBadPixels(view(source), view(low), 2.0F), cv::Exception);
  EXPECT_THROW(cuda_lum_raw::SplitRaw(view(g), view(g), view(r), view(r), 0), cv::Exception);
  EXPECT_THROW(cuda_lum_raw::SplitRaw(view(g), view(g), view(r), view(r), 1), cv::Exception);
  EXPECT_THROW(cuda_lum_raw::MergeRaw(view(g), view(r), view(r), view(r)), cv::Exception);
}

}  // namespace
}  // namespace lum::raw
