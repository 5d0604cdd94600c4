// Predicts the middle of three frames from the outer two and prints the PSNR of the prediction
// beside that of their plain average.
//
//   flow_interpolate FIRST.pgm MIDDLE.pgm LAST.pgm [OUT.pgm]
//   flow_interpolate --synthetic

#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "flow_io.h"
#include "motionInterpolation/dis_flow.h"

namespace {

double psnr(const cv::Mat& a, const cv::Mat& b) {
  const double error = cv::norm(a, b, cv::NORM_L2SQR) / static_cast<double>(a.total());
  return error > 0.0 ? 10.0 * std::log10(255.0 * 255.0 / error) : INFINITY;
}

/// `image` seen half way along `flow`, where `flow` starts from `image`. The flow at a pixel of the
/// middle frame is taken from where it leads back to, found by a few fixed point steps.
cv::Mat halfWay(const cv::Mat& image, const cv::Mat& flow) {
  cv::Mat grid(image.size(), CV_32FC2);
  for (int y = 0; y < grid.rows; ++y) {
    for (int x = 0; x < grid.cols; ++x) {
      grid.at<cv::Vec2f>(y, x) = cv::Vec2f(static_cast<float>(x), static_cast<float>(y));
    }
  }
  cv::Mat source = grid.clone();
  cv::Mat seen;
  for (int i = 0; i < 3; ++i) {
    cv::remap(flow, seen, source, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    source = grid - 0.5 * seen;
  }
  cv::Mat result;
  cv::remap(image, result, source, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  return result;
}

cv::Mat average(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat result;
  cv::addWeighted(a, 0.5, b, 0.5, 0.0, result);
  return result;
}

int run(const std::vector<std::string>& args) {
  const bool synthetic = args.size() == 1 && args[0] == "--synthetic";
  if (!synthetic && args.size() != 3 && args.size() != 4) {
    std::fputs("usage: flow_interpolate FIRST.pgm MIDDLE.pgm LAST.pgm [OUT.pgm] | --synthetic\n",
               stderr);
    return 2;
  }
  cv::Mat frames[3];
  if (synthetic) {
    cv::Mat noise(64, 96, CV_8UC1);
    cv::RNG rng(1);
    rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
    cv::Mat scene;
    cv::resize(noise, scene, cv::Size(768, 512), 0, 0, cv::INTER_CUBIC);
    for (int i = 0; i < 3; ++i) {
      const double angle = 0.01 * i;
      const cv::Matx23d motion(std::cos(angle), -std::sin(angle), 4.0 * i, std::sin(angle),
                               std::cos(angle), -2.0 * i);
      cv::warpAffine(scene, frames[i], motion, scene.size(), cv::INTER_CUBIC,
                     cv::BORDER_REFLECT_101);
    }
  } else {
    for (std::size_t i = 0; i < 3; ++i) frames[i] = lum_bench::readPgm(args[i]);
  }
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  cv::Mat forward;
  cv::Mat backward;
  engine->calc(frames[0], frames[2], forward);
  engine->calc(frames[2], frames[0], backward);
  const cv::Mat predicted = average(halfWay(frames[0], forward), halfWay(frames[2], backward));
  std::printf("PSNR of the middle frame: flow %.2f dB, plain average %.2f dB\n",
              psnr(predicted, frames[1]), psnr(average(frames[0], frames[2]), frames[1]));
  if (args.size() == 4) {
    std::ofstream out(args[3], std::ios::binary);
    out << "P5\n" << predicted.cols << ' ' << predicted.rows << "\n255\n";
    out.write(reinterpret_cast<const char*>(predicted.data),
              static_cast<std::streamsize>(predicted.total()));
    if (!out) {
      std::fprintf(stderr, "cannot write '%s'\n", args[3].c_str());
      return 1;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "flow_interpolate: %s\n", error.what());
    return 1;
  }
}
