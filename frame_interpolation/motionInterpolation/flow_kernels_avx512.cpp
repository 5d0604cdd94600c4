// The kernels for AVX-512 (F, CD, BW, DQ, VL) with FMA; compiled with those flags, run only where
// the processor has all of them. See flow_kernels_avx2.cpp for the macros.
#define CV_SSE3 1
#define CV_SSSE3 1
#define CV_SSE4_1 1
#define CV_SSE4_2 1
#define CV_AVX 1
#define CV_AVX2 1
#define CV_FMA3 1
#define CV_AVX_512F 1
#define CV_AVX512_COMMON 1
#define CV_AVX512_SKX 1
#define CV_CPU_DISPATCH_MODE AVX512_SKX
#include <immintrin.h>

#include <opencv2/core/hal/intrin.hpp>

#define LUM_KERNELS kAvx512Kernels
#define LUM_KERNELS_NAME "avx512"
#include "flow_kernels.simd.hpp"
