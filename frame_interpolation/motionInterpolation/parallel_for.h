#pragma once

/// Internal: work handed to OpenCV's threads.

#include <atomic>
#include <opencv2/core/utility.hpp>

namespace cv::optflow::lum {

/// Calls `work(i)` for every i from 0 to `count` - 1, on the threads of `parallel_for_`.
///
/// The two counters say in atomics what `parallel_for_` guarantees anyway: work starts after the
/// call, and the call returns after all work. The thread library below is not built for
/// ThreadSanitizer, which would not see that order.
template <typename Work>
void parallelFor(int count, const Work& work) {
  class Body : public ParallelLoopBody {
   public:
    explicit Body(const Work& each) : each_(each) { begun_.store(1, std::memory_order_release); }
    void operator()(const Range& range) const override {
      (void)begun_.load(std::memory_order_acquire);
      for (int i = range.start; i < range.end; ++i) each_(i);
      ended_.fetch_add(1, std::memory_order_acq_rel);
    }
    void awaitEnd() const { (void)ended_.load(std::memory_order_acquire); }

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
  parallel_for_(Range(0, count), body, count);
  body.awaitEnd();
}

}  // namespace cv::optflow::lum
