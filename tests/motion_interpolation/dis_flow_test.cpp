#include "motionInterpolation/dis_flow.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <new>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "motionInterpolation/flow_kernels.h"
#include "reference_flow.h"

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
  cv::Mat i0, i1, truth;
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
      for (int i = 0; i < 30; ++i) p = cv::Point2d(x, y) - motion(p.x, p.y);
      pair.i1.at<uchar>(y, x) = cv::saturate_cast<uchar>(gain * pattern(p.x, p.y) + offset);
      const cv::Point2d m = motion(x, y);
      pair.truth.at<cv::Vec2f>(y, x) = cv::Vec2f(float(m.x), float(m.y));
    }
  }
  return pair;
}

Motion shift(double dx, double dy) {
  return [=](double, double) { return cv::Point2d(dx, dy); };
}

double meanError(const cv::Mat& a, const cv::Mat& b, int margin) {
  double sum = 0;
  int count = 0;
  for (int y = margin; y < a.rows - margin; ++y) {
    for (int x = margin; x < a.cols - margin; ++x) {
      sum += cv::norm(a.at<cv::Vec2f>(y, x) - b.at<cv::Vec2f>(y, x));
      ++count;
    }
  }
  return sum / std::max(count, 1);
}

/// The part of the pixels, 0 to 1, where two flows differ by more than `tolerance` pixels.
double partBeyond(const cv::Mat& a, const cv::Mat& b, double tolerance) {
  int count = 0;
  for (int y = 0; y < a.rows; ++y) {
    for (int x = 0; x < a.cols; ++x) {
      const double difference = cv::norm(a.at<cv::Vec2f>(y, x) - b.at<cv::Vec2f>(y, x));
      if (!(difference <= tolerance)) ++count;
    }
  }
  return double(count) / double(a.total());
}

bool sameBits(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

cv::Mat calc(DISOpticalFlow& engine, const ImagePair& pair) {
  cv::Mat flow;
  engine.calc(pair.i0, pair.i1, flow);
  return flow;
}

std::vector<const kernels::Kernels*> allKernels() {
  std::vector<const kernels::Kernels*> all{&kernels::kPortableKernels, &kernels::kBaselineKernels};
#ifdef LUM_HAVE_AVX2_KERNELS
  if (kernels::isSupported(kernels::kAvx2Kernels)) all.push_back(&kernels::kAvx2Kernels);
#endif
#ifdef LUM_HAVE_AVX512_KERNELS
  if (kernels::isSupported(kernels::kAvx512Kernels)) all.push_back(&kernels::kAvx512Kernels);
#endif
  return all;
}

/// Restores what a test forces upon the whole process.
class ProcessSettings : public ::testing::Test {
 protected:
  ~ProcessSettings() override {
    kernels::forceKernels(nullptr);
    cv::setNumThreads(threads_);
  }

 private:
  int threads_ = cv::getNumThreads();
};

struct Scene {
  const char* name;
  int width, height;
  Motion motion;
  double gain, offset;
};

std::vector<Scene> scenes() {
  const auto rotation = [](double x, double y) {
    return cv::Point2d(-0.03 * (y - 60), 0.03 * (x - 80));
  };
  const auto zoom = [](double x, double y) {
    return cv::Point2d(0.04 * (x - 80), 0.04 * (y - 60));
  };
  return {{"shift", 160, 120, shift(3.4, -1.7), 1.0, 0.0},
          {"rotation", 160, 120, rotation, 1.0, 0.0},
          {"zoom", 160, 120, zoom, 1.0, 0.0},
          {"brightness", 160, 120, shift(-2.2, 1.3), 0.9, 15.0},
          {"odd size", 157, 83, shift(1.5, 2.5), 1.0, 0.0},
          {"narrow", 211, 19, shift(2.5, 0.5), 1.0, 0.0},
          {"out of the image", 120, 90, shift(25.3, -12.0), 1.0, 0.0}};
}

using SearchTest = ProcessSettings;

TEST_F(SearchTest, AgreesWithThePlainReferenceOnEveryInstructionSet) {
  struct Variant {
    lum_reference::SearchParams params;
    int finest;
  };
  std::vector<Variant> variants(7);
  variants[0].finest = 0;
  variants[1].finest = 1;
  variants[1].params.mean_normalization = false;
  variants[2].finest = 0;
  variants[2].params.spatial_propagation = false;
  variants[3].finest = 1;
  variants[3].params.patch_size = 11;
  variants[3].params.patch_stride = 3;
  variants[4].finest = 1;
  variants[4].params.patch_size = 5;
  variants[4].params.patch_stride = 7;  // pixels between the patches that none covers
  variants[5].finest = 2;
  variants[5].params.patch_size = 16;
  variants[5].params.patch_stride = 16;
  variants[6].finest = 1;
  variants[6].params.iterations = 3;  // a single step per pass
  for (const kernels::Kernels* set : allKernels()) {
    kernels::forceKernels(set);
    for (const Scene& scene : scenes()) {
      const ImagePair pair =
          makePair(scene.width, scene.height, scene.motion, scene.gain, scene.offset);
      for (std::size_t i = 0; i < variants.size(); ++i) {
        SCOPED_TRACE(std::string(set->name) + ", " + scene.name + ", variant " + std::to_string(i));
        const lum_reference::SearchParams& params = variants[i].params;
        const auto engine = DISOpticalFlow::create();
        engine->setVariationalRefinementIterations(0);
        engine->setFinestScale(variants[i].finest);
        engine->setPatchSize(params.patch_size);
        engine->setPatchStride(params.patch_stride);
        engine->setGradientDescentIterations(params.iterations);
        engine->setUseMeanNormalization(params.mean_normalization);
        engine->setUseSpatialPropagation(params.spatial_propagation);
        for (const bool with_initial : {false, true}) {
          cv::Mat initial;
          if (with_initial) initial = pair.truth + cv::Scalar(0.5, -0.25);
          cv::Mat flow = initial.clone();
          engine->calc(pair.i0, pair.i1, flow);
          const cv::Mat expected =
              lum_reference::denseFlow(pair.i0, pair.i1, params, variants[i].finest, initial);
          ASSERT_EQ(flow.size(), expected.size());
          // Rounding may decide a comparison of two nearly equal errors: such a patch takes another
          // step or candidate. All else agrees closely.
          EXPECT_LE(partBeyond(flow, expected, 2e-3), 0.01) << "initial flow: " << with_initial;
          EXPECT_LE(meanError(flow, expected, 0), 1e-3) << "initial flow: " << with_initial;
        }
      }
    }
  }
}

TEST_F(SearchTest, FindsKnownMotions) {
  for (const Scene& scene : scenes()) {
    if (scene.height < 80 || std::string(scene.name) == "out of the image") continue;
    SCOPED_TRACE(scene.name);
    const ImagePair pair =
        makePair(scene.width, scene.height, scene.motion, scene.gain, scene.offset);
    const auto engine = DISOpticalFlow::create();
    engine->setFinestScale(0);
    EXPECT_LT(meanError(calc(*engine, pair), pair.truth, 12), 0.1);
  }
}

TEST_F(SearchTest, GivesTheSameBitsForAnyNumberOfThreads) {
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

TEST(DisFlow, UsesAnInitialFlowOfTheRightSizeAndTypeOnly) {
  // Far beyond what the search finds by itself at the finest scale of a small image.
  const ImagePair pair = makePair(96, 64, shift(21.0, 0.0));
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  const cv::Mat plain = calc(*engine, pair);
  cv::Mat flow = pair.truth.clone();
  engine->calc(pair.i0, pair.i1, flow);
  EXPECT_FALSE(sameBits(flow, plain));
  EXPECT_LT(meanError(flow(cv::Rect(8, 8, 56, 48)), pair.truth(cv::Rect(8, 8, 56, 48)), 0), 0.2);

  for (const int type : {CV_32FC1, CV_64FC2}) {
    cv::Mat other(pair.i0.size(), type, cv::Scalar::all(21));
    engine->calc(pair.i0, pair.i1, other);
    EXPECT_TRUE(sameBits(other, plain));
  }
  cv::Mat smaller(10, 10, CV_32FC2, cv::Scalar::all(21));
  engine->calc(pair.i0, pair.i1, smaller);
  EXPECT_TRUE(sameBits(smaller, plain));
}

TEST(DisFlow, ReportsBadImagesWithTheLineOfTheCheck) {
  const cv::Mat good(32, 64, CV_8UC1, cv::Scalar(7));
  const cv::Mat part = cv::Mat(64, 128, CV_8UC1, cv::Scalar(7))(cv::Rect(3, 3, 64, 32));
  struct Case {
    cv::Mat i0, i1;
    int line;
    const char* text;
  };
  const char* const first = "!I0.empty() && I0.depth() == CV_8U && I0.channels() == 1";
  const char* const second = "!I1.empty() && I1.depth() == CV_8U && I1.channels() == 1";
  const std::vector<Case> cases = {
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
  for (const Case& c : cases) {
    cv::Mat flow;
    try {
      engine->calc(c.i0, c.i1, flow);
      ADD_FAILURE() << "no error for line " << c.line;
    } catch (const cv::Exception& error) {
      EXPECT_EQ(error.code, -215);
      EXPECT_EQ(error.line, c.line);
      EXPECT_EQ(error.err, c.text);
      EXPECT_EQ(error.func, "cv::optflow::lum::DISOpticalFlowImpl::calc");
      EXPECT_EQ(error.file, "frame_interpolation/motionInterpolation/dis_flow.cpp");
    }
    EXPECT_TRUE(flow.empty());
  }
}

TEST(DisFlow, NamesTheParameterThatIsOutOfRange) {
  const ImagePair pair = makePair(64, 48, shift(1, 0));
  const std::vector<std::pair<const char*, std::function<void(DISOpticalFlow&)>>> cases = {
      {"patch_size", [](DISOpticalFlow& e) { e.setPatchSize(0); }},
      {"patch_size", [](DISOpticalFlow& e) { e.setPatchSize(17); }},
      {"patch_stride", [](DISOpticalFlow& e) { e.setPatchStride(0); }},
      {"grad_descent_iter", [](DISOpticalFlow& e) { e.setGradientDescentIterations(-1); }},
      {"variational_refinement_iter",
       [](DISOpticalFlow& e) { e.setVariationalRefinementIterations(-1); }},
      {"finest_scale", [](DISOpticalFlow& e) { e.setFinestScale(-1); }},
      {"variational_refinement_alpha",
       [](DISOpticalFlow& e) { e.setVariationalRefinementAlpha(std::nanf("")); }},
      {"variational_refinement_gamma",
       [](DISOpticalFlow& e) { e.setVariationalRefinementGamma(-1); }},
      {"variational_refinement_delta",
       [](DISOpticalFlow& e) { e.setVariationalRefinementDelta(INFINITY); }},
  };
  for (const auto& [name, set] : cases) {
    const auto engine = DISOpticalFlow::create();
    set(*engine);
    cv::Mat flow;
    try {
      engine->calc(pair.i0, pair.i1, flow);
      ADD_FAILURE() << "no error for " << name;
    } catch (const cv::Exception& error) {
      EXPECT_NE(error.err.find(name), std::string::npos) << error.err;
    }
  }
}

TEST(DisFlow, TakesAnySize) {
  for (const cv::Size size :
       {cv::Size(1, 1), cv::Size(1, 40), cv::Size(40, 1), cv::Size(7, 9), cv::Size(8, 8),
        cv::Size(9, 7), cv::Size(16, 16), cv::Size(3000, 5), cv::Size(5, 3000), cv::Size(33, 65),
        cv::Size(16384, 9), cv::Size(9, 16384), cv::Size(2, 1)}) {
    for (const int patch_size : {1, 3, 8, 16}) {
      for (const int finest : {0, 2, 20}) {
        SCOPED_TRACE(cv::format("%d x %d, patch %d, finest %d", size.width, size.height, patch_size,
                                finest));
        const ImagePair pair = makePair(size.width, size.height, shift(1.0, 0.5));
        const auto engine = DISOpticalFlow::create();
        engine->setPatchSize(patch_size);
        engine->setFinestScale(finest);
        const cv::Mat flow = calc(*engine, pair);
        ASSERT_EQ(flow.size(), size);
        ASSERT_EQ(flow.type(), CV_32FC2);
        EXPECT_TRUE(cv::checkRange(flow));
      }
    }
  }
}

TEST(DisFlow, WithoutAPatchGivesTheInitialFlowElseZero) {
  const ImagePair pair = makePair(40, 7, shift(1, 0));
  const auto engine = DISOpticalFlow::create();
  EXPECT_TRUE(sameBits(calc(*engine, pair), cv::Mat::zeros(7, 40, CV_32FC2)));
  const cv::Mat initial(7, 40, CV_32FC2, cv::Scalar(1.25, -3));
  cv::Mat flow = initial.clone();
  engine->calc(pair.i0, pair.i1, flow);
  EXPECT_TRUE(sameBits(flow, initial));
}

TEST(DisFlow, SurvivesInitialFlowsThatAreNotNumbers) {
  const ImagePair pair = makePair(64, 48, shift(1, 0));
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  for (const float value : {std::nanf(""), INFINITY, -INFINITY, 1e30F, -1e9F}) {
    cv::Mat flow(pair.i0.size(), CV_32FC2, cv::Scalar::all(value));
    engine->calc(pair.i0, pair.i1, flow);
    EXPECT_TRUE(cv::checkRange(flow)) << value;
  }
}

/// Counts the matrices that are allocated anew.
class CountingAllocator : public cv::MatAllocator {
 public:
  cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, std::size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    if (data == nullptr) ++count;
    return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
  }
  bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    return cv::Mat::getStdAllocator()->allocate(data, flags, usage);
  }
  void deallocate(cv::UMatData* data) const override {
    cv::Mat::getStdAllocator()->deallocate(data);
  }
  mutable std::atomic<int> count{0};
};

TEST(DisFlow, AllocatesNothingOnTheSecondCallAndWorksAfterCollectGarbage) {
  static CountingAllocator allocator;
  cv::Mat::setDefaultAllocator(&allocator);
  const ImagePair pair = makePair(200, 150, shift(2.0, -1.0));
  const auto engine = DISOpticalFlow::create();
  cv::Mat flow;
  engine->calc(pair.i0, pair.i1, flow);
  const cv::Mat first = flow.clone();
  // With the flow as initial flow, and without.
  engine->calc(pair.i0, pair.i1, flow);
  flow.setTo(0);
  int before = allocator.count;
  engine->calc(pair.i0, pair.i1, flow);
  EXPECT_EQ(allocator.count - before, 0);

  engine->collectGarbage();
  cv::Mat again;
  before = allocator.count;
  engine->calc(pair.i0, pair.i1, again);
  EXPECT_GT(allocator.count - before, 10) << "the buffers were not released";
  EXPECT_TRUE(sameBits(again, first));

  // A smaller image in between leaves nothing behind.
  cv::Mat small;
  engine->calc(pair.i0.rowRange(0, 100), pair.i1.rowRange(0, 100), small);
  cv::Mat last;
  engine->calc(pair.i0, pair.i1, last);
  EXPECT_TRUE(sameBits(last, first));
  cv::Mat::setDefaultAllocator(cv::Mat::getStdAllocator());
}

// ---------------------------------------------------------------- refinement

struct RefineCase {
  ImagePair pair;
  cv::Mat start;
};

RefineCase refineCase(int width, int height) {
  RefineCase result{makePair(width, height, shift(1.3, -0.7)), cv::Mat(height, width, CV_32FC2)};
  cv::RNG rng(7);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      result.start.at<cv::Vec2f>(y, x) =
          result.pair.truth.at<cv::Vec2f>(y, x) +
          cv::Vec2f(rng.uniform(-0.5F, 0.5F), rng.uniform(-0.5F, 0.5F));
    }
  }
  return result;
}

cv::Mat refine(const RefineCase& c, const lum_reference::RefineParams& p) {
  const auto refinement = VariationalRefinement::create();
  refinement->setAlpha(p.alpha);
  refinement->setDelta(p.delta);
  refinement->setGamma(p.gamma);
  refinement->setIterations(p.iterations);
  refinement->setSolverSweeps(p.sweeps);
  refinement->setRelaxation(p.omega);
  cv::Mat components[2];
  cv::split(c.start, components);
  refinement->refine(c.pair.i0, c.pair.i1, components[0], components[1]);
  cv::Mat flow;
  cv::merge(components, 2, flow);
  return flow;
}

using RefinementTest = ProcessSettings;

TEST_F(RefinementTest, AgreesWithThePlainReferenceOnEveryInstructionSet) {
  for (const cv::Size size : {cv::Size(1, 1), cv::Size(1, 9), cv::Size(2, 2), cv::Size(17, 5),
                              cv::Size(32, 16), cv::Size(97, 61)}) {
    const RefineCase c = refineCase(size.width, size.height);
    lum_reference::RefineParams params;
    params.iterations = 3;
    const cv::Mat expected =
        lum_reference::Refinement(c.pair.i0, c.pair.i1, c.start, params).minimise(c.start);
    for (const kernels::Kernels* set : allKernels()) {
      kernels::forceKernels(set);
      EXPECT_LE(cv::norm(refine(c, params), expected, cv::NORM_INF), 5e-3) << set->name << size;
    }
  }
}

TEST_F(RefinementTest, LowersTheEnergyInEveryOuterIteration) {
  const RefineCase c = refineCase(97, 61);
  for (const float omega : {1.0F, 1.6F}) {
    lum_reference::RefineParams params;
    params.omega = omega;
    const lum_reference::Refinement model(c.pair.i0, c.pair.i1, c.start, params);
    double energy = model.energy(c.start);
    for (params.iterations = 1; params.iterations <= 8; ++params.iterations) {
      const double next = model.energy(refine(c, params));
      EXPECT_LT(next, energy) << "iteration " << params.iterations;
      energy = next;
    }
  }
}

TEST_F(RefinementTest, GivesTheSameBitsForAnyNumberOfThreads) {
  const RefineCase c = refineCase(301, 233);
  cv::setNumThreads(1);
  const cv::Mat one = refine(c, {});
  for (const int threads : {2, 3, 7}) {
    cv::setNumThreads(threads);
    EXPECT_TRUE(sameBits(refine(c, {}), one)) << threads;
  }
}

TEST_F(RefinementTest, LeavesAFlowWithoutTermsAlone) {
  const RefineCase c = refineCase(40, 30);
  lum_reference::RefineParams params;
  params.alpha = params.delta = params.gamma = 0;
  EXPECT_LE(cv::norm(refine(c, params), c.start, cv::NORM_INF), 1e-5);
  params = {};
  params.iterations = 0;
  EXPECT_TRUE(sameBits(refine(c, params), c.start));
}

TEST_F(RefinementTest, RefusesBadParameters) {
  const RefineCase c = refineCase(16, 16);
  const auto fails = [&](lum_reference::RefineParams params) {
    EXPECT_THROW(refine(c, params), cv::Exception);
  };
  lum_reference::RefineParams params;
  fails((params.alpha = -1, params));
  fails((params = {}, params.sweeps = 0, params));
  fails((params = {}, params.omega = 2, params));
  fails((params = {}, params.iterations = -1, params));
}

}  // namespace
