#ifndef MOTION_INTERPOLATION_FLOW_KERNELS_H_
#define MOTION_INTERPOLATION_FLOW_KERNELS_H_

/// Internal: the inner loops of flow search and refinement, compiled once per instruction set.
///
/// Everything here works on raw pointers and plain numbers: the sources compiled for wider
/// instruction sets must not instantiate inline functions that other sources share, or the linker
/// could pick the wide copy for a processor that lacks it.

#include <cstddef>
#include <cstdint>

namespace cv::optflow::lum::kernels {

/// One scale, as search and densification see it. Strides are in elements.
struct SearchArgs {
  const std::uint8_t* i0;
  std::ptrdiff_t i0_stride;
  const std::uint8_t* i1;  // second image without border
  std::ptrdiff_t i1_stride;
  const std::uint8_t* i1_ext;  // with `border` replicated pixels on each side
  std::ptrdiff_t i1_ext_stride;
  const std::int16_t* ix;
  const std::int16_t* iy;
  std::ptrdiff_t grad_stride;
  float* ux;
  float* uy;
  std::ptrdiff_t u_stride;
  const float* initial_ux;  // null: no initial flow
  const float* initial_uy;
  std::ptrdiff_t initial_stride;
  float* weight_sums;  // w x h, contiguous rows

  // One element per patch, rows contiguous.
  float* sx;
  float* sy;
  float* xx;
  float* yy;
  float* xy;
  float* x;
  float* y;

  int w, h, ws, hs;
  int patch_size, patch_stride, border;
  int passes, inner_iterations;
  bool mean_normalization, spatial_propagation;
};

/// Doubled sizes of one flow, or its last step to the size of the image.
struct ResizeArgs {
  const float* source[2];  // u, v
  std::ptrdiff_t source_stride[2];
  int source_height;
  float factor;

  int width;               // of the result
  const int* columns;      // per column of the result: the left one of the two it lies between
  const float* fractions;  // and how far towards the right one
  double scale_y;          // rows of the source per row of the result

  float* out[2];  // u, v; or, without the second one, both in turns
  std::ptrdiff_t out_stride[2];
};

// What the refinement minimises; see variational_refinement.h.
constexpr float kSmoothEpsilonSquared = 0.001F * 0.001F;
constexpr float kDataEpsilonSquared = 0.3F * 0.3F;
constexpr float kZetaSquared = 4.0F;
constexpr float kLeastEdge = 0.05F;
constexpr float kEdgeRange = 80.0F;  // grey levels

constexpr int kPad = 16;  // floats before, and at least as many after, each row of the refinement

/// Planes whose rows are kept whole, and the rows of their ring: a power of two, see `prepareRow`.
constexpr int kNaturalPlanes = 6;
constexpr int kNaturalRows = 8;

/// The other planes are split into red (x + y even) and black pixels, so that a vector holds pixels
/// of one colour only: pixel (x, y) of colour c is element k of a half row with x = 2k + ((y + c) &
/// 1). All half rows of image row y lie together, plane by plane, colour by colour.
enum FlowPlane { kFlowU, kFlowV };
constexpr int kFlowHalves = 2 * 2;
constexpr int kSolverHalves = 2 * (3 + 9);  // u and v of the halo, robust weights, systems
constexpr int kRowHalves = 2 * (5 + 3);     // data terms; edges to the right and downwards

struct RefineArgs {
  int w, h;
  std::ptrdiff_t natural_stride;  // floats
  std::ptrdiff_t half_stride;     // floats

  const std::uint8_t* i0;
  std::ptrdiff_t i0_stride;
  float* u;  // in and out
  float* v;
  std::ptrdiff_t u_stride, v_stride;

  const std::uint8_t* second;  // the second image, repeated one pixel before and two after
  std::ptrdiff_t second_stride;
  float* flow[2];     // kFlowHalves per row; rows -1 and h exist. Read and written in turns.
  double* edge_sums;  // per row: the sum of the weights of its edges to the right and downwards

  const float* has_left[2];  // 1 or 0 per element of a half row, by the half row's first x
  const float* has_right[2];
  const float* exists[2];  // 0 beyond the row

  float alpha, delta, gamma, omega;
  float pull;       // of each pixel towards the flow that the iteration begins with
  int half_sweeps;  // per iteration
};

/// A band of rows that one task computes, and its scratch memory.
struct Band {
  int begin, end;
  float* natural;   // a ring of kNaturalRows rows of kNaturalPlanes
  float* row;       // kRowHalves half rows
  float* solver;    // a ring of solver_rows rows of kSolverHalves half rows
  float* zeros;     // a half row
  int solver_rows;  // a power of two, at least half_sweeps + block_steps + 2
  // The order of the half sweeps, see `solve`.
  int block_steps;
  int group_sweeps;  // even
};

/// The functions of one instruction set. All row and stripe ranges are [begin, end).
struct Kernels {
  const char* name;
  void (*structureTensor)(const SearchArgs&, int begin_patch_row, int end_patch_row,
                          std::int32_t* scratch);  // 5 * w elements
  void (*search)(const SearchArgs&, int begin_patch_row, int end_patch_row);
  void (*densify)(const SearchArgs&, int begin_row, int end_row);
  /// Rows of the result; `scratch`: 4 * width elements.
  void (*resize)(const ResizeArgs&, int begin_row, int end_row, float* scratch);

  /// `flow[0]` and `edge_sums` of a band, from `u`, `v` and `i0`.
  void (*beginRefinement)(const RefineArgs&, const Band&);
  /// One iteration on a band: from `flow[iteration % 2]` into the other one, after the last
  /// iteration also into `u` and `v`.
  void (*solve)(const RefineArgs&, const Band&, int iteration, bool last);
};

extern const Kernels kPlainKernels;     // a plain loop per rule: what the others are compared with
extern const Kernels kBaselineKernels;  // what the compiler's target has: SSE2, NEON, ...
extern const Kernels kAvx2Kernels;      // AVX2 with FMA; these two only on x86
extern const Kernels kAvx512Kernels;    // refinement for AVX-512 F, CD, BW, DQ, VL; rest as AVX2

/// The set used by all objects: the widest that the processor has and OpenCV has not switched off,
/// or the one that was forced.
const Kernels& activeKernels();

/// Forces a set; null goes back to the choice by processor. For tests and benchmarks; not while
/// another thread computes.
void forceKernels(const Kernels* kernels);

/// The sets that this processor can run, the widest first; a null pointer ends them.
const Kernels* const* supportedKernels();

}  // namespace cv::optflow::lum::kernels

#endif  // MOTION_INTERPOLATION_FLOW_KERNELS_H_
