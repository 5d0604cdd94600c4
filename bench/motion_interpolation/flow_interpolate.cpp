// Predicts the middle of three frames from the outer two and prints the PSNR of the prediction
// beside that of their plain average.

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "flow_io.h"
#include "flow_program.h"
#include "motionInterpolation/interpolate_frame.h"

namespace {

constexpr char kHelp[] =
    "usage: flow_interpolate FIRST MIDDLE LAST [OUT.pgm]\n"
    "       flow_interpolate --synthetic [IMAGE]\n"
    "       flow_interpolate --pairs FOLDER\n"
    "       flow_interpolate --picture OUT.ppm\n"
    "Predicts the middle of three frames from the outer two, by the flow in both directions, and\n"
    "prints the PSNR of the prediction and of the plain average of the two.\n"
    "--picture draws what that looks like: the plain average of two frames of a drawn scene, the\n"
    "interpolated frame, and the true one, side by side.\n"
    "Images are 8-bit binary PGM or PPM. The first form takes three real frames and can write the\n"
    "prediction. --synthetic moves IMAGE, else a random texture, by a known turn and shift.\n"
    "--pairs takes pairs with ground truth, as flow_accuracy does. Such a pair has no real middle\n"
    "frame: the prediction is compared with the frame that the true flow makes of the same two, "
    "at\n"
    "the pixels that both show. That tells what errors of the flow cost, and is more flattering\n"
    "than a real middle frame, which has noise, light and occlusions of its own.\n";

/// In dB, over the pixels of `mask`, or all.
double psnr(const cv::Mat& a, const cv::Mat& b, const cv::Mat& mask = cv::Mat()) {
  const double count = mask.empty() ? static_cast<double>(a.total()) : cv::countNonZero(mask);
  const double error = cv::norm(a, b, cv::NORM_L2SQR, mask) / count;
  return error > 0.0 ? 10.0 * std::log10(255.0 * 255.0 / error) : INFINITY;
}

cv::Mat average(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat result;
  cv::addWeighted(a, 0.5, b, 0.5, 0.0, result);
  return result;
}

/// The coordinates of every pixel.
cv::Mat pixelGrid(cv::Size size) {
  cv::Mat grid(size, CV_32FC2);
  for (int y = 0; y < grid.rows; ++y) {
    for (int x = 0; x < grid.cols; ++x) {
      grid.at<cv::Vec2f>(y, x) = cv::Vec2f(static_cast<float>(x), static_cast<float>(y));
    }
  }
  return grid;
}

cv::Mat sampled(const cv::Mat& image, const cv::Mat& at, int interpolation = cv::INTER_LINEAR) {
  cv::Mat result;
  cv::remap(image, result, at, cv::noArray(), interpolation, cv::BORDER_REPLICATE);
  return result;
}

/// Where the pixels of the middle frame come from in the frame that `flow` starts from: half a
/// flow back, where the flow is that of the place itself, found by fixed point steps.
cv::Mat halfWayBack(const cv::Mat& flow, int steps) {
  const cv::Mat grid = pixelGrid(flow.size());
  cv::Mat source = grid.clone();
  for (int i = 0; i < steps; ++i) source = grid - 0.5 * sampled(flow, source);
  return source;
}

cv::Mat predictMiddle(const cv::Mat& first, const cv::Mat& last) {
  cv::Mat middle;
  lum::InterpolateFrame(first, last, 0.5, middle);
  return middle;
}

struct Middle {
  cv::Mat image;
  cv::Mat mask;  // 255 where it is known
};

/// The middle frame that the true flow makes of a pair.
Middle trueMiddle(const lum_bench::FlowPair& pair) {
  cv::Mat visible = pair.known.clone();
  if (!pair.occluded.empty()) visible &= ~pair.occluded;
  cv::Mat truth = pair.truth.clone();
  truth.setTo(cv::Scalar::all(0), ~pair.known);

  const cv::Mat grid = pixelGrid(truth.size());
  const cv::Mat source = halfWayBack(truth, 20);
  const cv::Mat flow = sampled(truth, source);
  const cv::Mat target = source + flow;
  Middle middle{average(sampled(pair.img0, source), sampled(pair.img1, target)),
                sampled(visible, source, cv::INTER_NEAREST)};
  // Pixels that nothing moves to, and those that come from or go to beyond the border.
  const cv::Mat missed = source + 0.5 * flow - grid;
  cv::Mat settled;
  cv::inRange(missed, cv::Scalar::all(-0.1), cv::Scalar::all(0.1), settled);
  middle.mask &= settled;
  for (const cv::Mat& place : {source, target}) {
    cv::Mat inside;
    cv::inRange(place, cv::Scalar::all(0), cv::Scalar(truth.cols - 1, truth.rows - 1), inside);
    middle.mask &= inside;
  }
  return middle;
}

std::array<cv::Mat, 3> movingScene(const cv::Mat& scene) {
  std::array<cv::Mat, 3> frames;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const double step = static_cast<double>(i);
    const double angle = 0.01 * step;
    const cv::Matx23d motion(std::cos(angle), -std::sin(angle), 4.0 * step, std::sin(angle),
                             std::cos(angle), -2.0 * step);
    cv::warpAffine(scene, frames[i], motion, scene.size(), cv::INTER_CUBIC, cv::BORDER_REFLECT_101);
  }
  return frames;
}

cv::Mat randomTexture() {
  cv::Mat noise(64, 96, CV_8UC1);
  cv::RNG(1).fill(noise, cv::RNG::UNIFORM, 0, 256);
  cv::Mat scene;
  cv::resize(noise, scene, cv::Size(768, 512), 0, 0, cv::INTER_CUBIC);
  return scene;
}

/// A ball in front of a wall that turns, at a time from 0 to 1.
cv::Mat drawScene(double time) {
  const cv::Size size(192, 144);
  const cv::Matx23d wall(std::cos(0.08 * time), -std::sin(0.08 * time), 4.0 * time,
                         std::sin(0.08 * time), std::cos(0.08 * time), -6.0 * time);
  cv::Mat noise[2] = {cv::Mat(14, 19, CV_8UC3), cv::Mat(12, 12, CV_8UC3)};
  cv::RNG random(3);
  random.fill(noise[0], cv::RNG::UNIFORM, 0, 160);
  random.fill(noise[1], cv::RNG::UNIFORM, 60, 256);
  cv::Mat scene;
  cv::Mat ball;
  cv::resize(noise[0], scene, size, 0, 0, cv::INTER_CUBIC);
  cv::warpAffine(scene, scene, wall, size, cv::INTER_CUBIC, cv::BORDER_REFLECT_101);
  const cv::Matx23d flight(1, 0, 40 + 16 * time, 0, 1, 50 - 8 * time);
  cv::resize(noise[1], ball, cv::Size(64, 64), 0, 0, cv::INTER_CUBIC);
  cv::warpAffine(ball, ball, flight, size, cv::INTER_CUBIC);
  cv::Mat mask(size, CV_8UC1, cv::Scalar(0));
  cv::circle(mask, cv::Point2d(72 + 16 * time, 82 - 8 * time), 26, cv::Scalar(255), cv::FILLED);
  ball.copyTo(scene, mask);
  return scene;
}

void writeImage(const std::string& path, const cv::Mat& image) {
  std::ofstream out(path, std::ios::binary);
  out << (image.channels() == 1 ? "P5\n" : "P6\n") << image.cols << ' ' << image.rows << "\n255\n";
  out.write(reinterpret_cast<const char*>(image.data),
            static_cast<std::streamsize>(image.total() * image.elemSize()));
  if (!out) throw std::runtime_error("cannot write '" + path + "'");
}

int drawPicture(const std::string& path) {
  const cv::Mat first = drawScene(0.0);
  const cv::Mat last = drawScene(1.0);
  cv::Mat picture;
  cv::hconcat(
      std::vector<cv::Mat>{average(first, last), predictMiddle(first, last), drawScene(0.5)},
      picture);
  writeImage(path, picture);
  return 0;
}

int runPairs(const std::string& folder) {
  for (const lum_bench::FlowPair& pair : lum_bench::readPairs(folder)) {
    const Middle middle = trueMiddle(pair);
    std::printf(
        "%-26s PSNR to the true flow's middle: flow %.2f dB, plain average %.2f dB, over %.0f %%\n",
        pair.name.c_str(), psnr(predictMiddle(pair.img0, pair.img1), middle.image, middle.mask),
        psnr(average(pair.img0, pair.img1), middle.image, middle.mask),
        100.0 * cv::countNonZero(middle.mask) / static_cast<double>(middle.mask.total()));
  }
  return 0;
}

int run(const std::vector<std::string>& args) {
  if (args.size() == 2 && args[0] == "--pairs") return runPairs(args[1]);
  if (args.size() == 2 && args[0] == "--picture") return drawPicture(args[1]);
  const bool synthetic = !args.empty() && args.size() <= 2 && args[0] == "--synthetic";
  if (!synthetic && args.size() != 3 && args.size() != 4) return lum_bench::kBadUsage;
  std::array<cv::Mat, 3> frames;
  if (synthetic) {
    frames = movingScene(args.size() == 2 ? lum_bench::readGrey(args[1]) : randomTexture());
  } else {
    for (std::size_t i = 0; i < frames.size(); ++i) frames[i] = lum_bench::readGrey(args[i]);
    if (frames[0].size() != frames[1].size() || frames[0].size() != frames[2].size()) {
      throw std::runtime_error("the frames differ in size");
    }
  }
  const cv::Mat predicted = predictMiddle(frames[0], frames[2]);
  std::printf("PSNR of the middle frame: flow %.2f dB, plain average %.2f dB\n",
              psnr(predicted, frames[1]), psnr(average(frames[0], frames[2]), frames[1]));
  if (args.size() == 4) writeImage(args[3], predicted);
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return lum_bench::runProgram(argc, argv, kHelp, run); }
