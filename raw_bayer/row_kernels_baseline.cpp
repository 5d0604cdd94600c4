// The row kernels for the compiler's own target: SSE2 on x86-64, NEON on ARM.
#include <opencv2/core/hal/intrin.hpp>

#define LUM_RAW_KERNELS kBaselineKernels
#define LUM_RAW_KERNELS_NAME "baseline"
#include "raw_bayer/row_kernels.simd.hpp"
