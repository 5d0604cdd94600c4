#ifndef RAW_BAYER_TESTS_FAKE_CUDA_RUNTIME_H_
#define RAW_BAYER_TESTS_FAKE_CUDA_RUNTIME_H_

// As much of the CUDA runtime as the kernels' source needs, on this processor: device memory is
// host memory with wide rows, a kernel runs thread after thread.

#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>

// NOLINTBEGIN(bugprone-reserved-identifier): names of the language
#define __global__
#define __device__
// NOLINTEND(bugprone-reserved-identifier)

struct CUstream_st;
using cudaStream_t = CUstream_st*;
enum cudaError_t {
  cudaSuccess,
  cudaErrorInvalidConfiguration,
  cudaErrorNoDevice,
  cudaErrorUnknown
};
enum cudaMemcpyKind { cudaMemcpyHostToDevice, cudaMemcpyDeviceToHost };
struct cudaFuncAttributes {};
struct dim3 {
  explicit dim3(unsigned columns = 0, unsigned rows = 0) : x(columns), y(rows) {}
  unsigned x, y;
};
inline thread_local dim3 gridDim, blockDim, blockIdx, threadIdx;

/// The call of the runtime that fails, counted from the next one; 0 for none.
inline thread_local int fake_cuda_fails_at = 0;

inline cudaError_t Attempt() {
  return fake_cuda_fails_at != 0 && --fake_cuda_fails_at == 0 ? cudaErrorUnknown : cudaSuccess;
}
inline const char* cudaGetErrorString(cudaError_t) { return "as the test asked"; }
inline cudaError_t cudaGetLastError() { return cudaSuccess; }
inline cudaError_t cudaDeviceSynchronize() { return Attempt(); }
inline cudaError_t cudaGetDeviceCount(int* count) { return *count = 1, Attempt(); }
template <typename Kernel>
cudaError_t cudaFuncGetAttributes(cudaFuncAttributes*, Kernel) {
  return Attempt();
}

inline cudaError_t cudaMallocPitch(void** data, std::size_t* step, std::size_t width,
                                   std::size_t rows) {
  *step = (width / 512 + 1) * 512;
  *data = Attempt() == cudaSuccess ? std::malloc(*step * rows) : nullptr;
  return *data != nullptr ? cudaSuccess : cudaErrorUnknown;
}
inline void cudaFree(void* data) { std::free(data); }
inline cudaError_t cudaMemcpy2D(void* to, std::size_t to_step, const void* from,
                                std::size_t from_step, std::size_t width, std::size_t rows,
                                cudaMemcpyKind) {
  for (std::size_t y = 0; y < rows; ++y) {
    std::memcpy(static_cast<char*>(to) + y * to_step,
                static_cast<const char*>(from) + y * from_step, width);
  }
  return Attempt();
}

template <typename... P, std::size_t... kIndex>
std::tuple<P...> Values(void** arguments, std::index_sequence<kIndex...>) {
  return {*static_cast<P*>(arguments[kIndex])...};
}
template <typename... P>
cudaError_t cudaLaunchKernel(void (*kernel)(P...), dim3 grid, dim3 block, void** arguments,
                             std::size_t, cudaStream_t) {
  if (grid.x == 0 || grid.y == 0 || grid.y > 65535 || block.x * block.y > 1024) {
    return cudaErrorInvalidConfiguration;
  }
  gridDim = grid;
  blockDim = block;
  const std::tuple<P...> values = Values<P...>(arguments, std::index_sequence_for<P...>());
  const dim3 threads(grid.x * block.x, grid.y * block.y);
  for (unsigned y = 0; y < threads.y; ++y) {
    for (unsigned x = 0; x < threads.x; ++x) {
      blockIdx = dim3(x / block.x, y / block.y);
      threadIdx = dim3(x % block.x, y % block.y);
      std::apply(kernel, values);
    }
  }
  return Attempt();
}

#endif  // RAW_BAYER_TESTS_FAKE_CUDA_RUNTIME_H_
