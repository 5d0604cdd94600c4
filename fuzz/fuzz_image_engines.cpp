// The image engines' argument checks: images of any size, type and memory layout, and any
// parameters, either raise cv::Exception and leave the outputs alone, or give what is promised.
//
// Input: bytes that are drawn one after the other; where they end, zeros follow.

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "raw_bayer/raw_bayer.h"
#ifdef MOTRACE_FUZZ_FLOW
#include "motionInterpolation/dis_flow.h"
#endif

namespace {

using motrace::fuzz::Require;

/// Draws values from the fuzzer's bytes.
class Source {
 public:
  Source(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  int Below(int limit) { return Byte() % limit; }

  /// Mostly small numbers, sometimes extreme ones.
  int Integer() {
    constexpr std::array<int, 4> kExtreme = {-1, 1 << 30, INT32_MAX, INT32_MIN};
    const uint8_t kind = Byte();
    return kind < 16 ? kExtreme[kind % kExtreme.size()] : kind % 24;
  }
  float Real() {
    uint32_t bits = 0;
    for (int i = 0; i < 4; ++i) bits = bits << 8 | Byte();
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return Byte() % 4 == 0 ? value : std::fmod(std::fabs(value), 64.0F);
  }

  /// An image: mostly of the wanted type and size, else of any; alone or a view of a larger one.
  cv::Mat Image(int wanted_type, int wanted_rows, int wanted_cols) {
    constexpr std::array<int, 6> kTypes = {CV_8UC1,  CV_16UC1, CV_16SC1,
                                           CV_32FC2, CV_8UC3,  CV_64FC1};
    const uint8_t kind = Byte();
    const int type = kind % 16 == 1 ? kTypes[static_cast<size_t>(Below(6))] : wanted_type;
    const int rows = kind % 16 == 2 ? Below(48) : wanted_rows;
    const int cols = kind % 16 == 3 ? Below(48) : wanted_cols;
    if (kind % 64 == 4) {
      const std::array<int, 3> sizes = {2, 3, 4};
      return cv::Mat(3, sizes.data(), type, cv::Scalar::all(1));
    }
    if (kind % 64 == 5) return {};
    const bool view = kind % 4 == 0;
    cv::Mat whole(rows + (view ? 3 : 0), cols + (view ? 5 : 0), type, cv::Scalar::all(0));
    cv::Mat image = view ? whole(cv::Rect(2, 1, cols, rows)) : whole;
    for (int y = 0; y < rows && cols > 0; ++y) {
      uint8_t* row = image.ptr(y);
      for (size_t x = 0; x < static_cast<size_t>(cols) * image.elemSize(); ++x) row[x] = Byte();
    }
    return image;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

bool Same(const cv::Mat& a, const cv::Mat& b) {
  if (a.empty() && b.empty()) return true;  // a clone of nothing has no size
  if (a.dims != b.dims || a.size != b.size || a.type() != b.type()) return false;
  if (a.dims > 2) return true;
  for (int y = 0; y < a.rows; ++y) {
    if (std::memcmp(a.ptr(y), b.ptr(y), static_cast<size_t>(a.cols) * a.elemSize()) != 0)
      return false;
  }
  return true;
}

/// Runs `call`; false when it raised. Outputs that must then be as they were are given.
template <typename Call>
bool Accepted(Call&& call, const std::vector<const cv::Mat*>& outputs) {
  std::vector<cv::Mat> before;
  before.reserve(outputs.size());
  for (const cv::Mat* output : outputs) before.push_back(output->clone());
  try {
    call();
    return true;
  } catch (const cv::Exception& error) {
    Require(!error.err.empty(), "a refusal says why");
    for (size_t i = 0; i < outputs.size(); ++i) {
      Require(Same(*outputs[i], before[i]), "a refused call leaves its outputs alone");
    }
    return false;
  }
}

bool Is(const cv::Mat& image, int type, int rows, int cols) {
  return image.dims == 2 && image.type() == type && image.rows == rows && image.cols == cols;
}

void Repair(Source& source) {
  cv::Mat image = source.Image(CV_16UC1, source.Below(40), source.Below(40));
  const int rows = image.rows;
  const int cols = image.cols;
  const float rate = source.Real();
  const bool any_colour = source.Below(2) == 1;
  const auto repair = [&] {
    any_colour ? lum::raw::FixBadPixels2(image, rate) : lum::raw::FixBadPixels(image, rate);
  };
  if (Accepted(repair, {&image})) {
    Require(Is(image, CV_16UC1, rows, cols) && rate > 0, "a repaired image keeps its form");
  }
}

void SplitAndMerge(Source& source) {
  const int half_rows = source.Below(20);
  const int half_cols = source.Below(20);
  const int border = source.Integer();
  const int room = border > 0 && border < 24 ? 2 * border : 0;
  const cv::Mat mosaic = source.Image(CV_16UC1, 2 * half_rows + room, 2 * half_cols + room);
  cv::Mat g = source.Image(CV_16UC1, 2 * half_rows, 2 * half_cols);
  cv::Mat r = source.Image(CV_16UC1, half_rows, half_cols);
  cv::Mat b = source.Image(CV_16UC1, half_rows, half_cols);
  switch (source.Below(8)) {  // memory that is shared
    case 0:
      b = r;
      break;
    case 1:
      g = mosaic;
      break;
    case 2:
      if (g.dims == 2 && g.rows >= half_rows && g.cols >= half_cols) {
        r = g(cv::Rect(0, 0, half_cols, half_rows));
      }
      break;
    default:
      break;
  }
  const bool split =
      Accepted([&] { lum::raw::SplitRaw(mosaic, g, r, b, border, lum::raw::Backend::kProcessor); },
               {&g, &r, &b});
  if (split) {
    const int rows = mosaic.rows - 2 * border;
    const int cols = mosaic.cols - 2 * border;
    Require(Is(g, CV_16UC1, rows, cols) && Is(r, CV_16UC1, rows / 2, cols / 2) &&
                Is(b, CV_16UC1, rows / 2, cols / 2),
            "the planes have their sizes");
  }

  cv::Mat raw = source.Image(CV_16UC1, 2 * half_rows, 2 * half_cols);
  const int index = source.Below(4) == 0 ? source.Integer() : 0;
  const bool merged = Accepted(
      [&] { lum::raw::MergeRaw(g, r, b, raw, index, lum::raw::Backend::kProcessor); }, {&raw});
  if (merged) {
    Require(raw.type() == CV_16UC1 && raw.cols == 2 * r.cols && raw.rows >= 2 * r.rows,
            "the mosaic has its size");
    if (split && index == 0) {
      // What was split comes back where nothing was shared.
      const cv::Mat inside = mosaic(cv::Rect(border, border, 2 * r.cols, 2 * r.rows));
      if (border % 2 == 0 && g.data != mosaic.data) {
        Require(raw.at<uint16_t>(0, 0) == inside.at<uint16_t>(0, 0), "red comes back");
      }
    }
  }
}

#ifdef MOTRACE_FUZZ_FLOW
void Flow(Source& source) {
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  engine->setFinestScale(source.Integer());
  engine->setPatchSize(source.Integer());
  engine->setPatchStride(source.Integer());
  engine->setGradientDescentIterations(source.Below(24) - 1);
  engine->setVariationalRefinementIterations(source.Below(8) - 1);
  engine->setVariationalRefinementAlpha(source.Real());
  engine->setVariationalRefinementDelta(source.Real());
  engine->setVariationalRefinementGamma(source.Real());
  engine->setUseMeanNormalization(source.Below(2) == 0);
  engine->setUseSpatialPropagation(source.Below(2) == 0);
  for (int calls = 1 + source.Below(2); calls > 0; --calls) {
    const int rows = source.Below(48);
    const int cols = source.Below(48);
    const cv::Mat first = source.Image(CV_8UC1, rows, cols);
    const cv::Mat second = source.Image(CV_8UC1, rows, cols);
    cv::Mat flow;
    if (source.Below(2) == 0) flow = source.Image(CV_32FC2, rows, cols);
    if (Accepted([&] { engine->calc(first, second, flow); }, {&flow})) {
      Require(Is(flow, CV_32FC2, first.rows, first.cols), "the flow has the images' size");
    }
  }
}
#endif

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  motrace::fuzz::SilenceStandardOutput();
  cv::redirectError([](int, const char*, const char*, const char*, int, void*) { return 0; });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Source source(data, size);
  switch (source.Below(3)) {
    case 0:
      Repair(source);
      break;
    case 1:
      SplitAndMerge(source);
      break;
#ifdef MOTRACE_FUZZ_FLOW
    case 2:
      Flow(source);
      break;
#endif
    default:
      break;
  }
  return 0;
}
