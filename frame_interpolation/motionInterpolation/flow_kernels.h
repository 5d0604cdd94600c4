#pragma once

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

/// Planes that are split into red (x + y even) and black pixels. Pixel (x, y) of colour c is
/// element k of row y with x = 2k + ((y + c) & 1), so that each colour is contiguous and a vector
/// holds pixels of one colour only.
struct ColourPlane {
  float* row0[2];  // element 0 of row 0, per colour; rows -1 and h and kPad elements on each side
                   // exist
};

constexpr int kPad = 16;  // floats before and at least as many behind each row

struct RefineArgs {
  int w, h;
  std::ptrdiff_t natural_stride;  // floats
  std::ptrdiff_t colour_stride;   // floats

  const std::uint8_t* i0;
  std::ptrdiff_t i0_stride;
  const std::uint8_t* i1;
  std::ptrdiff_t i1_stride;
  float* u;  // in and out
  float* v;
  std::ptrdiff_t u_stride, v_stride;

  // Rows as in the image, kPad elements on each side; row h of `second` repeats row h - 1.
  float* second;
  float* mean;
  float* diff;
  float* inside;  // 1 where the warp stays in the image
  float* mean_x;  // holds u until the warp is done
  float* mean_y;  // holds v until the warp is done

  ColourPlane flow_u, flow_v;
  // Residuals r_i = c_i + a_i u + b_i v of the three linearised constancy terms.
  ColourPlane a[3], b[3], c[3];
  ColourPlane robust;         // derivative of the smoothness penaliser
  ColourPlane m11, m12, m22;  // inverse of each pixel's 2 x 2 system
  ColourPlane b1, b2;         // right-hand side without neighbours
  ColourPlane right, down;    // smoothness weights of the edges to x + 1 and y + 1

  const float* has_left[2];  // 1 or 0 per element of a row, by the row's first x
  const float* has_right[2];

  float alpha, delta, gamma, omega;
};

/// A band of rows whose unknowns are solved by one task.
struct SweepBand {
  float* u[2];  // element 0 of image row 0, per colour; may point into a private copy
  float* v[2];
  int begin, end;   // rows this band owns
  int first, last;  // rows present: the owned ones and a halo
  int half_sweeps;
};

/// The functions of one instruction set. All row and stripe ranges are [begin, end).
struct Kernels {
  const char* name;
  void (*structureTensor)(const SearchArgs&, int begin_patch_row, int end_patch_row,
                          std::int32_t* scratch);  // 5 * w elements
  void (*search)(const SearchArgs&, int begin_patch_row, int end_patch_row);
  void (*densify)(const SearchArgs&, int begin_row, int end_row);

  void (*importRows)(const RefineArgs&, int begin, int end);
  void (*warpRows)(const RefineArgs&, int begin, int end);
  void (*firstDerivatives)(const RefineArgs&, int begin, int end);
  void (*dataTerms)(const RefineArgs&, int begin, int end);
  void (*smoothnessRows)(const RefineArgs&, int begin, int end);
  void (*systemRows)(const RefineArgs&, int begin, int end);
  void (*sweep)(const RefineArgs&, const SweepBand&);
  void (*exportRows)(const RefineArgs&, int begin, int end);
};

extern const Kernels kPortableKernels;  // plain C++
extern const Kernels kBaselineKernels;  // what the compiler's target has: SSE2, NEON, ...
#ifdef LUM_HAVE_AVX2_KERNELS
extern const Kernels kAvx2Kernels;  // AVX2 with FMA
#endif

/// The set used by all objects: the widest that the processor has and OpenCV has not switched off,
/// or the one that was forced.
const Kernels& activeKernels();

/// Forces a set; null goes back to the choice by processor. For tests and benchmarks; not while
/// another thread computes.
void forceKernels(const Kernels* kernels);

/// Whether the processor can run a set.
bool isSupported(const Kernels& kernels);

}  // namespace cv::optflow::lum::kernels
