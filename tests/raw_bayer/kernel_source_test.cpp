// The OpenCL kernels themselves, started as a user of their source would start them.

#include <gtest/gtest.h>

#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/core/ocl.hpp>
#include <string>
#include <vector>

#include "raw_bayer/raw_bayer.h"
#include "tests/raw_bayer/reference.h"

namespace lum::raw {
namespace {

cv::ocl::KernelArg Pointer(const cv::UMat& image) {
  return cv::ocl::KernelArg::PtrReadWrite(image);
}

class KernelSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<cv::ocl::PlatformInfo> platforms;
    if (cv::ocl::haveOpenCL()) {
      cv::ocl::getPlatfomsInfo(platforms);
    }
    if (platforms.empty() || platforms[0].deviceNumber() == 0) {
      GTEST_SKIP() << "no OpenCL device on this machine";
    }
    const cv::ocl::Context context = cv::ocl::Context::create(platforms[0].name() + ":ALL:");
    ASSERT_FALSE(context.empty());
    cv::ocl::OpenCLExecutionContext::create(context, context.device(0)).bind();
  }

  template <typename... Arguments>
  static void Run(const char* name, cv::Size size, const Arguments&... arguments) {
    // What a user adds to see the access functions at work.
    const std::string source =
        KernelSource() +
        "__kernel void read(__global const ushort* image, __global ushort* out, int columns,\n"
        "                   int rows, int w, int h, int offset) {\n"
        "  const int x = get_global_id(0), y = get_global_id(1);\n"
        "  if (x < columns && y < rows)\n"  // OpenCV starts more work items than asked for.
        "    out[y * columns + x] = offset ? load_ushort_offset(image, x, y, w, h, offset)\n"
        "                                  : load_ushort(image, x, y, w, h);\n"
        "}\n"
        "__kernel void write(__global ushort* image, int x, int y, int w, int h) {\n"
        "  store_uhsort(image, x, y, w, h, 77);\n"
        "}\n";
    cv::String log;
    cv::ocl::Kernel kernel(name, cv::ocl::ProgramSource(source), "", &log);
    ASSERT_FALSE(kernel.empty()) << name << ": " << log;
    kernel.args(arguments...);
    std::size_t global[] = {static_cast<std::size_t>(size.width),
                            static_cast<std::size_t>(size.height)};
    ASSERT_TRUE(kernel.run(2, global, nullptr, /*sync=*/true)) << name;
  }

  static cv::Mat Random(int width, int height) {
    cv::Mat image(height, width, CV_16UC1);
    cv::theRNG().fill(image, cv::RNG::UNIFORM, 0, 65536);
    return image;
  }

  static bool Same(const cv::UMat& a, const cv::Mat& b) {
    return cv::norm(a.getMat(cv::ACCESS_READ), b, cv::NORM_INF) == 0.0;
  }
};

TEST_F(KernelSourceTest, ColumnsWrapToTheFirstAndRowsClampToTheLast) {
  const cv::Mat image = Random(6, 10);  // Two images of 6 x 5.
  cv::UMat on_device = image.getUMat(cv::ACCESS_READ).clone();
  cv::UMat plain(8, 9, CV_16UC1), second(8, 9, CV_16UC1);
  Run("read", plain.size(), Pointer(on_device), Pointer(plain), 9, 8, 6, 5, 0);
  Run("read", plain.size(), Pointer(on_device), Pointer(second), 9, 8, 6, 5, 30);
  const cv::Mat got = plain.getMat(cv::ACCESS_READ), got_second = second.getMat(cv::ACCESS_READ);
  for (int y = 0; y < got.rows; ++y) {
    for (int x = 0; x < got.cols; ++x) {
      const int column = x < 6 ? x : 0;
      const int row = y < 5 ? y : 4;
      EXPECT_EQ(reference::At(got, x, y), reference::At(image, column, row)) << x << ", " << y;
      EXPECT_EQ(reference::At(got_second, x, y), reference::At(image, column, row + 5));
    }
  }
  Run("write", {1, 1}, Pointer(on_device), 6, 9, 6, 5);
  cv::Mat expected = image.clone();
  reference::Put(expected, 0, 4, 77);
  EXPECT_TRUE(Same(on_device, expected));
}

TEST_F(KernelSourceTest, RepairsInPlace) {
  // Bad pixels so far apart that none sees another: the order of the work items is nothing to it.
  cv::Mat image(31, 41, CV_16UC1, cv::Scalar(100));
  for (int y = 0; y < image.rows; y += 5) {
    for (int x = 0; x < image.cols; x += 5) {
      reference::Put(image, x, y, 1000);
    }
  }
  for (const bool square : {false, true}) {
    cv::Mat expected = image.clone();
    (square ? reference::FixBadPixels2 : reference::FixBadPixels)(image, expected, 2.0F);
    cv::UMat on_device = image.getUMat(cv::ACCESS_READ).clone();
    Run(square ? "kernel_fixBadPixels2" : "kernel_fixBadPixels", {48, 32}, Pointer(on_device), 2.0F,
        image.cols, image.rows);
    EXPECT_TRUE(Same(on_device, expected)) << "square " << square;
  }
}

TEST_F(KernelSourceTest, RatesThatTheHostRefusesFollowTheRule) {
  cv::Mat image = cv::Mat::zeros(7, 7, CV_16UC1);
  reference::Put(image, 3, 3, 500);
  for (const float rate : {-1.0F, -0.0F, INFINITY, -INFINITY, NAN, 0.0F}) {
    for (const bool square : {false, true}) {
      cv::Mat expected = image.clone();
      (square ? reference::FixBadPixels2 : reference::FixBadPixels)(image, expected, rate);
      cv::UMat on_device = image.getUMat(cv::ACCESS_READ).clone();
      Run(square ? "kernel_fixBadPixels2" : "kernel_fixBadPixels", {8, 8}, Pointer(on_device), rate,
          image.cols, image.rows);
      EXPECT_TRUE(Same(on_device, expected)) << rate << " square " << square;
    }
  }
}

TEST_F(KernelSourceTest, MergeReadsGreenAndWritesTheMosaicOfTheIndex) {
  const cv::Mat g = Random(10, 3 * 8), r = Random(5, 3 * 4), b = Random(5, 3 * 4);
  cv::Mat expected = cv::Mat::zeros(g.size(), CV_16UC1);
  reference::MergeRaw(g, r.rowRange(0, 4), b.rowRange(0, 4), expected, 2);
  cv::UMat raw = cv::UMat::zeros(g.size(), CV_16UC1);
  Run("kernel_mergeRaw", {8, 8}, Pointer(g.getUMat(cv::ACCESS_READ)),
      Pointer(r.getUMat(cv::ACCESS_READ)), Pointer(b.getUMat(cv::ACCESS_READ)), Pointer(raw), 10, 8,
      5, 4, 10, 8, 2);
  EXPECT_TRUE(Same(raw, expected));
}

}  // namespace
}  // namespace lum::raw
