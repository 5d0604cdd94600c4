#pragma once

/// Internal: OpenCV's universal intrinsics for the instruction sets of the compiler's flags, at
/// which OpenCV's headers look in its own build only. For sources that set CV_CPU_DISPATCH_MODE,
/// which puts the vector types into a namespace apart from the baseline's.

#define CV_SSE3 1
#define CV_SSSE3 1
#define CV_SSE4_1 1
#define CV_SSE4_2 1
#define CV_AVX 1
#define CV_AVX2 1
#define CV_FMA3 1
#if defined(__AVX512BW__) && defined(__AVX512DQ__) && defined(__AVX512VL__)
#define CV_AVX_512F 1
#define CV_AVX512_COMMON 1
#define CV_AVX512_SKX 1
#endif
#include <immintrin.h>

#include <opencv2/core/hal/intrin.hpp>
