#ifndef RAW_BAYER_X86_INTRINSICS_H_
#define RAW_BAYER_X86_INTRINSICS_H_

// OpenCV's universal intrinsics for the instruction sets of the compiler's flags, which OpenCV's
// headers look at in its own build only. For files that set CV_CPU_DISPATCH_MODE, which puts the
// vector types into a namespace of their own, and that include no other header of OpenCV before.
#if defined(__AVX2__)
#define CV_SSE3 1
#define CV_SSSE3 1
#define CV_SSE4_1 1
#define CV_SSE4_2 1
#define CV_AVX 1
#define CV_AVX2 1
#endif
#if defined(__AVX512BW__) && defined(__AVX512DQ__) && defined(__AVX512VL__)
#define CV_FMA3 1
#define CV_AVX_512F 1
#define CV_AVX512_COMMON 1
#define CV_AVX512_SKX 1
#endif
#include <immintrin.h>

#include <opencv2/core/hal/intrin.hpp>

#endif  // RAW_BAYER_X86_INTRINSICS_H_
