#ifndef SIMD_INTRINSICS_H_
#define SIMD_INTRINSICS_H_

// OpenCV's universal intrinsics: those of the compiler's target, or, in sources that set
// CV_CPU_DISPATCH_MODE, those of the instruction set that the compiler's flags name, with vector
// types in a namespace apart. OpenCV's headers look at such flags in its own build only. To be
// included before any other header of OpenCV.

#if defined(CV_CPU_DISPATCH_MODE)
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
#if defined(__GNUC__) && !defined(__clang__)
// GCC's own intrinsics start from undefined vectors.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#endif
#include <immintrin.h>
#else
#include <opencv2/core.hpp>  // Without a vector unit the next header needs it.
#endif
#include <opencv2/core/hal/intrin.hpp>

#endif  // SIMD_INTRINSICS_H_
