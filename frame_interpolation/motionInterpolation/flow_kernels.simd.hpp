// The kernels' one source, compiled once per instruction set after OpenCV's universal intrinsics.
// It defines the table LUM_KERNELS. No include guard: it is no header.

#include "flow_kernels.h"

namespace cv::optflow::lum::kernels {
namespace {

constexpr int kLanes = v_float32::nlanes;
static_assert(kLanes <= kPad, "rows are padded for one vector on each side");

constexpr int kMaxPatch = 16;  // side

// Own versions of the standard library's: see flow_kernels.h on shared inline functions.
inline int minOf(int a, int b) { return a < b ? a : b; }
inline int maxOf(int a, int b) { return a > b ? a : b; }
inline float absOf(float a) { return a < 0.0F ? -a : a; }

/// `value` within [low, high]; `low` where it is not a number.
inline float clampOf(float value, float low, float high) {
  const float raised = value > low ? value : low;
  return raised < high ? raised : high;
}

inline v_float32 loadFloats(const std::uint8_t* p) {
  return v_cvt_f32(v_reinterpret_as_s32(vx_load_expand_q(p)));
}
inline v_float32 loadFloats(const std::int16_t* p) { return v_cvt_f32(vx_load_expand(p)); }

inline v_float32 lerp(const v_float32& a, const v_float32& b, const v_float32& t) {
  return v_fma(t, b - a, a);
}
inline float lerp(float a, float b, float t) { return a + t * (b - a); }

#if CV_AVX512_SKX
// Another set's: a patch row is 8 pixels, which fill no more than half a wider vector.
void structureTensor(const SearchArgs& args, int begin, int end, std::int32_t* scratch) {
  kAvx2Kernels.structureTensor(args, begin, end, scratch);
}
void search(const SearchArgs& args, int begin, int end) { kAvx2Kernels.search(args, begin, end); }
void densify(const SearchArgs& args, int begin, int end) { kAvx2Kernels.densify(args, begin, end); }
#else
#include "densify_kernels.simd.hpp"
#include "search_kernels.simd.hpp"
#endif
#include "refinement_kernels.simd.hpp"
#include "resize_kernels.simd.hpp"

}  // namespace

const Kernels LUM_KERNELS = {LUM_KERNELS_NAME, structureTensor, search, densify,
                             resize,           beginRefinement, solve};

}  // namespace cv::optflow::lum::kernels
