// The kernels for AVX2 with FMA; compiled with those flags, run only where the processor has both.
//
// OpenCV's headers derive these macros from the target in its own build only; CV_CPU_DISPATCH_MODE
// puts its vector types into a namespace apart from the baseline's.
#define CV_SSE3 1
#define CV_SSSE3 1
#define CV_SSE4_1 1
#define CV_SSE4_2 1
#define CV_AVX 1
#define CV_AVX2 1
#define CV_FMA3 1
#define CV_CPU_DISPATCH_MODE AVX2
#include <immintrin.h>

#include <opencv2/core/hal/intrin.hpp>

#define LUM_KERNELS kAvx2Kernels
#define LUM_KERNELS_NAME "avx2"
#include "flow_kernels.simd.hpp"
