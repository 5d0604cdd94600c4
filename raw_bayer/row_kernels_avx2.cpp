// The row kernels for AVX2; compiled with its flag, run only where the processor has it.
//
// OpenCV's headers derive these macros from the target in its own build only; CV_CPU_DISPATCH_MODE
// puts its vector types into a namespace apart from the baseline's.
#define CV_SSE3 1
#define CV_SSSE3 1
#define CV_SSE4_1 1
#define CV_SSE4_2 1
#define CV_AVX 1
#define CV_AVX2 1
#define CV_CPU_DISPATCH_MODE AVX2
#include <immintrin.h>

#include <opencv2/core/hal/intrin.hpp>

#define LUM_RAW_KERNELS kAvx2Kernels
#define LUM_RAW_KERNELS_NAME "avx2"
#include "raw_bayer/row_kernels.simd.hpp"
