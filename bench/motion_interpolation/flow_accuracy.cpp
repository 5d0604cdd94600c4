// Prints the endpoint error of the flow on pairs with ground truth.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "flow_io.h"
#include "flow_program.h"
#include "motionInterpolation/dis_flow.h"

namespace {

using lum_bench::FlowPair;

constexpr char kHelp[] =
    "usage: flow_accuracy FOLDER [--defaults]\n"
    "Endpoint errors of the flow (mean, 50 % and 95 % points, pixels), for the combinations of\n"
    "finest scale, refinement, mean normalisation and spatial propagation.\n"
    "FOLDER holds one folder per pair: img0.pgm, img1.pgm, flow.flo and, where there are pixels "
    "to\n"
    "leave out, invalid.pgm (not 0: leave out). A margin of 16 pixels is left out, too.\n"
    "--defaults: with mean normalisation and propagation only.\n";

constexpr int kMargin = 16;

struct Errors {
  double mean = 0.0;
  float median = 0.0F;
  float p95 = 0.0F;
};

Errors endpointErrors(const cv::Mat& flow, const FlowPair& pair) {
  std::vector<float> errors;
  double sum = 0.0;
  for (int y = kMargin; y < flow.rows - kMargin; ++y) {
    for (int x = kMargin; x < flow.cols - kMargin; ++x) {
      if (pair.known.at<uchar>(y, x) == 0) continue;
      const cv::Vec2f difference = flow.at<cv::Vec2f>(y, x) - pair.truth.at<cv::Vec2f>(y, x);
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

void printRow(const FlowPair& pair, int finest, bool refine, bool mean, bool propagate) {
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
    return lum_bench::kBadUsage;
  }
  const std::vector<FlowPair> pairs = lum_bench::readPairs(args[0]);
  std::printf("%-26s %6s %6s %6s %6s %9s %9s %9s\n", "pair", "finest", "refine", "mean", "prop",
              "EPE", "50 %", "95 %");
  for (const FlowPair& pair : pairs) {
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

int main(int argc, char** argv) { return lum_bench::runProgram(argc, argv, kHelp, run); }
