// The row kernels for AVX2: compiled with its flags, run only where the processor has it.
#define CV_CPU_DISPATCH_MODE AVX2
#include "raw_bayer/x86_intrinsics.h"

#define LUM_RAW_KERNELS kAvx2Kernels
#define LUM_RAW_KERNELS_NAME "avx2"
#include "raw_bayer/row_kernels.simd.hpp"
