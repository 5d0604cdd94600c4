#include "motionInterpolation/dis_flow.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cmath>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "motionInterpolation/flow_kernels.h"
#include "motionInterpolation/interpolate_frame.h"

namespace {

using cv::optflow::lum::DISOpticalFlow;
using cv::optflow::lum::VariationalRefinement;
namespace kernels = cv::optflow::lum::kernels;

/// A smooth random pattern whose value at any real position is known, so that every warp is exact.
uchar pattern(double x, double y) {
  const double value =
      128 + 40 * std::sin(0.31 * x + 0.07 * y) + 30 * std::sin(0.23 * y - 0.11 * x) +
      25 * std::sin(0.043 * x + 0.057 * y + 1.0) + 20 * std::sin(0.51 * x) * std::sin(0.47 * y);
  return cv::saturate_cast<uchar>(value);
}

using Motion = std::function<cv::Point2d(double x, double y)>;

struct ImagePair {
  cv::Mat i0, i1;
  cv::Mat flow;  // from the first to the second
};

/// A pair in which the point at p in the first image is found at p + motion(p) in the second.
ImagePair makePair(int width, int height, const Motion& motion, double gain = 1.0,
                   double offset = 0.0) {
  ImagePair pair{cv::Mat(height, width, CV_8UC1), cv::Mat(height, width, CV_8UC1),
                 cv::Mat(height, width, CV_32FC2)};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      pair.i0.at<uchar>(y, x) = pattern(x, y);
      // Fixed point inverse: the motions are contractions.
      cv::Point2d p(x, y);
      for (int i = 0; i < 10; ++i) p = cv::Point2d(x, y) - motion(p.x, p.y);
      pair.i1.at<uchar>(y, x) = cv::saturate_cast<uchar>(gain * pattern(p.x, p.y) + offset);
      const cv::Point2d m = motion(x, y);
      pair.flow.at<cv::Vec2f>(y, x) = cv::Vec2f(float(m.x), float(m.y));
    }
  }
  return pair;
}

Motion shift(double dx, double dy) {
  return [=](double, double) { return cv::Point2d(dx, dy); };
}

/// The distance of two flows at every pixel that is `margin` pixels away from the border.
cv::Mat distances(const cv::Mat& a, const cv::Mat& b, int margin = 0) {
  const cv::Rect inner(margin, margin, a.cols - 2 * margin, a.rows - 2 * margin);
  cv::Mat components[2];
  cv::split(a(inner) - b(inner), components);
  cv::Mat result;
  cv::magnitude(components[0], components[1], result);
  return result;
}

bool sameBits(const cv::Mat& a, const cv::Mat& b) {
  // Not by their norm, to which NaN is nothing.
  return a.size() == b.size() && a.type() == b.type() &&
         cv::countNonZero(a.reshape(1) != b.reshape(1)) == 0;
}

cv::Mat calc(DISOpticalFlow& engine, const ImagePair& pair, const cv::Mat& initial = cv::Mat()) {
  cv::Mat flow = initial.clone();
  engine.calc(pair.i0, pair.i1, flow);
  return flow;
}

struct RefineParams {
  float alpha = 20, delta = 5, gamma = 10;
  int iterations = 5, sweeps = 4;
  float omega = 1.8F;
  int warps = 0;
  float growth = 2.0F;
};

/// The pair's flow, refined.
cv::Mat refine(const ImagePair& pair, const RefineParams& p) {
  const auto refinement = VariationalRefinement::create();
  refinement->setAlpha(p.alpha);
  refinement->setDelta(p.delta);
  refinement->setGamma(p.gamma);
  refinement->setIterations(p.iterations);
  refinement->setSolverSweeps(p.sweeps);
  refinement->setRelaxation(p.omega);
  refinement->setLeastWarps(p.warps);
  refinement->setPullGrowth(p.growth);
  cv::Mat components[2];
  cv::split(pair.flow, components);
  refinement->refine(pair.i0, pair.i1, components[0], components[1]);
  cv::Mat flow;
  cv::merge(components, 2, flow);
  return flow;
}

/// Calls `body` with each set but the plain one in force, which it is compared with.
template <typename Body>
void forEachVectorSet(const Body& body) {
  for (auto set = kernels::supportedKernels(); *set != nullptr; ++set) {
    if (*set == &kernels::kPlainKernels) continue;
    SCOPED_TRACE((*set)->name);
    kernels::forceKernels(*set);
    body();
  }
}

/// Restores what a test forces upon the whole process.
struct DisFlow : ::testing::Test {
  void TearDown() override {
    kernels::forceKernels(nullptr);
    cv::setNumThreads(threads_before);
  }
  int threads_before = cv::getNumThreads();
};
using Refinement = DisFlow;

std::vector<std::pair<const char*, ImagePair>> scenes() {
  const auto turn = [](double x, double y) {
    return cv::Point2d(-0.03 * (y - 60), 0.03 * (x - 80));
  };
  const auto zoom = [](double x, double y) {
    return cv::Point2d(0.04 * (x - 80), 0.04 * (y - 60));
  };
  return {{"turn", makePair(160, 120, turn)},
          {"zoom", makePair(160, 120, zoom)},
          {"brightness", makePair(160, 120, shift(-2.2, 1.3), 0.9, 15.0)},
          {"odd size", makePair(157, 83, shift(1.5, 2.5))},
          {"narrow", makePair(211, 19, shift(2.5, 0.5))},
          {"out of the image", makePair(120, 90, shift(25.3, -12.0))}};
}

/// Parameters, and what comes of them on `discScene()`.
struct Setting {
  const char* name;
  double error;   // mean distance to the truth, pixels
  bool searches;  // whether it matters without refinement
  std::function<void(DISOpticalFlow&)> set;
};

std::vector<Setting> settings() {
  using E = DISOpticalFlow;
  const auto patches = [](int size, int stride) {
    return [=](E& e) {
      e.setPatchSize(size);
      e.setPatchStride(stride);
      e.setFinestScale(1);
    };
  };
  return {{"defaults", 0.3685, true, [](E&) {}},
          {"finest scale 1", 0.1731, true, [](E& e) { e.setFinestScale(1); }},
          {"finest scale 0", 0.1130, true, [](E& e) { e.setFinestScale(0); }},
          {"large patches", 0.1757, true, patches(11, 3)},
          {"gaps between patches", 0.2376, true, patches(5, 7)},
          {"largest patches", 0.4896, true, patches(16, 16)},
          {"one step per pass", 0.4648, true, [](E& e) { e.setGradientDescentIterations(3); }},
          {"no steps", 2.5645, false, [](E& e) { e.setGradientDescentIterations(0); }},
          {"no mean", 0.3767, true, [](E& e) { e.setUseMeanNormalization(false); }},
          {"no propagation", 0.3973, true, [](E& e) { e.setUseSpatialPropagation(false); }},
          {"no refinement", 0.5580, false, [](E& e) { e.setVariationalRefinementIterations(0); }},
          {"one iteration", 0.4176, false, [](E& e) { e.setVariationalRefinementIterations(1); }},
          {"alpha 5", 0.4982, false, [](E& e) { e.setVariationalRefinementAlpha(5); }},
          {"delta 50", 0.9336, false, [](E& e) { e.setVariationalRefinementDelta(50); }},
          {"gamma 100", 1.0260, false, [](E& e) { e.setVariationalRefinementGamma(100); }}};
}

TEST_F(DisFlow, AgreesWithThePlainLoopsOnEveryInstructionSet) {
  for (const auto& scene : scenes()) {
    const ImagePair& pair = scene.second;
    for (const Setting& setting : settings()) {
      if (!setting.searches) continue;
      const auto engine = DISOpticalFlow::create();
      setting.set(*engine);
      engine->setVariationalRefinementIterations(0);
      for (const cv::Mat& initial : {cv::Mat(), cv::Mat(pair.flow + cv::Scalar(0.5, -0.25))}) {
        SCOPED_TRACE(cv::format("%s, %s, %s initial flow", scene.first, setting.name,
                                initial.empty() ? "no" : "an"));
        kernels::forceKernels(&kernels::kPlainKernels);
        const cv::Mat expected = calc(*engine, pair, initial);
        forEachVectorSet([&] {
          // Rounding may decide a comparison of two nearly equal errors: such a patch takes another
          // step or candidate, and stands for up to 256 pixels. All else agrees closely.
          const cv::Mat apart = distances(calc(*engine, pair, initial), expected);
          EXPECT_GE(cv::countNonZero(apart <= 2e-3), 0.95 * double(apart.total()));
          EXPECT_LE(cv::mean(apart)[0], 1e-3);
        });
      }
    }
  }
}

// What the other sets are compared with, by hand.
TEST(PlainLoops, SumSearchAndBlendAsComputedByHand) {
  const kernels::Kernels& plain = kernels::kPlainKernels;
  kernels::SearchArgs args{};
  args.w = args.h = args.patch_size = 2;
  args.i0_stride = args.grad_stride = 2;
  args.ws = args.hs = args.patch_stride = args.passes = args.inner_iterations = 1;
  args.u_stride = 3;
  const std::int16_t ix[] = {2, 2, 0, 0}, iy[] = {0, 0, 2, 3};
  float sums[5], u[6] = {}, v[6] = {}, su[2], sv[2], weights[6];
  args.ix = ix;
  args.iy = iy;
  args.xx = sums, args.yy = sums + 1, args.xy = sums + 2, args.x = sums + 3, args.y = sums + 4;
  plain.structureTensor(args, 0, 1, nullptr);
  EXPECT_EQ(std::vector<float>(sums, sums + 5), (std::vector<float>{8, 13, 0, 4, 5}));

  // The second image is 1 brighter: a step of -(sum of I) / (sum of I^2).
  const std::uint8_t dark[4] = {}, bright[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  args.i0 = dark;
  args.i1_ext = bright;
  args.i1_ext_stride = 3;
  args.ux = u, args.uy = v, args.sx = su, args.sy = sv;
  plain.search(args, 0, 1);
  EXPECT_FLOAT_EQ(su[0], -0.5F);
  EXPECT_FLOAT_EQ(sv[0], -5.0F / 13.0F);
  args.mean_normalization = true;  // to which the images are the same
  plain.search(args, 0, 1);
  EXPECT_FLOAT_EQ(su[0], 0.0F);

  // Two patches meet in the middle column, with differences of 4 and less than 1.
  const std::uint8_t i0[] = {0, 10, 0, 0, 10, 0}, i1[] = {0, 14, 10, 0, 14, 10};
  args.w = 3;
  args.i0_stride = args.i1_stride = 3;
  args.ws = 2;
  args.i0 = i0, args.i1 = i1, args.weight_sums = weights;
  su[0] = sv[0] = sv[1] = 0.0F;
  su[1] = 1.0F;
  plain.densify(args, 0, 2);
  EXPECT_EQ(std::vector<float>(u, u + 6), (std::vector<float>{0, 0.8F, 1, 0, 0.8F, 1}));
}

TEST(PlainLoops, ScaleAndRefineAsComputedByHand) {
  const float row[] = {0, 4}, zeros[] = {0, 0};
  const int columns[] = {0, 0, 0, 0};
  const float fractions[] = {0, 0.25F, 0.75F, 1};
  float out[8];
  kernels::ResizeArgs args{{row, zeros}, {2, 2},    1,   2.0F,           4,
                           columns,      fractions, 1.0, {out, nullptr}, {8, 0}};
  kernels::kPlainKernels.resize(args, 0, 1, nullptr);
  EXPECT_EQ(std::vector<float>(out, out + 8), (std::vector<float>{0, 0, 2, 0, 6, 0, 8, 0}));

  // Two flat pixels, one edge. |grad u|^2 is 1 / 2 at either, so the edge weighs 20 sqrt(2); each
  // pixel is drawn to its own value with 0.1. Red first.
  kernels::forceKernels(&kernels::kPlainKernels);
  ImagePair flat{cv::Mat(1, 2, CV_8UC1, cv::Scalar(7)), {}, cv::Mat(1, 2, CV_32FC2, cv::Scalar(0))};
  flat.i1 = flat.i0;
  flat.flow.at<cv::Vec2f>(0, 1)[0] = 1.0F;
  const cv::Mat refined = refine(flat, {20, 5, 10, 1, 1, 1.0F});
  kernels::forceKernels(nullptr);
  const float edge = 28.28425F;
  const float red = edge / (edge + 0.1F);
  EXPECT_NEAR(refined.at<cv::Vec2f>(0, 0)[0], red, 1e-5);
  EXPECT_NEAR(refined.at<cv::Vec2f>(0, 1)[0], (edge * red + 0.1F) / (edge + 0.1F), 1e-5);
}

TEST_F(DisFlow, HasItsDefaults) {
  const auto e = DISOpticalFlow::create();
  EXPECT_EQ(e->getFinestScale(), 2);
  EXPECT_EQ(e->getPatchSize(), 8);
  EXPECT_EQ(e->getPatchStride(), 4);
  EXPECT_EQ(e->getGradientDescentIterations(), 16);
  EXPECT_EQ(e->getVariationalRefinementIterations(), 5);
  EXPECT_EQ(e->getVariationalRefinementAlpha(), 20.0F);
  EXPECT_EQ(e->getVariationalRefinementGamma(), 10.0F);
  EXPECT_EQ(e->getVariationalRefinementDelta(), 5.0F);
  EXPECT_TRUE(e->getUseMeanNormalization() && e->getUseSpatialPropagation());
}

/// A disc that moves against its background, which turns: edges of the motion, and occlusions.
ImagePair discScene() {
  const auto inDisc = [](double x, double y) { return std::hypot(x - 150, y - 90) < 45; };
  const auto turn = [](double x, double y) {
    return cv::Point2d(2.3 - 0.02 * (y - 96), -1.1 + 0.02 * (x - 128));
  };
  ImagePair pair = makePair(256, 192, turn, 0.9, 30.0);
  for (int y = 0; y < 192; ++y) {
    for (int x = 0; x < 256; ++x) {
      if (inDisc(x, y)) {
        pair.i0.at<uchar>(y, x) = pattern(1.7 * y + 300, 1.3 * x);
        pair.flow.at<cv::Vec2f>(y, x) = cv::Vec2f(-3.4F, 2.2F);
      }
      if (inDisc(x + 3.4, y - 2.2)) {
        pair.i1.at<uchar>(y, x) =
            cv::saturate_cast<uchar>(0.9 * pattern(1.7 * (y - 2.2) + 300, 1.3 * (x + 3.4)) + 30);
      }
    }
  }
  return pair;
}

// Every parameter reaches its place: each changes the result, by as much as here.
TEST_F(DisFlow, TurnsEverySettingIntoItsResult) {
  const ImagePair pair = discScene();
  for (const Setting& setting : settings()) {
    const auto engine = DISOpticalFlow::create();
    setting.set(*engine);
    const double error = cv::mean(distances(calc(*engine, pair), pair.flow, 8))[0];
    EXPECT_NEAR(error, setting.error, 0.003) << setting.name;
  }
}

TEST_F(DisFlow, GivesTheSameBitsForAnyNumberOfThreads) {
  const ImagePair pair = makePair(403, 301, shift(4.3, -3.1));
  for (const bool propagate : {true, false}) {
    const auto engine = DISOpticalFlow::create();
    engine->setFinestScale(0);
    engine->setUseSpatialPropagation(propagate);
    cv::setNumThreads(1);
    const cv::Mat one = calc(*engine, pair);
    for (const int threads : {2, 3, 5, 8}) {
      cv::setNumThreads(threads);
      EXPECT_TRUE(sameBits(calc(*engine, pair), one)) << threads << " threads";
    }
  }
}

TEST_F(DisFlow, UsesAnInitialFlowOfTheRightSizeAndTypeOnly) {
  // Far beyond what the search finds by itself at the finest scale of a small image.
  const ImagePair pair = makePair(96, 64, shift(21.0, 0.0));
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  const cv::Mat plain = calc(*engine, pair);
  const cv::Mat guided = calc(*engine, pair, pair.flow);
  const cv::Rect visible(8, 8, 56, 48);  // in both images
  EXPECT_FALSE(sameBits(guided, plain));
  EXPECT_LT(cv::mean(distances(guided, pair.flow)(visible))[0], 0.2);

  const cv::Size size = pair.i0.size();
  for (const auto& [type, other_size] :
       {std::make_pair(CV_32FC1, size), {CV_64FC2, size}, {CV_32FC2, cv::Size(10, 10)}}) {
    const cv::Mat other(other_size, type, cv::Scalar::all(21));
    EXPECT_TRUE(sameBits(calc(*engine, pair, other), plain)) << cv::typeToString(type);
  }
  engine->setUseInitialFlow(false);
  cv::Mat memory = pair.flow.clone();
  const uchar* const data = memory.data;
  engine->calc(pair.i0, pair.i1, memory);
  EXPECT_TRUE(sameBits(memory, plain));
  EXPECT_EQ(memory.data, data);
}

TEST_F(DisFlow, KeepsTheFlowWhenAnInitialOneIsAsGood) {
  // On a plane that grows brighter every motion fits, once the mean is taken away.
  ImagePair plane{cv::Mat(40, 64, CV_8UC1), cv::Mat(), cv::Mat()};
  for (int i = 0; i < 40 * 64; ++i) plane.i0.data[i] = uchar(45 + 2 * (i % 64) + i / 64);
  const cv::Mat initial(plane.i0.size(), CV_32FC2, cv::Scalar(0.37, 0.21));
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  engine->setUseSpatialPropagation(false);
  engine->setVariationalRefinementIterations(0);
  for (const int size : {5, 7, 8, 14}) {
    engine->setPatchSize(size);
    for (int brighter = -40; brighter <= 40; ++brighter) {
      plane.i1 = plane.i0 + brighter;
      const cv::Mat inside = calc(*engine, plane, initial)(cv::Rect(24, 16, 16, 8));
      EXPECT_EQ(cv::norm(inside, cv::NORM_INF), 0.0) << "size " << size << ", by " << brighter;
    }
  }
}

TEST_F(DisFlow, SurvivesInitialFlowsThatAreNotNumbers) {
  // On noise anything wins over a bad match; 61 columns leave room beside a row of the refinement.
  ImagePair noise = makePair(61, 48, shift(1, 0));
  for (cv::Mat* image : {&noise.i0, &noise.i1}) {
    cv::theRNG().fill(*image, cv::RNG::UNIFORM, 0, 256);
  }
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  const cv::Mat good = calc(*engine, noise);
  for (const float value : {std::nanf(""), INFINITY, -INFINITY, 1e30F, -1e20F, 1e9F}) {
    const cv::Mat initial(noise.i0.size(), CV_32FC2, cv::Scalar::all(value));
    EXPECT_TRUE(cv::checkRange(calc(*engine, noise, initial))) << value;
    EXPECT_TRUE(sameBits(calc(*engine, noise), good)) << "the call after " << value;
  }
}

/// What `calc` raises.
cv::Exception errorOf(DISOpticalFlow& engine, const cv::Mat& i0, const cv::Mat& i1) {
  cv::Mat flow;
  try {
    engine.calc(i0, i1, flow);
  } catch (const cv::Exception& error) {
    EXPECT_TRUE(flow.empty());
    return error;
  }
  return {0, "no error", "", "", 0};
}

TEST_F(DisFlow, ReportsBadImagesWithTheLineOfTheCheck) {
  const cv::Mat good(32, 64, CV_8UC1, cv::Scalar(7));
  const cv::Mat part = cv::Mat(64, 128, CV_8UC1, cv::Scalar(7))(cv::Rect(3, 3, 64, 32));
  const std::string first = "!I0.empty() && I0.depth() == CV_8U && I0.channels() == 1";
  const std::string second = "!I1.empty() && I1.depth() == CV_8U && I1.channels() == 1";
  const std::tuple<cv::Mat, cv::Mat, int, std::string> cases[] = {
      {cv::Mat(), good, 1016, first},
      {cv::Mat(32, 64, CV_8UC3), good, 1016, first},
      {cv::Mat(32, 64, CV_16UC1), cv::Mat(), 1016, first},
      {good, cv::Mat(32, 64, CV_8SC1), 1017, second},
      {good, cv::Mat(), 1017, second},
      {good, cv::Mat(32, 63, CV_8UC1), 1018, "I0.size() == I1.size()"},
      {part, good, 1019, "I0.isContinuous()"},
      {good, part, 1020, "I1.isContinuous()"},
  };
  const auto engine = DISOpticalFlow::create();
  engine->setPatchSize(0);  // images are checked first
  for (const auto& [i0, i1, line, text] : cases) {
    const cv::Exception error = errorOf(*engine, i0, i1);
    EXPECT_EQ(error.code, -215);
    EXPECT_EQ(error.line, line);
    EXPECT_EQ(error.err, text);
    EXPECT_EQ(error.func, "cv::optflow::lum::DISOpticalFlowImpl::calc");
    EXPECT_EQ(error.file, "frame_interpolation/motionInterpolation/dis_flow");
  }
}

TEST_F(DisFlow, NamesTheParameterThatIsOutOfRange) {
  using Engine = DISOpticalFlow;
  const std::pair<const char*, std::function<void(Engine&)>> cases[] = {
      {"patch_size", [](Engine& e) { e.setPatchSize(0); }},
      {"patch_size", [](Engine& e) { e.setPatchSize(17); }},
      {"patch_stride", [](Engine& e) { e.setPatchStride(0); }},
      {"grad_descent_iter", [](Engine& e) { e.setGradientDescentIterations(-1); }},
      {"variational_refinement_iter", [](Engine& e) { e.setVariationalRefinementIterations(-1); }},
      {"finest_scale", [](Engine& e) { e.setFinestScale(-1); }},
      {"refinement_alpha", [](Engine& e) { e.setVariationalRefinementAlpha(std::nanf("")); }},
      {"refinement_gamma", [](Engine& e) { e.setVariationalRefinementGamma(-1); }},
      {"refinement_delta", [](Engine& e) { e.setVariationalRefinementDelta(INFINITY); }},
  };
  const cv::Mat image(48, 64, CV_8UC1, cv::Scalar(0));
  for (const auto& [name, set] : cases) {
    const auto engine = DISOpticalFlow::create();
    set(*engine);
    EXPECT_NE(errorOf(*engine, image, image).err.find(name), std::string::npos) << name;
  }
  const cv::Mat wide(1, 16385, CV_8UC1, cv::Scalar(0));
  EXPECT_EQ(errorOf(*DISOpticalFlow::create(), wide, wide).code, cv::Error::StsBadSize);
}

TEST_F(DisFlow, TakesAnySize) {
  for (const cv::Size size :
       {cv::Size(1, 1), cv::Size(2, 1), cv::Size(1, 40), cv::Size(40, 1), cv::Size(7, 9),
        cv::Size(9, 7), cv::Size(8, 8), cv::Size(33, 65), cv::Size(16384, 1), cv::Size(1, 16384),
        cv::Size(16384, 24), cv::Size(24, 16384), cv::Size(1024, 31)}) {
    const ImagePair pair = makePair(size.width, size.height, shift(1.0, 0.5));
    for (const int patch_size : {1, 3, 8, 16}) {
      for (const int finest : {0, 2, 20}) {
        if (size.area() > 100000 && patch_size != 8) continue;  // takes long
        SCOPED_TRACE(cv::format("%d x %d, patch %d, finest %d", size.width, size.height, patch_size,
                                finest));
        const auto engine = DISOpticalFlow::create();
        engine->setPatchSize(patch_size);
        engine->setFinestScale(finest);
        const cv::Mat flow = calc(*engine, pair);
        ASSERT_EQ(flow.size(), size);
        ASSERT_EQ(flow.type(), CV_32FC2);
        EXPECT_TRUE(cv::checkRange(flow));
        // The finest scale asked for may hold no patch.
        if (patch_size == 8 && finest < 20 && std::min(size.width, size.height) >= 24) {
          EXPECT_LT(cv::mean(distances(flow, pair.flow, 8))[0], finest == 0 ? 0.1 : 0.5);
        }
      }
    }
  }
}

TEST_F(DisFlow, WithoutAPatchGivesTheInitialFlowElseZero) {
  const ImagePair pair = makePair(40, 7, shift(1, 0));
  const auto engine = DISOpticalFlow::create();
  EXPECT_TRUE(sameBits(calc(*engine, pair), cv::Mat::zeros(7, 40, CV_32FC2)));
  cv::Mat initial(7, 40, CV_32FC2, cv::Scalar(1.25, -3));
  EXPECT_TRUE(sameBits(calc(*engine, pair, initial), initial));
  initial.at<cv::Vec2f>(3, 5)[0] = std::nanf("");
  EXPECT_TRUE(cv::checkRange(calc(*engine, pair, initial)));
}

/// Bytes on the heap.
std::size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST_F(DisFlow, KeepsLittleMemoryForTheNextCallUntilCollectGarbage) {
  cv::setNumThreads(1);
  const ImagePair pair = makePair(640, 480, shift(2.0, -1.0));
  const cv::Mat expected = calc(*DISOpticalFlow::create(), pair);  // OpenCV sets up what it keeps
  const auto engine = DISOpticalFlow::create();
  const std::size_t at_first = heapInUse();
  engine->setFinestScale(0);
  cv::Mat flow(pair.i0.size(), CV_32FC2, cv::Scalar::all(0));
  engine->calc(pair.i0, pair.i1, flow);
  const std::size_t in_use = heapInUse();
  EXPECT_LE(in_use - at_first, 80 * pair.i0.total()) << "with an initial flow, and the result";
  engine->calc(pair.i0, pair.i1, flow);
  EXPECT_EQ(heapInUse(), in_use);
  flow.release();
  engine->collectGarbage();
  EXPECT_LE(heapInUse(), at_first + 16384) << "more than the lists of empty matrices";
  engine->setFinestScale(2);
  EXPECT_TRUE(sameBits(calc(*engine, pair), expected));
}

TEST_F(DisFlow, CarriesNothingOverFromOtherSizesOrPixelsAround) {
  const ImagePair large = makePair(200, 150, shift(2.0, -1.0));
  const ImagePair part{large.i0.rowRange(20, 120), large.i1.rowRange(20, 120), cv::Mat()};
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  const cv::Mat first = calc(*engine, large);
  EXPECT_TRUE(sameBits(calc(*engine, part), calc(*engine, {part.i0.clone(), part.i1.clone(), {}})));
  EXPECT_TRUE(sameBits(calc(*engine, large), first));
}

/// A shift, with a flow that is up to half a pixel off.
ImagePair refinable(int width, int height) {
  ImagePair pair = makePair(width, height, shift(1.3, -0.7));
  cv::Mat noise(height, width, CV_32FC2);
  cv::RNG(7).fill(noise, cv::RNG::UNIFORM, -0.5, 0.5);
  pair.flow += noise;
  return pair;
}

TEST_F(Refinement, AgreesWithThePlainLoopsOnEveryInstructionSet) {
  for (const cv::Size size :
       {cv::Size(1, 1), cv::Size(1, 9), cv::Size(2, 2), cv::Size(17, 5), cv::Size(32, 16),
        cv::Size(97, 61), cv::Size(351, 40), cv::Size(650, 64)}) {
    const ImagePair pair = refinable(size.width, size.height);
    for (const RefineParams& params : {RefineParams{20, 5, 10, 1, 1, 1.0F}, RefineParams()}) {
      kernels::forceKernels(&kernels::kPlainKernels);
      const cv::Mat expected = refine(pair, params);
      forEachVectorSet(
          [&] { EXPECT_LE(cv::norm(refine(pair, params), expected, cv::NORM_INF), 5e-3) << size; });
    }
  }
}

TEST_F(Refinement, TakesWeightsOfAnySize) {
  const ImagePair pair = refinable(40, 30);
  EXPECT_TRUE(sameBits(refine(pair, {0, 0, 0}), pair.flow));
  EXPECT_TRUE(sameBits(refine(pair, {20, 5, 10, 0}), pair.flow));
  const cv::Mat expected = refine(pair, RefineParams());
  for (const float factor : {1e-30F, 1e8F, 1e36F}) {
    const cv::Mat scaled = refine(pair, {20 * factor, 5 * factor, 10 * factor});
    EXPECT_LE(cv::norm(scaled, expected, cv::NORM_INF), 1e-4) << factor;
  }
}

TEST_F(Refinement, WarpsUntilItsPullLetsNothingMove) {
  const ImagePair pair = refinable(40, 30);
  const cv::Mat settled = refine(pair, {20, 5, 10, 5, 4, 1.8F, 0, 16.0F});
  EXPECT_TRUE(sameBits(refine(pair, {20, 5, 10, 1, 4, 1.8F, 5, 16.0F}), settled));
  EXPECT_TRUE(sameBits(refine(pair, {20, 5, 10, 90, 4, 1.8F, 5, 16.0F}), settled));
  EXPECT_FALSE(sameBits(refine(pair, {20, 5, 10, 1, 4, 1.8F, 4, 16.0F}), settled));
}

TEST_F(Refinement, MendsFlowsThatAreNotNumbersAndForgetsThem) {
  ImagePair pair = refinable(31, 24);  // an odd width: a place without a pixel ends a row
  const cv::Mat expected = refine(pair, RefineParams());
  const auto refinement = VariationalRefinement::create();
  for (const float last : {std::nanf(""), 1e20F, 0.0F}) {
    cv::Mat parts[2];
    cv::split(pair.flow, parts);
    parts[0].at<float>(12, 30) += last;
    refinement->refine(pair.i0, pair.i1, parts[0], parts[1]);
    cv::Mat flow;
    cv::merge(parts, 2, flow);
    EXPECT_LE(cv::norm(flow, expected, cv::NORM_INF), last == 0.0F ? 0.0 : 1.0) << last;
  }
}

TEST_F(Refinement, RefusesBadParameters) {
  const ImagePair pair = refinable(16, 16);
  for (const RefineParams& bad :
       {RefineParams{-1}, RefineParams{20, 5, 10, -1}, RefineParams{20, 5, 10, 5, 0},
        RefineParams{20, 5, 10, 5, 1001}, RefineParams{20, 5, 10, 5, 5, 2},
        RefineParams{20, 5, 10, 5, 4, 1.8F, -1}, RefineParams{20, 5, 10, 5, 4, 1.8F, 0, 0.9F}}) {
    EXPECT_THROW(refine(pair, bad), cv::Exception);
  }
}

TEST(InterpolateFrame, GivesTheFrameAtAnyTime) {
  const auto frameAt = [](double time) {
    cv::Mat frame;
    cv::merge(std::vector<cv::Mat>(3, makePair(160, 120, shift(time * 5.5, -3.25 * time)).i1),
              frame);
    return frame;
  };
  const cv::Mat first = frameAt(0);
  const cv::Mat second = frameAt(1);
  cv::Mat forward, backward;
  lum::FlowsBetween(first, second, forward, backward);
  const cv::Rect inner(8, 8, 144, 104);
  for (const double time : {0.0, 0.25, 0.5, 1.0}) {
    cv::Mat frame;
    lum::InterpolateFrame(first, second, time, frame, forward, backward);
    ASSERT_EQ(frame.type(), CV_8UC3);
    const double error =
        cv::norm(frame(inner), frameAt(time)(inner), cv::NORM_L1) / (3 * 144 * 104);
    EXPECT_LE(error, time == 0 || time == 1 ? 0.0 : 0.4) << time;

    cv::Mat anew;
    lum::InterpolateFrame(first, second, time, anew);
    EXPECT_TRUE(sameBits(anew, frame));
  }
}

TEST(InterpolateFrame, IsNeverMuchWorseThanThePlainAverage) {
  cv::Mat frames[3];  // of which no flow is to be had
  for (cv::Mat& frame : frames) {
    frame.create(120, 160, CV_8UC1);
    cv::theRNG().fill(frame, cv::RNG::UNIFORM, 0, 256);
  }
  cv::Mat average, frame;
  cv::addWeighted(frames[0], 0.5, frames[2], 0.5, 0.0, average);
  lum::InterpolateFrame(frames[0], frames[2], 0.5, frame);
  EXPECT_LE(cv::norm(frame, frames[1]), 1.02 * cv::norm(average, frames[1]));
}

TEST(InterpolateFrame, RefusesBadArguments) {
  const cv::Mat good(20, 30, CV_8UC3), grey(20, 30, CV_8UC1), flow(20, 30, CV_32FC2);
  const std::tuple<cv::Mat, cv::Mat, double, cv::Mat> cases[] = {
      {cv::Mat(), cv::Mat(), 0.5, cv::Mat()},
      {good, grey, 0.5, flow},
      {good.reshape(1), good.reshape(1), 0.5, flow},
      {good, good, -0.1, flow},
      {good, good, std::nan(""), flow},
      {good, good, 0.5, flow.colRange(1, 30)},
      {good, good, 0.5, cv::Mat()}};
  for (const auto& [first, second, time, backward] : cases) {
    cv::Mat frame;
    EXPECT_THROW(lum::InterpolateFrame(first, second, time, frame, flow, backward), cv::Exception);
  }
}

}  // namespace
