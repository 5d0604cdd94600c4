// The kernels for AVX2 with FMA; compiled with those flags, run only where the processor has both.
#define CV_CPU_DISPATCH_MODE AVX2
#include "x86_intrinsics.h"

#define LUM_KERNELS kAvx2Kernels
#define LUM_KERNELS_NAME "avx2"
#include "flow_kernels.inc"
