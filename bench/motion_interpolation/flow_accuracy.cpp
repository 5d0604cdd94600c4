// Prints the endpoint error of the flow on pairs with ground truth.

#include <algorithm>
#include <array>
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
    "--mirrored: tables in Markdown of the means over the pair and its copies mirrored along x,\n"
    "along y and along both, unrefined and refined, with the worst ratio of a copy's two; and by\n"
    "iterations of the refinement. Search goes by rows and columns: on large motions one copy "
    "alone\n"
    "may come out a fifth better or worse.\n";

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
  int finest = 2;
  int iterations = 5;  // the default
  bool mean = true, propagate = true;
};

Errors errorsOf(const FlowPair& pair, const Settings& settings) {
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  engine->setFinestScale(settings.finest);
  engine->setVariationalRefinementIterations(settings.iterations);
  engine->setUseMeanNormalization(settings.mean);
  engine->setUseSpatialPropagation(settings.propagate);
  cv::Mat flow;
  engine->calc(pair.img0, pair.img1, flow);
  return endpointErrors(flow, pair);
}

void printRow(const FlowPair& pair, const Settings& settings, const Errors& errors) {
  std::printf("%-26s %6d %6s %6s %6s %9.3f %9.3f %9.3f", pair.name.c_str(), settings.finest,
              settings.iterations > 0 ? "yes" : "no", settings.mean ? "yes" : "no",
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

/// The errors of a pair and its three mirrored copies.
std::array<Errors, 4> copiesErrors(const FlowPair& pair, const Settings& settings) {
  std::array<Errors, 4> errors;
  for (std::size_t copy = 0; copy < 4; ++copy) {
    errors[copy] = errorsOf(mirrored(pair, (copy & 1) != 0, (copy & 2) != 0), settings);
  }
  return errors;
}

Errors meanOf(const std::array<Errors, 4>& copies) {
  Errors mean;
  for (const Errors& errors : copies) {
    mean.mean += errors.mean / 4;
    mean.median += errors.median / 4;
    mean.p95 += errors.p95 / 4;
  }
  return mean;
}

void printRefinement(const std::vector<FlowPair>& pairs) {
  std::printf("| Pair | finest scale | no refinement | refined | worst |\n|---|---|---|---|---|\n");
  for (const FlowPair& pair : pairs) {
    for (const int finest : {2, 1, 0}) {
      std::printf("| %s | %d |", pair.name.c_str(), finest);
      const std::array<Errors, 4> sides[2] = {copiesErrors(pair, {finest, 0}),
                                              copiesErrors(pair, {finest})};
      for (const std::array<Errors, 4>& side : sides) {
        const Errors mean = meanOf(side);
        std::printf(" %.3f (%.3f, %.3f) |", mean.mean, mean.median, mean.p95);
      }
      double worst = 0.0;
      for (std::size_t copy = 0; copy < 4; ++copy) {
        worst = std::max(worst, sides[1][copy].mean / sides[0][copy].mean);
      }
      std::printf(" %.2f |\n", worst);
    }
  }
}

void printIterations(const std::vector<FlowPair>& pairs) {
  constexpr int kIterations[] = {0, 1, 2, 3, 4, 5, 6, 8, 20, 60};
  std::printf("\n| Pair | finest scale |");
  for (const int iterations : kIterations) std::printf(" %d |", iterations);
  std::printf("\n|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const FlowPair& pair : pairs) {
    for (const int finest : {2, 1, 0}) {
      std::printf("| %s | %d |", pair.name.c_str(), finest);
      for (const int iterations : kIterations) {
        std::printf(" %.3f |", meanOf(copiesErrors(pair, {finest, iterations})).mean);
      }
      std::printf("\n");
    }
  }
}

int run(const std::vector<std::string>& args) {
  const bool defaults = args.size() == 2 && args[1] == "--defaults";
  const bool mirror = args.size() == 2 && args[1] == "--mirrored";
  if (args.empty() || args.size() > 2 || (args.size() == 2 && !defaults && !mirror)) {
    return lum_bench::kBadUsage;
  }
  const std::vector<FlowPair> pairs = lum_bench::readPairs(args[0]);
  if (mirror) {
    printRefinement(pairs);
    printIterations(pairs);
    return 0;
  }
  std::printf("%-26s %6s %6s %6s %6s %9s %9s %9s\n", "pair", "finest", "refine", "mean", "prop",
              "EPE", "50 %", "95 %");
  for (const FlowPair& pair : pairs) {
    for (const int finest : {2, 1, 0}) {
      for (const int iterations : {5, 0}) {
        for (const bool mean : {true, false}) {
          for (const bool propagate : {true, false}) {
            if (defaults && !(mean && propagate)) continue;
            const Settings settings{finest, iterations, mean, propagate};
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
