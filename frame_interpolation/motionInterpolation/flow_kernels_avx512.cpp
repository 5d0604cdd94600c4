// The refinement for AVX-512 (F, CD, BW, DQ, VL) with FMA, beside the search for AVX2; compiled
// with those flags, run only where the processor has all of them.
#if defined(__GNUC__) && !defined(__clang__)
// GCC's own intrinsics start from undefined vectors.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define CV_CPU_DISPATCH_MODE AVX512_SKX
#include "x86_intrinsics.h"

#define LUM_KERNELS kAvx512Kernels
#define LUM_KERNELS_NAME "avx512"
#define LUM_SEARCH_KERNELS kAvx2Kernels
#include "flow_kernels.inc"
