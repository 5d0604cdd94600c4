#include "raw_bayer/raw_bayer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/core/ocl.hpp>
#include <string>
#include <vector>

#include "raw_bayer/row_kernels.h"

namespace lum::raw {
namespace {

constexpr int kSeed = 20;

std::uint16_t& At(cv::Mat& image, int x, int y) { return image.at<std::uint16_t>(y, x); }

bool Same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

enum Content { kUniform, kDim, kBadPixels, kExtremes, kFlat };
constexpr const char* kContentNames[] = {"uniform", "dim", "bad pixels", "extremes", "flat"};

cv::Mat MakeImage(int width, int height, Content content = kUniform, int seed = kSeed) {
  cv::RNG random(static_cast<std::uint64_t>(seed + 1000 * width + height));
  cv::Mat image(height, width, CV_16UC1, cv::Scalar(65535));
  const int below = content == kDim ? 4 : content == kBadPixels ? 2101 : 65536;
  if (content < kExtremes) random.fill(image, cv::RNG::UNIFORM, below == 2101 ? 1900 : 0, below);
  if (content == kBadPixels || content == kExtremes) {
    cv::Mat chance(image.size(), CV_16UC1), hot = MakeImage(width, height, kUniform, seed + 1);
    random.fill(chance, cv::RNG::UNIFORM, 0, content == kExtremes ? 2 : 30);
    (content == kExtremes ? 0 * hot : hot).copyTo(image, chance == 0);
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

  /// Calls `work` with plain loops: what the other sets and backends must equal.
  template <typename Work>
  static void Plainly(const Work& work) {
    kernels::Force(&kernels::kPlainKernels);
    work();
    kernels::Force(GetParam().kernels);
  }

  static void ExpectRepairedAsPlainly(const cv::Mat& image, float rate, const std::string& what) {
    for (const bool square : {false, true}) {
      const auto fix = square ? Fix(FixBadPixels2) : Fix(FixBadPixels);
      cv::Mat expected = image.clone(), view = AsView(image);
      Plainly([&] { fix(expected, rate, Backend::kProcessor); });
      fix(view, rate, backend());
      EXPECT_TRUE(Same(view, expected)) << (square ? "FixBadPixels2" : "FixBadPixels") << " of "
                                        << what << image.size() << ", rate " << rate;
    }
  }

  using Fix = void (*)(cv::Mat&, float, Backend);
};

INSTANTIATE_TEST_SUITE_P(Raw, OnBackend, ::testing::ValuesIn(Places()),
                         [](const auto& test) { return test.param.name; });

TEST_P(OnBackend, ResultsAreThoseComputedByHand) {
  struct Case {
    const char* what;
    bool square;
    cv::Point at;
    int sample;                      // there, among samples of 100
    std::vector<cv::Point> counted;  // hold 110, 111, 112, ...
    cv::Point brightest;             // holds 190
    int expected;
  };
  const Case cases[] = {
      {"red", false, {4, 4}, 1000, {{2, 4}, {6, 4}, {4, 2}, {4, 6}}, {3, 3}, 446 / 4},
      {"blue", false, {5, 5}, 1000, {{3, 5}, {7, 5}, {5, 3}, {5, 7}}, {4, 4}, 446 / 4},
      {"green", false, {4, 5}, 1000, {{3, 4}, {5, 4}, {3, 6}, {5, 6}}, {2, 5}, 446 / 4},
      {"left margin", false, {1, 4}, 1000, {}, {8, 8}, 1000},
      {"upper margin", false, {4, 1}, 1000, {}, {8, 8}, 1000},
      {"right margin", false, {7, 4}, 1000, {}, {0, 0}, 1000},
      {"lower margin", false, {4, 7}, 1000, {}, {0, 0}, 1000},
      {"twice a neighbour", false, {4, 4}, 380, {}, {4, 3}, 380},
      {"above twice", false, {4, 4}, 381, {}, {5, 4}, 100},
      {"square", true, {4, 4}, 1000, {{3, 3}, {4, 3}, {5, 3}, {3, 4}, {5, 4}}, {8, 8}, 860 / 8},
      {"above twice a diagonal", true, {4, 4}, 381, {{3, 5}}, {5, 5}, 900 / 8},
      {"a corner is its own neighbour", true, {0, 0}, 1000, {}, {8, 8}, 1000},
  };
  for (const Case& c : cases) {
    cv::Mat image(9, 9, CV_16UC1, cv::Scalar(100));
    std::uint16_t counted = 110;
    for (const cv::Point& at : c.counted) At(image, at.x, at.y) = counted++;
    At(image, c.brightest.x, c.brightest.y) = 190;
    cv::Mat expected = image.clone();
    At(image, c.at.x, c.at.y) = static_cast<std::uint16_t>(c.sample);
    At(expected, c.at.x, c.at.y) = static_cast<std::uint16_t>(c.expected);
    (c.square ? Fix(FixBadPixels2) : Fix(FixBadPixels))(image, 2.0F, backend());
    EXPECT_TRUE(Same(image, expected)) << c.what << "\n" << image;
  }
  // At a rate below half, a corner outshines itself: 4 times 900, once 30.
  cv::Mat corner = (cv::Mat_<std::uint16_t>(3, 3) << 900, 0, 0, 0, 30, 0, 0, 0, 0);
  FixBadPixels2(corner(cv::Rect(0, 0, 2, 2)), 0.4F, backend());
  EXPECT_EQ(At(corner, 0, 0), (3 * 900 + 30) / 8);

  const cv::Mat raw = (cv::Mat_<std::uint16_t>(4, 4) << 1, 65533, 3, 4, 65532, 6, 65535, 8, 9,
                       65534, 11, 1, 13, 14, 2, 16);
  cv::Mat g, r, b, mosaic;
  SplitRaw(raw, g, r, b, 1, backend());
  EXPECT_TRUE(
      Same(g, (cv::Mat_<std::uint16_t>(2, 2) << 65533, 65535, 65534, (65535 + 1 + 2 + 65534) / 4)))
      << g;
  EXPECT_TRUE(Same(r, (cv::Mat_<std::uint16_t>(1, 1) << 6)) &&
              Same(b, (cv::Mat_<std::uint16_t>(1, 1) << 11)));
  MergeRaw(g, r, b, mosaic, 0, backend());
  EXPECT_TRUE(Same(mosaic, raw(cv::Rect(1, 1, 2, 2)))) << mosaic;
}

TEST_P(OnBackend, RepairsEqualPlainLoopsForEverySizeContentAndRate) {
  int turn = 0;
  // Widths next to those of vectors of 8, 16 and 32 samples with their margins.
  for (const int width : {1,  2,  3,  4,  5,  6,  9,  10, 11, 12, 13, 17, 18,
                          20, 21, 33, 34, 35, 36, 37, 64, 65, 67, 69, 131}) {
    for (const int height : {1, 2, 3, 5, 6, 21}) {
      for (const float rate : {1.0F, 0.3F, 1.0001F, 1.7F, 3.0F, 40000.0F}) {
        const auto content = static_cast<Content>(turn++ % 5);
        ExpectRepairedAsPlainly(MakeImage(width, height, content), rate, kContentNames[content]);
      }
    }
  }
}

TEST_P(OnBackend, QuotientIsRoundedToSinglePrecision) {
  // Each 3 x 3 patch holds a sample and a neighbour level near their quotient, where a division
  // that is off by one unit in the last place decides otherwise.
  cv::RNG random(kSeed);
  // The first two are the numbers next to 1.
  for (const float rate :
       {0x1.fffffep-1F, 0x1.000002p0F, 1.0F, 1.00002F, 1.1F, 1.5F, 3.0F, 7.0F, 256.0F, 65535.0F,
        65537.0F, 1e30F, FLT_MAX, 0.1F, 0.5F, 1e-38F, FLT_MIN, 1e-40F, FLT_TRUE_MIN}) {
    cv::Mat image(240, 240, CV_16UC1);
    for (int y = 0; y < image.rows; y += 3) {
      for (int x = 0; x < image.cols; x += 3) {
        const double product = std::nearbyint(random.uniform(0, 65536) * static_cast<double>(rate));
        const int sample = product < 65536.0 ? static_cast<int>(product) : random.uniform(0, 65536);
        const double quotient = static_cast<double>(static_cast<float>(sample) / rate);
        const double limit = std::floor(quotient) + random.uniform(-2, 3);
        image(cv::Rect(x, y, 3, 3)).setTo(std::clamp(limit, 0.0, 65535.0));
        At(image, x + 1, y + 1) = static_cast<std::uint16_t>(sample);
      }
    }
    ExpectRepairedAsPlainly(image, rate, "quotients");
  }
}

TEST_P(OnBackend, RepairsDoNotDependOnThreads) {
  const int before = cv::getNumThreads();
  for (const int threads : {1, 2, 5}) {
    cv::setNumThreads(threads);
    for (const Content content : {kUniform, kBadPixels}) {
      for (const cv::Size size : {cv::Size(1021, 203), cv::Size(17000, 7) /*one row a stripe*/}) {
        ExpectRepairedAsPlainly(MakeImage(size.width, size.height, content), 1.0F,
                                std::to_string(threads) + " threads");
      }
    }
  }
  cv::setNumThreads(before);
}

TEST_P(OnBackend, SplitEqualsPlainLoopsAndMergeBringsTheMosaicBack) {
  // The last is large enough for streaming, in several chunks per row.
  constexpr int kCells[][2] = {{1, 1},  {2, 1},  {1, 3},  {8, 2},   {9, 5},
                               {16, 3}, {33, 4}, {64, 3}, {350, 9}, {2085, 255}};
  for (const auto& [width, height] : kCells) {
    const cv::Size cells(width, height);
    for (int border = cells.width > 1000 ? 8 : 1; border <= 8; ++border) {
      for (const Content content : {kUniform, kExtremes}) {
        const cv::Mat raw =
            AsView(MakeImage(2 * cells.width + 2 * border, 2 * cells.height + 2 * border, content));
        cv::Mat g, r, b;
        Plainly([&] { SplitRaw(raw, g, r, b, border); });
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
  const cv::Mat g = AsView(MakeImage(38, 3 * 10)), r = MakeImage(19, 5), b = AsView(r * 0.5);
  for (const int index : {0, 1, 2}) {
    const cv::Range rows(10 * index, 10 * index + 10);
    cv::Mat mosaic, fresh, kept = AsView(MakeImage(38, 3 * 10, kDim));
    MergeRaw(g.rowRange(rows), r, b, mosaic, 0);
    for (cv::Mat* raw : {&kept, &fresh}) {
      cv::Mat expected = raw->empty() ? cv::Mat(cv::Mat::zeros(g.size(), g.type())) : raw->clone();
      mosaic.copyTo(expected.rowRange(rows));
      const unsigned char* const memory = raw->data;
      MergeRaw(g, r, b, *raw, index, backend());
      EXPECT_TRUE(Same(*raw, expected)) << "index " << index;
      EXPECT_TRUE(memory == nullptr || raw->data == memory);
    }
  }
}

TEST_P(OnBackend, OutputMayShareMemoryWithInput) {
  const cv::Mat raw = MakeImage(52, 42);
  cv::Mat g, r, b, expected;
  SplitRaw(raw, g, r, b, 1);
  MergeRaw(g, r, b, expected, 0);

  cv::Mat memory = raw.clone();
  cv::Mat g_inside = memory(cv::Rect(2, 1, 50, 40)), r_same = memory, b_plain;
  SplitRaw(memory, g_inside, r_same, b_plain, 1, backend());
  EXPECT_TRUE(Same(g_inside, g));
  EXPECT_TRUE(Same(memory(cv::Rect(2, 1, 50, 40)), g)) << "an output of fitting size moved";
  EXPECT_TRUE(Same(r_same, r) && Same(b_plain, b));

  cv::Mat in_place = g.clone(), over_red = cv::Mat::zeros(40, 50, CV_16UC1);
  MergeRaw(in_place, r, b, in_place, 0, backend());
  EXPECT_TRUE(Same(in_place, expected));
  cv::Mat r_inside = over_red(cv::Rect(5, 3, 25, 20));
  r.copyTo(r_inside);
  MergeRaw(g, r_inside, b, over_red, 0, backend());
  EXPECT_TRUE(Same(over_red, expected));
}

TEST(RawBayer, SideBySideViewsOfOneImageAreNoSharedMemory) {
  cv::Mat atlas(8, 32, CV_16UC1), expected[3];
  cv::Mat parts[] = {atlas.colRange(0, 16), atlas(cv::Rect(16, 0, 8, 4)),
                     atlas(cv::Rect(24, 0, 8, 4))};
  const cv::Mat raw = MakeImage(18, 10);
  SplitRaw(raw, expected[0], expected[1], expected[2], 1);
  const unsigned char* const memory[] = {parts[0].data, parts[1].data, parts[2].data};
  SplitRaw(raw, parts[0], parts[1], parts[2], 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(parts[i].data, memory[i]) << "an output of fitting size moved";
    EXPECT_TRUE(Same(parts[i], expected[i]));
  }
}

TEST(RawBayer, RowsMayBeAsWideAsAnInt) {
  // Address space only: no more than the last columns are touched.
  constexpr std::size_t kBytes = std::size_t{INT_MAX} * 2;
  void* const memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) GTEST_SKIP() << "no address space for such a row";
  auto* const row = static_cast<std::uint16_t*>(memory);
  for (const auto* set = kernels::Supported(); *set != nullptr; ++set) {
    const kernels::Screen screen(1.0F);
    kernels::RepairRow search{{row, row, row, row, row}, row, nullptr, 0};
    EXPECT_EQ((*set)->fix_bad_pixels_2(search, screen, INT_MAX - 65, INT_MAX - 1), INT_MAX - 1);
    search.out = row;
    EXPECT_EQ((*set)->fix_bad_pixels_2(search, screen, INT_MAX - 65, INT_MAX - 1), INT_MAX - 1);
  }
  munmap(memory, kBytes);
}

void ExpectRejected(const std::function<void()>& call, const std::string& words) {
  EXPECT_THAT(call, ::testing::ThrowsMessage<cv::Exception>(::testing::HasSubstr(words)));
}

TEST(RawBayer, BadInputIsRejectedByNameAndLeavesOutputsAlone) {
  cv::Mat image = MakeImage(9, 9, kBadPixels), g = MakeImage(8, 8), r = MakeImage(4, 4);
  cv::Mat b = MakeImage(4, 4, kUniform, 1), raw = MakeImage(8, 8, kUniform, 2);
  const cv::Mat* const images[] = {&image, &g, &r, &b, &raw};
  std::vector<cv::Mat> before;
  for (const cv::Mat* each : images) before.push_back(each->clone());

  for (const float rate : {0.0F, -0.0F, -1.0F, NAN, INFINITY}) {
    const std::string words = "bad_pixel_rate: expected a finite number greater than 0";
    ExpectRejected([&] { FixBadPixels(image, rate); }, words);
    ExpectRejected([&] { FixBadPixels2(image, rate); }, words);
  }
  const auto fix = [](const cv::Mat& bad) {
    return [bad] { FixBadPixels(cv::Mat(bad), 1.0F), FixBadPixels2(cv::Mat(bad), 1.0F); };
  };
  ExpectRejected(fix({}), "image: expected an image, got an empty one");
  ExpectRejected(fix(cv::Mat(4, 4, CV_16UC2)), "image: expected type CV_16UC1, got CV_16UC2");
  ExpectRejected(fix(cv::Mat({4, 4, 4}, CV_16UC1)), "image: expected two dimensions, got 3");

  const cv::Mat border = MakeImage(12, 12);
  const auto split = [&](const cv::Mat& input, int size) {
    return [&g, &r, &b, input, size] { SplitRaw(input, g, r, b, size); };
  };
  ExpectRejected(split(border, 0), "border_size: expected at least 1, got 0");
  ExpectRejected(split(border.colRange(0, 4), 2), "border_size: expected one that leaves a 2 x 2");
  ExpectRejected(split(border.rowRange(0, 4), 2), "border_size: expected one that leaves a 2 x 2");
  ExpectRejected(split(border, INT_MAX), "border_size: expected one that leaves a 2 x 2 cell");
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
  ExpectRejected(merge(g, r, b.rowRange(0, 3), 0), "b: expected the size of r (4 x 4), got 4 x 3");
  ExpectRejected(merge(g.rowRange(0, 7), r, b, 0), "g: expected images of twice the size of r");
  ExpectRejected(merge(g.colRange(0, 7), r, b, 0), "g: expected images of twice the size of r");
  ExpectRejected(merge(r, r, b, 0), "g: expected images of twice the size of r");
  ExpectRejected(merge(g, r, cv::Mat(4, 4, CV_16SC1), 0), "b: expected type CV_16UC1");
  ExpectRejected(merge(MakeImage(8, 16), r, b, 1),
                 "raw: expected an empty image or one that holds");
  for (const Backend absent : {Backend::kOpenCl, Backend::kCuda}) {
    const std::vector<Backend> available = AvailableBackends();
    if (std::find(available.begin(), available.end(), absent) != available.end()) continue;
    ExpectRejected([&] { FixBadPixels2(image, 1.0F, absent); }, BackendName(absent));
    ExpectRejected([&] { SplitRaw(border, g, r, b, 2, absent); }, BackendName(absent));
  }
  for (std::size_t i = 0; i < before.size(); ++i) EXPECT_TRUE(Same(*images[i], before[i])) << i;
}

// The OpenCL kernels themselves, started as a user of their source would start them.

cv::ocl::KernelArg Pointer(const cv::UMat& image) {
  return cv::ocl::KernelArg::PtrReadWrite(image);
}

class KernelSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (AvailableBackends().size() < 2 || AvailableBackends()[1] != Backend::kOpenCl) {
      GTEST_SKIP() << "no OpenCL device on this machine";
    }
    const cv::ocl::Context context = cv::ocl::Context::create(":ALL:");
    cv::ocl::OpenCLExecutionContext::create(context, context.device(0)).bind();
  }

  template <typename... Arguments>
  static void Run(const char* name, cv::Size size, const Arguments&... arguments) {
    // What a user adds to see the access functions at work; OpenCV starts more work items than
    // asked for.
    static const std::string source = KernelSource() + R"(
        __kernel void read(__global const ushort* image, __global ushort* out, int columns,
                           int rows, int w, int h, int offset) {
          const int x = get_global_id(0), y = get_global_id(1);
          if (x < columns && y < rows)
            out[y * columns + x] = offset ? load_ushort_offset(image, x, y, w, h, offset)
                                          : load_ushort(image, x, y, w, h);
        }
        __kernel void write(__global ushort* image, int x, int y, int w, int h) {
          store_uhsort(image, x, y, w, h, 77);
        })";
    cv::String log;
    cv::ocl::Kernel kernel(name, cv::ocl::ProgramSource(source), "", &log);
    ASSERT_FALSE(kernel.empty()) << name << ": " << log;
    kernel.args(arguments...);
    std::size_t global[] = {static_cast<std::size_t>(size.width),
                            static_cast<std::size_t>(size.height)};
    ASSERT_TRUE(kernel.run(2, global, nullptr, /*sync=*/true)) << name;
  }

  static bool Same(const cv::UMat& a, const cv::Mat& b) {
    return raw::Same(a.getMat(cv::ACCESS_READ), b);
  }
};

TEST_F(KernelSourceTest, ColumnsWrapToTheFirstAndRowsClampToTheLast) {
  const cv::Mat image = MakeImage(6, 10);  // Two images of 6 x 5.
  cv::UMat on_device = image.getUMat(cv::ACCESS_READ).clone();
  for (const int second : {0, 1}) {
    cv::Mat expected;
    cv::copyMakeBorder(image.rowRange(5 * second, 5 * second + 5), expected, 0, 3, 0, 3,
                       cv::BORDER_REPLICATE | cv::BORDER_ISOLATED);
    for (int x = 6; x < 9; ++x) expected.col(0).copyTo(expected.col(x));
    cv::UMat read(8, 9, CV_16UC1);
    Run("read", read.size(), Pointer(on_device), Pointer(read), 9, 8, 6, 5, 30 * second);
    EXPECT_TRUE(Same(read, expected)) << "image " << second;
  }
  Run("write", {1, 1}, Pointer(on_device), 6, 9, 6, 5);
  cv::Mat expected = image.clone();
  expected.at<std::uint16_t>(4, 0) = 77;
  EXPECT_TRUE(Same(on_device, expected));
}

TEST_F(KernelSourceTest, RepairsInPlaceAlsoAtRatesThatTheHostRefuses) {
  // Bad pixels so far apart that none sees another: the order of the work items is nothing to it.
  cv::Mat image = cv::Mat::zeros(31, 41, CV_16UC1);
  for (int at = 0; at < 9 * 7; ++at) At(image, at % 9 * 5, at / 9 * 5) = 1000;
  for (const float rate : {2.0F, -0.0F, -1.0F, INFINITY, -INFINITY, NAN}) {
    for (const bool square : {false, true}) {
      cv::Mat expected = image.clone();
      if (rate == 2.0F) square ? FixBadPixels2(expected, rate) : FixBadPixels(expected, rate);
      cv::UMat on_device = image.getUMat(cv::ACCESS_READ).clone();
      Run(square ? "kernel_fixBadPixels2" : "kernel_fixBadPixels", {48, 32}, Pointer(on_device),
          rate, image.cols, image.rows);
      EXPECT_TRUE(Same(on_device, expected)) << "square " << square << " rate " << rate;
    }
  }
}

TEST_F(KernelSourceTest, MergeReadsGreenAndWritesTheMosaicOfTheIndex) {
  const cv::Mat g = MakeImage(10, 3 * 8), r = MakeImage(5, 4), b = MakeImage(5, 4);
  cv::Mat expected = cv::Mat::zeros(g.size(), CV_16UC1);
  MergeRaw(g, r, b, expected, 2);
  cv::UMat raw = cv::UMat::zeros(g.size(), CV_16UC1);
  // Writes do not follow the access rule: the mosaic's height is nothing to them.
  Run("kernel_mergeRaw", {8, 8}, Pointer(g.getUMat(cv::ACCESS_READ)),
      Pointer(r.getUMat(cv::ACCESS_READ)), Pointer(b.getUMat(cv::ACCESS_READ)), Pointer(raw), 10, 8,
      5, 4, 10, /*rawHeight=*/1, 2);
  EXPECT_TRUE(Same(raw, expected));
}

}  // namespace
}  // namespace lum::raw
