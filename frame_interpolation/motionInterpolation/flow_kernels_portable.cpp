// The kernels on OpenCV's plain C++ vectors, for processors without any vector unit it knows.
#define CV_FORCE_SIMD128_CPP 1
#include <opencv2/core.hpp>
#include <opencv2/core/hal/intrin.hpp>

#define LUM_KERNELS kPortableKernels
#define LUM_KERNELS_NAME "portable"
#include "flow_kernels.simd.hpp"
