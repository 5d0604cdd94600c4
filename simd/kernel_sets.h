#ifndef SIMD_KERNEL_SETS_H_
#define SIMD_KERNEL_SETS_H_

#include <atomic>
#include <cstddef>
#include <initializer_list>
#include <opencv2/core/utility.hpp>
#include <vector>

namespace lum::simd {

/// Whether the processor has what the sources compiled for a set need, and OpenCV has not switched
/// it off.
inline bool HasAvx2() {
  return cv::checkHardwareSupport(CV_CPU_AVX2) && cv::checkHardwareSupport(CV_CPU_FMA3);
}
inline bool HasAvx512() { return HasAvx2() && cv::checkHardwareSupport(CV_CPU_AVX512_SKX); }

/// The tables of one engine's kernels, one per instruction set, and the one in use.
///
/// Threads: all functions may be called at any time, but which table `Active` returns to a thread
/// that computes while another one forces is not said.
/// Ownership: refers to tables that live as long as the program.
template <typename Kernels>
class KernelSets {
 public:
  struct Set {
    const Kernels* kernels;
    bool (*runs)();  // on this processor; null: on any
  };

  /// @param sets  the preferred one first; the last one runs on any processor.
  KernelSets(std::initializer_list<Set> sets) : sets_(sets) {
    for (const Set& set : sets_) {
      if (Runs(set)) supported_.push_back(set.kernels);
    }
    supported_.push_back(nullptr);
  }

  /// The sets that run here, the preferred one first; a null pointer ends them.
  const Kernels* const* Supported() const { return supported_.data(); }

  /// The set that was forced, or else the preferred one: looked up each time, as
  /// `cv::setUseOptimized` may have changed.
  const Kernels& Active() const {
    if (const Kernels* const forced = forced_.load(std::memory_order_relaxed)) return *forced;
    std::size_t i = 0;
    while (!Runs(sets_[i])) ++i;
    return *sets_[i].kernels;
  }

  /// Forces a set; null goes back to the preferred one. For tests and benchmarks.
  void Force(const Kernels* kernels) { forced_.store(kernels, std::memory_order_relaxed); }

 private:
  static bool Runs(const Set& set) { return set.runs == nullptr || set.runs(); }

  std::vector<Set> sets_;
  std::vector<const Kernels*> supported_;
  std::atomic<const Kernels*> forced_{nullptr};
};

}  // namespace lum::simd

#endif  // SIMD_KERNEL_SETS_H_
