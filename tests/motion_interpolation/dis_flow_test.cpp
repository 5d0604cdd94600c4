#include "motionInterpolation/dis_flow.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>
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
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

cv::Mat calc(DISOpticalFlow& engine, const ImagePair& pair, const cv::Mat& initial = cv::Mat()) {
  cv::Mat flow = initial.clone();
  engine.calc(pair.i0, pair.i1, flow);
  return flow;
}

/// The pair's flow, refined.
cv::Mat refine(const ImagePair& pair, const lum_reference::RefineParams& p) {
  const auto refinement = VariationalRefinement::create();
  refinement->setAlpha(p.alpha);
  refinement->setDelta(p.delta);
  refinement->setGamma(p.gamma);
  refinement->setIterations(p.iterations);
  refinement->setSolverSweeps(p.sweeps);
  refinement->setRelaxation(p.omega);
  cv::Mat components[2];
  cv::split(pair.flow, components);
  refinement->refine(pair.i0, pair.i1, components[0], components[1]);
  cv::Mat flow;
  cv::merge(components, 2, flow);
  return flow;
}

std::vector<const kernels::Kernels*> allKernels() {
  std::vector<const kernels::Kernels*> all;
  for (const auto* set = kernels::supportedKernels(); *set != nullptr; ++set) all.push_back(*set);
  return all;
}

/// Restores what a test forces upon the whole process.
class DisFlow : public ::testing::Test {
 protected:
  void TearDown() override {
    kernels::forceKernels(nullptr);
    cv::setNumThreads(threads_);
  }

 private:
  int threads_ = cv::getNumThreads();
};
using Refinement = DisFlow;

struct Scene {
  const char* name;
  int width, height;
  Motion motion;
  double gain, offset;
  bool solvable;  // by the engine, from a flow of zero
};

std::vector<Scene> scenes() {
  const auto rotation = [](double x, double y) {
    return cv::Point2d(-0.03 * (y - 60), 0.03 * (x - 80));
  };
  const auto zoom = [](double x, double y) {
    return cv::Point2d(0.04 * (x - 80), 0.04 * (y - 60));
  };
  return {{"shift", 160, 120, shift(3.4, -1.7), 1.0, 0.0, true},
          {"rotation", 160, 120, rotation, 1.0, 0.0, true},
          {"zoom", 160, 120, zoom, 1.0, 0.0, true},
          {"brightness", 160, 120, shift(-2.2, 1.3), 0.9, 15.0, true},
          {"odd size", 157, 83, shift(1.5, 2.5), 1.0, 0.0, true},
          {"narrow", 211, 19, shift(2.5, 0.5), 1.0, 0.0, false},
          {"out of the image", 120, 90, shift(25.3, -12.0), 1.0, 0.0, false}};
}

TEST_F(DisFlow, AgreesWithThePlainReferenceOnEveryInstructionSet) {
  struct Variant {
    const char* name = "";
    int finest = 0;
    lum_reference::SearchParams params;  // patch size, stride, iterations, mean, propagation
  };
  const Variant variants[] = {{"defaults", 0, {}},
                              {"no mean", 1, {8, 4, 16, false, true}},
                              {"no propagation", 0, {8, 4, 16, true, false}},
                              {"large patches", 1, {11, 3, 16, true, true}},
                              {"gaps between patches", 1, {5, 7, 16, true, true}},
                              {"largest patches", 2, {16, 16, 16, true, true}},
                              {"one step per pass", 1, {8, 4, 3, true, true}}};
  for (const Scene& scene : scenes()) {
    const ImagePair pair =
        makePair(scene.width, scene.height, scene.motion, scene.gain, scene.offset);
    for (const Variant& variant : variants) {
      const lum_reference::SearchParams& params = variant.params;
      const auto engine = DISOpticalFlow::create();
      engine->setVariationalRefinementIterations(0);
      engine->setFinestScale(variant.finest);
      engine->setPatchSize(params.patch_size);
      engine->setPatchStride(params.patch_stride);
      engine->setGradientDescentIterations(params.iterations);
      engine->setUseMeanNormalization(params.mean_normalization);
      engine->setUseSpatialPropagation(params.spatial_propagation);
      for (const cv::Mat& initial : {cv::Mat(), cv::Mat(pair.flow + cv::Scalar(0.5, -0.25))}) {
        const cv::Mat expected =
            lum_reference::denseFlow(pair.i0, pair.i1, params, variant.finest, initial);
        for (const kernels::Kernels* set : allKernels()) {
          SCOPED_TRACE(cv::format("%s, %s, %s, %s initial flow", set->name, scene.name,
                                  variant.name, initial.empty() ? "no" : "an"));
          kernels::forceKernels(set);
          const cv::Mat flow = calc(*engine, pair, initial);
          ASSERT_EQ(flow.size(), expected.size());
          // Rounding may decide a comparison of two nearly equal errors: such a patch takes another
          // step or candidate. All else agrees closely.
          const cv::Mat apart = distances(flow, expected);
          EXPECT_GE(cv::countNonZero(apart <= 2e-3), 0.99 * double(apart.total()));
          EXPECT_LE(cv::mean(apart)[0], 1e-3);
        }
      }
    }
  }
}

TEST_F(DisFlow, FindsKnownMotions) {
  for (const Scene& scene : scenes()) {
    if (!scene.solvable) continue;
    const ImagePair pair =
        makePair(scene.width, scene.height, scene.motion, scene.gain, scene.offset);
    const auto engine = DISOpticalFlow::create();
    engine->setFinestScale(0);
    EXPECT_LT(cv::mean(distances(calc(*engine, pair), pair.flow, 12))[0], 0.1) << scene.name;
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
}

TEST_F(DisFlow, KeepsTheFlowWhenAnInitialOneIsAsGood) {
  // On a plane that grows brighter every motion fits, once the mean is taken away.
  ImagePair plane{cv::Mat(40, 64, CV_8UC1), cv::Mat(), cv::Mat()};
  for (int y = 0; y < 40; ++y) {
    for (int x = 0; x < 64; ++x)
      plane.i0.at<uchar>(y, x) = cv::saturate_cast<uchar>(45 + 2 * x + y);
  }
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
  cv::theRNG().fill(noise.i0, cv::RNG::UNIFORM, 0, 256);
  cv::theRNG().fill(noise.i1, cv::RNG::UNIFORM, 0, 256);
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  const cv::Mat good = calc(*engine, noise);
  for (const float value : {std::nanf(""), INFINITY, -INFINITY, 1e30F, -1e20F, 1e9F}) {
    const cv::Mat initial(noise.i0.size(), CV_32FC2, cv::Scalar::all(value));
    EXPECT_TRUE(cv::checkRange(calc(*engine, noise, initial))) << value;
    EXPECT_EQ(cv::norm(calc(*engine, noise), good, cv::NORM_INF), 0.0)
        << "the call after " << value;
  }
}

TEST_F(DisFlow, ReportsBadImagesWithTheLineOfTheCheck) {
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
  const ImagePair pair = makePair(64, 48, shift(1, 0));
  for (const auto& [name, set] : cases) {
    const auto engine = DISOpticalFlow::create();
    set(*engine);
    try {
      calc(*engine, pair);
      ADD_FAILURE() << "no error for " << name;
    } catch (const cv::Exception& error) {
      EXPECT_NE(error.err.find(name), std::string::npos) << error.err;
    }
  }
}

TEST_F(DisFlow, TakesAnySize) {
  for (const cv::Size size :
       {cv::Size(1, 1), cv::Size(2, 1), cv::Size(1, 40), cv::Size(40, 1), cv::Size(7, 9),
        cv::Size(9, 7), cv::Size(8, 8), cv::Size(33, 65), cv::Size(16384, 1), cv::Size(1, 16384),
        cv::Size(16384, 24), cv::Size(24, 16384)}) {
    const ImagePair pair = makePair(size.width, size.height, shift(1.0, 0.5));
    for (const int patch_size : {1, 3, 8, 16}) {
      for (const int finest : {0, 2, 20}) {
        SCOPED_TRACE(cv::format("%d x %d, patch %d, finest %d", size.width, size.height, patch_size,
                                finest));
        const auto engine = DISOpticalFlow::create();
        engine->setPatchSize(patch_size);
        engine->setFinestScale(finest);
        const cv::Mat flow = calc(*engine, pair);
        ASSERT_EQ(flow.size(), size);
        ASSERT_EQ(flow.type(), CV_32FC2);
        EXPECT_TRUE(cv::checkRange(flow));
        if (patch_size == 8 && finest == 0 && std::min(size.width, size.height) >= 24) {
          EXPECT_LT(cv::mean(distances(flow, pair.flow, 8))[0], 0.1);
        }
      }
    }
  }
}

TEST_F(DisFlow, RefusesSidesBeyondItsRange) {
  for (const cv::Size size : {cv::Size(16385, 1), cv::Size(1, 16385)}) {
    const ImagePair pair = makePair(size.width, size.height, shift(0, 0));
    EXPECT_THROW(calc(*DISOpticalFlow::create(), pair), cv::Exception);
    EXPECT_THROW(refine(pair, {}), cv::Exception);
  }
}

TEST_F(DisFlow, WithoutAPatchGivesTheInitialFlowElseZero) {
  const ImagePair pair = makePair(40, 7, shift(1, 0));
  const auto engine = DISOpticalFlow::create();
  EXPECT_TRUE(sameBits(calc(*engine, pair), cv::Mat::zeros(7, 40, CV_32FC2)));
  const cv::Mat initial(7, 40, CV_32FC2, cv::Scalar(1.25, -3));
  EXPECT_TRUE(sameBits(calc(*engine, pair, initial), initial));
}

// ---------------------------------------------------------------- memory

/// What the process allocates: matrices, and by `operator new`, which this file replaces.
struct HeapUse {
  std::atomic<std::size_t> live_bytes{0};

  std::atomic<bool> watching{false};  // for the rest
  std::atomic<int> matrices{0};
  std::atomic<int> from_here{0};  // by code in this program, the library under test included
  std::atomic<std::size_t> largest{0};
};
HeapUse heap_use;

/// Whether code at this address belongs to the program, not to a shared library such as OpenCV.
bool isOwnCode(const void* address) {
  Dl_info its{};
  Dl_info own{};
  return dladdr(address, &its) != 0 && dladdr(&heap_use, &own) != 0 &&
         its.dli_fbase == own.dli_fbase;
}

void* allocate(std::size_t size, const void* caller) {
  void* const memory = std::malloc(size > 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  heap_use.live_bytes += malloc_usable_size(memory);
  if (heap_use.watching) {
    if (isOwnCode(caller)) ++heap_use.from_here;
    if (size > heap_use.largest) heap_use.largest = size;
  }
  return memory;
}

void deallocate(void* memory) {
  heap_use.live_bytes -= malloc_usable_size(memory);
  std::free(memory);
}

class CountingAllocator : public cv::MatAllocator {
 public:
  cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, std::size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    cv::UMatData* const u =
        cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
    u->prevAllocator = u->currAllocator = this;
    heap_use.live_bytes += u->size;
    if (heap_use.watching) ++heap_use.matrices;
    return u;
  }
  bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    return cv::Mat::getStdAllocator()->allocate(data, flags, usage);
  }
  void deallocate(cv::UMatData* u) const override {
    heap_use.live_bytes -= u->size;
    cv::Mat::getStdAllocator()->deallocate(u);
  }
};

class DisFlowMemory : public DisFlow {
 protected:
  void SetUp() override {
    static CountingAllocator allocator;
    cv::Mat::setDefaultAllocator(&allocator);
    cv::setNumThreads(1);
  }
  void TearDown() override {
    cv::Mat::setDefaultAllocator(cv::Mat::getStdAllocator());
    DisFlow::TearDown();
  }
};

TEST_F(DisFlowMemory, KeepsBuffersForTheNextCallUntilCollectGarbage) {
  const ImagePair pair = makePair(400, 300, shift(2.0, -1.0));
  const std::size_t pixels = pair.i0.total();
  const cv::Mat expected = calc(*DISOpticalFlow::create(), pair);  // OpenCV sets up what it keeps
  cv::Mat flow(pair.i0.size(), CV_32FC2, cv::Scalar::all(0));

  const auto engine = DISOpticalFlow::create();
  const std::size_t at_first = heap_use.live_bytes;
  engine->calc(pair.i0, pair.i1, flow);
  const std::size_t in_use = heap_use.live_bytes;
  EXPECT_GT(in_use - at_first, 5 * pixels);

  heap_use.watching = true;
  engine->calc(pair.i0, pair.i1, flow);
  heap_use.watching = false;
  EXPECT_EQ(heap_use.matrices, 0);
  EXPECT_EQ(heap_use.from_here, 0);
  // All that is left is made inside of cv::resize: tables of a column or row, given back there.
  EXPECT_LT(heap_use.largest, 32U * (400 + 300));
  EXPECT_EQ(heap_use.live_bytes, in_use);

  engine->collectGarbage();
  EXPECT_LT(heap_use.live_bytes, at_first + 16384) << "more than the lists of empty matrices";
  EXPECT_TRUE(sameBits(calc(*engine, pair), expected));
}

TEST_F(DisFlowMemory, CarriesNothingOverFromOneSizeToAnother) {
  const ImagePair large = makePair(200, 150, shift(2.0, -1.0));
  const ImagePair small{large.i0.rowRange(0, 100), large.i1.rowRange(0, 100), cv::Mat()};
  const auto engine = DISOpticalFlow::create();
  engine->setFinestScale(0);
  const cv::Mat first = calc(*engine, large);
  calc(*engine, small);
  EXPECT_TRUE(sameBits(calc(*engine, large), first));
}

// ---------------------------------------------------------------- refinement

/// A shift, with a flow that is up to half a pixel off.
ImagePair refinable(int width, int height) {
  ImagePair pair = makePair(width, height, shift(1.3, -0.7));
  cv::Mat noise(height, width, CV_32FC2);
  cv::RNG(7).fill(noise, cv::RNG::UNIFORM, -0.5, 0.5);
  pair.flow += noise;
  return pair;
}

TEST_F(Refinement, AgreesWithThePlainReferenceOnEveryInstructionSet) {
  for (const cv::Size size :
       {cv::Size(1, 1), cv::Size(1, 9), cv::Size(2, 2), cv::Size(17, 5), cv::Size(32, 16),
        cv::Size(97, 61), cv::Size(351, 40), cv::Size(650, 64)}) {
    const ImagePair pair = refinable(size.width, size.height);
    lum_reference::RefineParams params;
    params.iterations = 3;
    const cv::Mat expected =
        lum_reference::Refinement(pair.i0, pair.i1, pair.flow, params).minimise(pair.flow);
    for (const kernels::Kernels* set : allKernels()) {
      kernels::forceKernels(set);
      EXPECT_LE(cv::norm(refine(pair, params), expected, cv::NORM_INF), 5e-3) << set->name << size;
    }
  }
}

TEST_F(Refinement, LowersTheEnergyInEveryOuterIteration) {
  const ImagePair pair = refinable(97, 61);
  for (const float omega : {1.0F, 1.6F}) {
    lum_reference::RefineParams params;
    params.omega = omega;
    const lum_reference::Refinement model(pair.i0, pair.i1, pair.flow, params);
    double energy = model.energy(pair.flow);
    for (params.iterations = 1; params.iterations <= 8; ++params.iterations) {
      const double next = model.energy(refine(pair, params));
      EXPECT_LT(next, energy) << "iteration " << params.iterations;
      energy = next;
    }
  }
}

TEST_F(Refinement, LeavesAFlowWithoutTermsAlone) {
  const ImagePair pair = refinable(40, 30);
  EXPECT_LE(cv::norm(refine(pair, {0, 0, 0}), pair.flow, cv::NORM_INF), 1e-5);
  EXPECT_TRUE(sameBits(refine(pair, {20, 5, 10, 0}), pair.flow));
}

TEST_F(Refinement, ForgetsFlowsThatAreNotNumbers) {
  const ImagePair pair = refinable(31, 24);  // an odd width: a place without a pixel ends a row
  const auto refinement = VariationalRefinement::create();
  for (const float last : {0.0F, std::nanf(""), 1e20F}) {
    cv::Mat parts[2];
    cv::split(pair.flow, parts);
    parts[0].at<float>(12, 30) += last;
    refinement->refine(pair.i0, pair.i1, parts[0], parts[1]);
  }
  cv::Mat parts[2];
  cv::split(pair.flow, parts);
  refinement->refine(pair.i0, pair.i1, parts[0], parts[1]);
  cv::Mat flow;
  cv::merge(parts, 2, flow);
  EXPECT_TRUE(sameBits(flow, refine(pair, {})));
}

TEST_F(Refinement, RefusesBadParameters) {
  const ImagePair pair = refinable(16, 16);
  const lum_reference::RefineParams cases[] = {// alpha, delta, gamma, iterations, sweeps, omega
                                               {-1, 5, 10},
                                               {20, 5, 10, -1},
                                               {20, 5, 10, 5, 0},
                                               {20, 5, 10, 5, INT_MAX},
                                               {20, 5, 10, 5, 5, 2}};
  for (const lum_reference::RefineParams& params : cases) {
    EXPECT_THROW(refine(pair, params), cv::Exception);
  }
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size, __builtin_return_address(0)); }
void* operator new[](std::size_t size) { return allocate(size, __builtin_return_address(0)); }
void operator delete(void* memory) noexcept { deallocate(memory); }
void operator delete[](void* memory) noexcept { deallocate(memory); }
void operator delete(void* memory, std::size_t) noexcept { deallocate(memory); }
void operator delete[](void* memory, std::size_t) noexcept { deallocate(memory); }
