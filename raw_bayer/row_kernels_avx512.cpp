// The row kernels for AVX-512 (F, CD, BW, DQ, VL): compiled with its flags, run only where the
// processor has it.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // GCC 12's own header, where none matters.
#endif
#define CV_CPU_DISPATCH_MODE AVX512_SKX
#include "raw_bayer/x86_intrinsics.h"

#define LUM_RAW_KERNELS kAvx512Kernels
#define LUM_RAW_KERNELS_NAME "avx512"
#include "raw_bayer/row_kernels.simd.hpp"
