// The kernels for the compiler's own target: SSE2 on x86-64, NEON on ARM.
#include <opencv2/core/hal/intrin.hpp>

#define LUM_KERNELS kBaselineKernels
#define LUM_KERNELS_NAME "baseline"
#include "flow_kernels.inc"
