// Prints the endpoint error of the flow on pairs with ground truth.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "flow_io.h"
#include "flow_program.h"
#include "motionInterpolation/dis_flow.h"

namespace {

using lum_bench::FlowPair;

constexpr char kHelp[] =
    "usage: flow_accuracy FOLDER [--defaults | --mirrored]\n"
    "Endpoint errors of the flow (mean, 50 % and 95 % points, pixels), for the combinations of\n"
    "finest scale, refinement, mean normalisation and spatial propagation.\n"
    "FOLDER holds one folder per pair: img0.pgm, img1.pgm, flow.flo and, where there are pixels "
    "to\n"
    "leave out, invalid.pgm (not 0: leave out). A margin of 16 pixels is left out, too.\n"
    "--defaults: with mean normalisation and propagation only.\n"
    "--mirrored: likewise, each row being the mean over the pair and its copies mirrored along x,\n"
    "along y and along both; the last column is the worst ratio of a copy's mean, refined, to the\n"
    "one unrefined. Search goes by rows and columns: on large motions one copy alone may come out\n"
    "a fifth better or worse.\n";

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

struct Settings {
  int finest;
  bool refine, mean, propagate;
};

Errors errorsOf(const FlowPair& pair, const Settings& settings) {
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  engine->setFinestScale(settings.finest);
  if (!settings.refine) engine->setVariationalRefinementIterations(0);
  engine->setUseMeanNormalization(settings.mean);
  engine->setUseSpatialPropagation(settings.propagate);
  cv::Mat flow;
  engine->calc(pair.img0, pair.img1, flow);
  return endpointErrors(flow, pair);
}

void printRow(const FlowPair& pair, const Settings& settings, const Errors& errors) {
  std::printf("%-26s %6d %6s %6s %6s %9.3f %9.3f %9.3f", pair.name.c_str(), settings.finest,
              settings.refine ? "yes" : "no", settings.mean ? "yes" : "no",
              settings.propagate ? "yes" : "no", errors.mean, errors.median, errors.p95);
}

/// The pair, mirrored along x, y or both.
FlowPair mirrored(const FlowPair& pair, bool along_x, bool along_y) {
  FlowPair result = pair;
  if (!along_x && !along_y) return result;
  const int code = along_x && along_y ? -1 : along_x ? 1 : 0;  // as cv::flip wants it
  for (cv::Mat FlowPair::*mat :
       {&FlowPair::img0, &FlowPair::img1, &FlowPair::truth, &FlowPair::known}) {
    result.*mat = cv::Mat();  // not the pair's own memory
    cv::flip(pair.*mat, result.*mat, code);
  }
  cv::multiply(result.truth, cv::Scalar(along_x ? -1 : 1, along_y ? -1 : 1), result.truth);
  return result;
}

/// Rows of the means over the mirrored copies of a pair, refined and not.
void printMirrored(const FlowPair& pair, int finest) {
  Errors means[2];
  double worst = 0.0;
  for (int copy = 0; copy < 4; ++copy) {
    const FlowPair other = mirrored(pair, (copy & 1) != 0, (copy & 2) != 0);
    double both[2];
    for (const bool refine : {false, true}) {
      const Errors errors = errorsOf(other, {finest, refine, true, true});
      Errors& mean = means[refine ? 1 : 0];
      mean.mean += errors.mean / 4;
      mean.median += errors.median / 4;
      mean.p95 += errors.p95 / 4;
      both[refine ? 1 : 0] = errors.mean;
    }
    worst = std::max(worst, both[1] / both[0]);
  }
  printRow(pair, {finest, true, true, true}, means[1]);
  std::printf(" %9.3f\n", worst);
  printRow(pair, {finest, false, true, true}, means[0]);
  std::printf("\n");
}

int run(const std::vector<std::string>& args) {
  const bool defaults = args.size() == 2 && args[1] == "--defaults";
  const bool mirror = args.size() == 2 && args[1] == "--mirrored";
  if (args.empty() || args.size() > 2 || (args.size() == 2 && !defaults && !mirror)) {
    return lum_bench::kBadUsage;
  }
  const std::vector<FlowPair> pairs = lum_bench::readPairs(args[0]);
  std::printf("%-26s %6s %6s %6s %6s %9s %9s %9s%s\n", "pair", "finest", "refine", "mean", "prop",
              "EPE", "50 %", "95 %", mirror ? "     worst" : "");
  for (const FlowPair& pair : pairs) {
    for (const int finest : {2, 1, 0}) {
      if (mirror) {
        printMirrored(pair, finest);
        continue;
      }
      for (const bool refine : {true, false}) {
        for (const bool mean : {true, false}) {
          for (const bool propagate : {true, false}) {
            if (defaults && !(mean && propagate)) continue;
            const Settings settings{finest, refine, mean, propagate};
            printRow(pair, settings, errorsOf(pair, settings));
            std::printf("\n");
          }
        }
      }
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return lum_bench::runProgram(argc, argv, kHelp, run); }
