#ifndef SIMD_PARALLEL_FOR_H_
#define SIMD_PARALLEL_FOR_H_

#include <atomic>
#include <opencv2/core/utility.hpp>

namespace lum::simd {

/// Calls `work(i)` for every i from 0 to `count` - 1, on the threads of `cv::parallel_for_`.
///
/// The two counters say in atomics what `parallel_for_` guarantees anyway: work starts after the
/// call, and the call returns after all work. The thread library below is not built for
/// ThreadSanitizer, which would not see that order.
template <typename Work>
void ParallelFor(int count, const Work& work) {
  class Body : public cv::ParallelLoopBody {
   public:
    explicit Body(const Work& each) : each_(each) { begun_.store(1, std::memory_order_release); }
    void operator()(const cv::Range& range) const override {
      (void)begun_.load(std::memory_order_acquire);
      for (int i = range.start; i < range.end; ++i) each_(i);
      ended_.fetch_add(1, std::memory_order_acq_rel);
    }
    void AwaitEnd() const { (void)ended_.load(std::memory_order_acquire); }

   private:
    const Work& each_;
    std::atomic<int> begun_{0};
    mutable std::atomic<int> ended_{0};
  };
  if (count <= 1) {
    if (count == 1) work(0);
    return;
  }
  const Body body(work);
  cv::parallel_for_(cv::Range(0, count), body, count);
  body.AwaitEnd();
}

}  // namespace lum::simd

#endif  // SIMD_PARALLEL_FOR_H_
