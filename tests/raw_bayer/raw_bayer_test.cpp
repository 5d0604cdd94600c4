#include "raw_bayer/raw_bayer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "raw_bayer/row_kernels.h"
#include "tests/raw_bayer/reference.h"

namespace lum::raw {
namespace {

constexpr int kSeed = 20;

bool Same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

enum Content { kUniform, kDim, kBadPixels, kExtremes, kFlat };
constexpr const char* kContentNames[] = {"uniform", "dim", "bad pixels", "extremes", "flat"};

cv::Mat MakeImage(int width, int height, Content content = kUniform, int seed = kSeed) {
  cv::RNG random(static_cast<std::uint64_t>(seed + 1000 * width + height));
  const auto sample = [&] {
    switch (content) {
      case kUniform:
        return random.uniform(0, 65536);
      case kDim:
        return random.uniform(0, 4);
      case kBadPixels: {
        const int level = 2000 + random.uniform(-100, 101);
        return random.uniform(0, 30) == 0 ? random.uniform(level, 65536) : level;
      }
      case kExtremes:
        return random.uniform(0, 3) == 0 ? 65535 : 0;
      default:
        return 65535;
    }
  };
  cv::Mat image(height, width, CV_16UC1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) reference::Put(image, x, y, sample());
  }
  return image;
}

/// A copy of `image` inside a larger one, so that its rows have a gap and an odd start.
cv::Mat AsView(const cv::Mat& image) {
  cv::Mat larger(image.rows + 3, image.cols + 5, CV_16UC1, cv::Scalar(4321));
  cv::Mat view = larger(cv::Rect(3, 1, image.cols, image.rows));
  image.copyTo(view);
  return view;
}

/// Where a test runs: on a device, or on the processor with one instruction set.
struct Place {
  std::string name;
  Backend backend;
  const kernels::Kernels* kernels;
};

std::vector<Place> Places() {
  std::vector<Place> places = {{"OpenCL", Backend::kOpenCl, nullptr},
                               {"CUDA", Backend::kCuda, nullptr}};
  for (const auto* set = kernels::Supported(); *set != nullptr; ++set) {
    places.push_back({(*set)->name, Backend::kProcessor, *set});
  }
  return places;
}

class OnBackend : public ::testing::TestWithParam<Place> {
 protected:
  void SetUp() override {
    const std::vector<Backend> available = AvailableBackends();
    if (std::find(available.begin(), available.end(), backend()) == available.end()) {
      GTEST_SKIP() << "no " << BackendName(backend()) << " device on this machine";
    }
    kernels::Force(GetParam().kernels);
  }
  void TearDown() override { kernels::Force(nullptr); }
  static Backend backend() { return GetParam().backend; }
};

INSTANTIATE_TEST_SUITE_P(Raw, OnBackend, ::testing::ValuesIn(Places()),
                         [](const auto& test) { return test.param.name; });

struct Repair {
  const char* name;
  void (*fix)(cv::Mat&, float, Backend);
  void (*expected)(const cv::Mat&, cv::Mat&, float);
};
constexpr Repair kRepairs[] = {{"FixBadPixels", FixBadPixels, reference::FixBadPixels},
                               {"FixBadPixels2", FixBadPixels2, reference::FixBadPixels2}};

void ExpectRepaired(const Repair& repair, const cv::Mat& image, float rate, Backend backend,
                    const std::string& what) {
  cv::Mat expected = image.clone();
  repair.expected(image, expected, rate);
  cv::Mat view = AsView(image);
  repair.fix(view, rate, backend);
  EXPECT_TRUE(Same(view, expected)) << repair.name << " of " << what << " " << image.size()
                                    << " at rate " << rate << ", seed " << kSeed;
}

TEST_P(OnBackend, RepairsMatchTheRuleForEverySizeContentAndRate) {
  int turn = 0;
  // Widths next to those of vectors of 8, 16 and 32 samples with their margins.
  for (const int width : {1,  2,  3,  4,  5,  6,  9,  10, 11, 12, 13, 17, 18,
                          20, 21, 33, 34, 35, 36, 37, 64, 65, 67, 69, 131}) {
    for (const int height : {1, 2, 3, 5, 6, 21}) {
      for (const float rate : {1.0F, 0.3F, 1.0001F, 1.7F, 3.0F, 40000.0F}) {
        const auto content = static_cast<Content>(turn++ % 5);
        for (const Repair& repair : kRepairs) {
          ExpectRepaired(repair, MakeImage(width, height, content), rate, backend(),
                         kContentNames[content]);
        }
      }
    }
  }
}

TEST_P(OnBackend, QuotientIsRoundedToSinglePrecision) {
  // Each 3 x 3 patch holds a sample and a neighbour level near their quotient, where a division
  // that is off by one unit in the last place decides otherwise.
  cv::RNG random(kSeed);
  // The first and the third are the numbers next to 1.
  constexpr float kRates[] = {
      0x1.fffffep-1F, 1.0F, 0x1.000002p0F, 1.000015F, 1.00002F, 1.1F,        1.5F,  2.0F,
      3.0F,           7.0F, 256.0F,        65535.0F,  65536.0F, 65537.0F,    1e30F, FLT_MAX,
      0.1F,           0.5F, 1e-38F,        FLT_MIN,   1e-40F,   FLT_TRUE_MIN};
  for (const float rate : kRates) {
    cv::Mat image(240, 240, CV_16UC1);
    for (int y = 0; y < image.rows; y += 3) {
      for (int x = 0; x < image.cols; x += 3) {
        const double product = std::nearbyint(random.uniform(0, 65536) * static_cast<double>(rate));
        const int sample = product < 65536.0 ? static_cast<int>(product) : random.uniform(0, 65536);
        const double quotient = static_cast<double>(static_cast<float>(sample) / rate);
        const double limit = std::floor(quotient) + random.uniform(-2, 3);
        image(cv::Rect(x, y, 3, 3)).setTo(std::clamp(limit, 0.0, 65535.0));
        reference::Put(image, x + 1, y + 1, sample);
      }
    }
    for (const Repair& repair : kRepairs) {
      ExpectRepaired(repair, image, rate, backend(), "quotients");
    }
  }
}

TEST_P(OnBackend, RepairsDoNotDependOnThreads) {
  const int before = cv::getNumThreads();
  for (const int threads : {1, 2, 5}) {
    cv::setNumThreads(threads);
    for (const Content content : {kUniform, kBadPixels}) {
      for (const cv::Size size : {cv::Size(1021, 203), cv::Size(17000, 7) /*one row a stripe*/}) {
        for (const Repair& repair : kRepairs) {
          ExpectRepaired(repair, MakeImage(size.width, size.height, content), 1.0F, backend(),
                         std::to_string(threads) + " threads");
        }
      }
    }
  }
  cv::setNumThreads(before);
}

TEST_P(OnBackend, RedSiteTakesItsRowAndColumnAndGreenItsDiagonals) {
  cv::Mat image = cv::Mat::zeros(9, 9, CV_16UC1);
  reference::Put(image, 4, 4, 1000);  // red
  reference::Put(image, 2, 4, 7);
  reference::Put(image, 7, 6, 900);  // in the margin: kept
  cv::Mat green = cv::Mat::zeros(9, 9, CV_16UC1);
  reference::Put(green, 4, 3, 1000);
  reference::Put(green, 3, 2, 11);
  FixBadPixels(image, 2.0F, backend());
  FixBadPixels(green, 2.0F, backend());
  EXPECT_EQ(reference::At(image, 4, 4), 1);
  EXPECT_EQ(reference::At(image, 7, 6), 900);
  EXPECT_EQ(reference::At(green, 4, 3), 2);
}

TEST_P(OnBackend, SplitMatchesTheRuleAndMergeBringsTheMosaicBack) {
  // The last is large enough for streaming, in several chunks per row.
  constexpr int kCells[][2] = {{1, 1},  {2, 1},  {1, 3},  {8, 2},   {9, 5},
                               {16, 3}, {33, 4}, {64, 3}, {350, 9}, {1061, 501}};
  for (const auto& [width, height] : kCells) {
    const cv::Size cells(width, height);
    for (int border = cells.width > 1000 ? 8 : 1; border <= 8; ++border) {
      for (const Content content : {kUniform, kExtremes}) {
        const cv::Mat raw =
            AsView(MakeImage(2 * cells.width + 2 * border, 2 * cells.height + 2 * border, content));
        cv::Mat g(cells * 2, CV_16UC1), r(cells, CV_16UC1), b(cells, CV_16UC1);
        reference::SplitRaw(raw, g, r, b, border);
        cv::Mat views[] = {AsView(cv::Mat::zeros(g.size(), CV_16UC1)), cv::Mat(), cv::Mat()};
        SplitRaw(raw, views[0], views[1], views[2], border, backend());
        cv::Mat merged;
        MergeRaw(views[0], views[1], views[2], merged, 0, backend());
        const cv::Mat inside = raw(cv::Rect(cv::Point(border, border), cells * 2));
        EXPECT_TRUE(Same(views[0], g) && Same(views[1], r) && Same(views[2], b) &&
                    Same(merged, inside))
            << cells << " border " << border;
      }
    }
  }
}

TEST_P(OnBackend, MergeOfABatchWritesOneMosaicAndKeepsTheOthers) {
  const cv::Mat g = AsView(MakeImage(38, 3 * 10, kUniform, 1));
  const cv::Mat r = AsView(MakeImage(19, 5, kUniform, 2));
  const cv::Mat b = AsView(MakeImage(19, 5, kUniform, 3));
  for (const int index : {0, 1, 2}) {
    cv::Mat kept = AsView(MakeImage(38, 3 * 10, kUniform, 4));
    cv::Mat fresh;
    cv::Mat expected_kept = kept.clone();
    cv::Mat expected_fresh = cv::Mat::zeros(g.size(), CV_16UC1);
    reference::MergeRaw(g, r, b, expected_kept, index);
    reference::MergeRaw(g, r, b, expected_fresh, index);
    const unsigned char* const memory = kept.data;
    MergeRaw(g, r, b, kept, index, backend());
    MergeRaw(g, r, b, fresh, index, backend());
    EXPECT_TRUE(Same(kept, expected_kept)) << "index " << index;
    EXPECT_TRUE(Same(fresh, expected_fresh)) << "index " << index;
    EXPECT_EQ(kept.data, memory);
  }
}

TEST_P(OnBackend, OutputMayShareMemoryWithInput) {
  const cv::Mat raw = MakeImage(52, 42);
  cv::Mat g, r, b;
  SplitRaw(raw, g, r, b, 1);

  cv::Mat memory = raw.clone();
  cv::Mat g_inside = memory(cv::Rect(2, 1, 50, 40));
  cv::Mat r_same = memory;
  cv::Mat b_plain;
  SplitRaw(memory, g_inside, r_same, b_plain, 1, backend());
  EXPECT_TRUE(Same(g_inside, g));
  EXPECT_TRUE(Same(memory(cv::Rect(2, 1, 50, 40)), g)) << "an output of fitting size moved";
  EXPECT_TRUE(Same(r_same, r));
  EXPECT_TRUE(Same(b_plain, b));

  cv::Mat expected(g.size(), CV_16UC1);
  reference::MergeRaw(g, r, b, expected, 0);
  cv::Mat in_place = g.clone();
  MergeRaw(in_place, r, b, in_place, 0, backend());
  EXPECT_TRUE(Same(in_place, expected));
  cv::Mat over_red = cv::Mat::zeros(40, 50, CV_16UC1);
  cv::Mat r_inside = over_red(cv::Rect(5, 3, 25, 20));
  r.copyTo(r_inside);
  MergeRaw(g, r_inside, b, over_red, 0, backend());
  EXPECT_TRUE(Same(over_red, expected));
}

TEST(RawBayer, SideBySideViewsOfOneImageAreNoSharedMemory) {
  cv::Mat atlas(8, 32, CV_16UC1);
  cv::Mat parts[] = {atlas.colRange(0, 16), atlas(cv::Rect(16, 0, 8, 4)),
                     atlas(cv::Rect(24, 0, 8, 4))};
  cv::Mat expected[] = {cv::Mat(8, 16, CV_16UC1), cv::Mat(4, 8, CV_16UC1), cv::Mat(4, 8, CV_16UC1)};
  const cv::Mat raw = MakeImage(18, 10);
  reference::SplitRaw(raw, expected[0], expected[1], expected[2], 1);
  const unsigned char* const memory[] = {parts[0].data, parts[1].data, parts[2].data};
  SplitRaw(raw, parts[0], parts[1], parts[2], 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(parts[i].data, memory[i]) << "an output of fitting size moved";
    EXPECT_TRUE(Same(parts[i], expected[i]));
  }
}

void ExpectRejected(const std::function<void()>& call, const std::string& words) {
  try {
    call();
    ADD_FAILURE() << "accepted; expected: " << words;
  } catch (const cv::Exception& error) {
    EXPECT_THAT(error.what(), ::testing::HasSubstr(words));
  }
}

TEST(RawBayer, BadInputIsRejectedByNameAndLeavesOutputsAlone) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  for (const Repair& repair : kRepairs) {
    cv::Mat image = MakeImage(9, 9, kBadPixels);
    const cv::Mat before = image.clone();
    for (const float rate : {0.0F, -0.0F, -1.0F, nan, inf}) {
      ExpectRejected([&] { repair.fix(image, rate, Backend::kProcessor); },
                     "bad_pixel_rate: expected a finite number greater than 0");
    }
    EXPECT_TRUE(Same(image, before));
    cv::Mat empty, bytes(4, 4, CV_8UC1), pairs(4, 4, CV_16UC2);
    cv::Mat cube(std::vector<int>{4, 4, 4}, CV_16UC1);
    const auto fix = [&](cv::Mat& bad) { repair.fix(bad, 1.0F, Backend::kProcessor); };
    ExpectRejected([&] { fix(empty); }, "image: expected an image, got an empty one");
    ExpectRejected([&] { fix(bytes); }, "image: expected type CV_16UC1, got CV_8UC1");
    ExpectRejected([&] { fix(pairs); }, "image: expected type CV_16UC1, got CV_16UC2");
    ExpectRejected([&] { fix(cube); }, "image: expected two dimensions, got 3");
  }

  cv::Mat g = MakeImage(8, 8), r = MakeImage(4, 4);
  cv::Mat b = MakeImage(4, 4, kUniform, 1), raw = MakeImage(8, 8, kUniform, 2);
  const cv::Mat before[] = {g.clone(), r.clone(), b.clone(), raw.clone()};
  const cv::Mat border = MakeImage(12, 12);
  const auto split = [&](const cv::Mat& input, int size) {
    return [&g, &r, &b, &input, size] { SplitRaw(input, g, r, b, size); };
  };
  constexpr int kHuge = std::numeric_limits<int>::max();
  ExpectRejected(split(border, 0), "border_size: expected at least 1, got 0");
  ExpectRejected(split(border, -kHuge), "border_size: expected at least 1");
  const cv::Mat narrow = border.colRange(0, 4);
  const cv::Mat low = border.rowRange(0, 4);
  ExpectRejected(split(narrow, 2), "border_size: expected one that leaves a 2 x 2 cell");
  ExpectRejected(split(low, 2), "border_size: expected one that leaves a 2 x 2 cell");
  ExpectRejected(split(border, kHuge), "border_size: expected one that leaves a 2 x 2 cell");
  ExpectRejected(split(cv::Mat(1, 1, CV_16UC1), 1), "border_size: expected one that leaves");
  ExpectRejected(split(border.colRange(0, 11), 2), "even sides inside the border, got 7 x 8");
  ExpectRejected(split(border.rowRange(0, 11), 2), "even sides inside the border, got 8 x 7");
  ExpectRejected(split(cv::Mat(12, 12, CV_32FC1), 2), "raw_border: expected type CV_16UC1");
  ExpectRejected([&] { SplitRaw(border, g, r, r, 2); }, "r, b: expected images of their own");
  cv::Mat r_in_g = g(cv::Rect(0, 0, 4, 4));
  ExpectRejected([&] { SplitRaw(border, g, r_in_g, b, 2); }, "g, r: expected images of their own");

  const auto merge = [&](const cv::Mat& g_in, const cv::Mat& r_in, const cv::Mat& b_in, int index) {
    return [&raw, g_in, r_in, b_in, index] { MergeRaw(g_in, r_in, b_in, raw, index); };
  };
  ExpectRejected(merge(g, r, b, -1), "index: expected 0 to 0, as g holds that many images, got -1");
  ExpectRejected(merge(g, r, b, 1), "index: expected 0 to 0");
  ExpectRejected(merge(g, r, b, kHuge), "index: expected 0 to 0");
  ExpectRejected(merge(g, r, b.rowRange(0, 3), 0), "b: expected the size of r (4 x 4), got 4 x 3");
  ExpectRejected(merge(g.rowRange(0, 7), r, b, 0), "g: expected images of twice the size of r");
  ExpectRejected(merge(g.colRange(0, 7), r, b, 0), "g: expected images of twice the size of r");
  ExpectRejected(merge(r, r, b, 0), "g: expected images of twice the size of r");
  ExpectRejected(merge(cv::Mat(), r, b, 0), "g: expected an image, got an empty one");
  ExpectRejected(merge(g, r, cv::Mat(4, 4, CV_16SC1), 0), "b: expected type CV_16UC1");
  EXPECT_TRUE(Same(g, before[0]) && Same(r, before[1]) && Same(b, before[2]) &&
              Same(raw, before[3]));
}

TEST(RawBayer, AnAbsentDeviceIsNamedAndLeavesOutputsAlone) {
  const std::vector<Backend> available = AvailableBackends();
  EXPECT_EQ(available.front(), Backend::kProcessor);
  for (const Backend backend : {Backend::kOpenCl, Backend::kCuda}) {
    if (std::find(available.begin(), available.end(), backend) != available.end()) {
      continue;
    }
    const std::string name = BackendName(backend);
    cv::Mat image = MakeImage(9, 9);
    const cv::Mat before = image.clone();
    ExpectRejected([&] { FixBadPixels(image, 1.0F, backend); }, name);
    EXPECT_TRUE(Same(image, before));
    cv::Mat g, r, b;
    ExpectRejected([&] { SplitRaw(MakeImage(4, 4, kFlat), g, r, b, 1, backend); }, name);
    EXPECT_TRUE(g.empty() && r.empty() && b.empty());
  }
}

}  // namespace
}  // namespace lum::raw
