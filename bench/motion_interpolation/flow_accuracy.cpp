// Prints the endpoint error of the flow on pairs with ground truth, for the combinations of finest
// scale, refinement, mean normalisation and spatial propagation.
//
//   flow_accuracy FOLDER [--defaults]
//
// FOLDER holds one folder per pair: img0.pgm, img1.pgm, flow.flo and, where there are pixels to
// leave out, invalid.pgm (255: leave out). --defaults prints the default parameters' rows only.
// A margin of 16 pixels is left out, as far as the image is larger than it.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "flow_io.h"
#include "motionInterpolation/dis_flow.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMargin = 16;

struct Pair {
  std::string name;
  cv::Mat img0, img1, truth, invalid;
};

struct Errors {
  double mean = 0.0;
  float median = 0.0F;
  float p95 = 0.0F;
};

Errors endpointErrors(const cv::Mat& flow, const Pair& pair) {
  std::vector<float> errors;
  double sum = 0.0;
  for (int y = kMargin; y < flow.rows - kMargin; ++y) {
    for (int x = kMargin; x < flow.cols - kMargin; ++x) {
      const cv::Vec2f truth = pair.truth.at<cv::Vec2f>(y, x);
      const bool unknown = !(std::abs(truth[0]) <= 1e9F && std::abs(truth[1]) <= 1e9F);
      if (unknown || (!pair.invalid.empty() && pair.invalid.at<uchar>(y, x) != 0)) continue;
      const cv::Vec2f difference = flow.at<cv::Vec2f>(y, x) - truth;
      errors.push_back(std::hypot(difference[0], difference[1]));
      sum += errors.back();
    }
  }
  Errors result;
  if (errors.empty()) return result;
  const auto quantile = [&](double part) {
    const auto at =
        errors.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(errors.size() - 1));
    std::nth_element(errors.begin(), at, errors.end());
    return *at;
  };
  result.mean = sum / static_cast<double>(errors.size());
  result.median = quantile(0.5);
  result.p95 = quantile(0.95);
  return result;
}

std::vector<Pair> readPairs(const fs::path& folder) {
  std::vector<Pair> pairs;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (!fs::exists(entry.path() / "flow.flo")) continue;
    Pair pair;
    pair.name = entry.path().filename().string();
    pair.img0 = lum_bench::readPgm((entry.path() / "img0.pgm").string());
    pair.img1 = lum_bench::readPgm((entry.path() / "img1.pgm").string());
    pair.truth = lum_bench::readFlo((entry.path() / "flow.flo").string());
    const fs::path invalid = entry.path() / "invalid.pgm";
    if (fs::exists(invalid)) pair.invalid = lum_bench::readPgm(invalid.string());
    if (pair.truth.size() != pair.img0.size() ||
        (!pair.invalid.empty() && pair.invalid.size() != pair.img0.size())) {
      throw std::runtime_error("'" + pair.name + "': images and ground truth differ in size");
    }
    pairs.push_back(pair);
  }
  std::sort(pairs.begin(), pairs.end(),
            [](const Pair& a, const Pair& b) { return a.name < b.name; });
  return pairs;
}

void printRow(const Pair& pair, int finest, bool refine, bool mean, bool propagate) {
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  engine->setFinestScale(finest);
  if (!refine) engine->setVariationalRefinementIterations(0);
  engine->setUseMeanNormalization(mean);
  engine->setUseSpatialPropagation(propagate);
  cv::Mat flow;
  engine->calc(pair.img0, pair.img1, flow);
  const Errors errors = endpointErrors(flow, pair);
  std::printf("%-26s %6d %6s %6s %6s %9.3f %9.3f %9.3f\n", pair.name.c_str(), finest,
              refine ? "yes" : "no", mean ? "yes" : "no", propagate ? "yes" : "no", errors.mean,
              errors.median, errors.p95);
}

int run(const std::vector<std::string>& args) {
  if (args.empty() || args.size() > 2 || (args.size() == 2 && args[1] != "--defaults")) {
    std::fputs("usage: flow_accuracy FOLDER [--defaults]\n", stderr);
    return 2;
  }
  const std::vector<Pair> pairs = readPairs(args[0]);
  if (pairs.empty()) {
    std::fprintf(stderr, "no folder with a flow.flo in '%s'\n", args[0].c_str());
    return 1;
  }
  std::printf("%-26s %6s %6s %6s %6s %9s %9s %9s\n", "pair", "finest", "refine", "mean", "prop",
              "EPE", "50 %", "95 %");
  for (const Pair& pair : pairs) {
    for (const int finest : {2, 1, 0}) {
      for (const bool refine : {true, false}) {
        for (const bool mean : {true, false}) {
          for (const bool propagate : {true, false}) {
            if (args.size() == 2 && !(mean && propagate)) continue;
            printRow(pair, finest, refine, mean, propagate);
          }
        }
      }
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "flow_accuracy: %s\n", error.what());
    return 1;
  }
}
