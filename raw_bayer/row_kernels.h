#ifndef RAW_BAYER_ROW_KERNELS_H_
#define RAW_BAYER_ROW_KERNELS_H_

#include <cstddef>
#include <cstdint>

// Internal: the vector loops over rows, compiled once per instruction set.
//
// Everything here works on raw pointers and plain numbers: a source compiled for a wide instruction
// set must not instantiate inline functions that other sources share, or the linker could pick the
// wide copy for a processor that lacks it.

namespace lum::raw::kernels {

/// A rate with integers by which most samples are judged without a division.
///
/// Let q = sample / rate, rounded to single precision, and m the brightest neighbour; a sample is
/// bad if m < q. For a rate of 1 or more
///   m >= min(sample, floor(sample * high / 65536) + 1)  means good, and
///   m < floor(sample * low / 65536) + (sample & whole)      means bad,
/// because rounding to single precision never crosses a 16-bit integer. Only the few values of m
/// between them need the division. Below a rate of 1 it is used for every sample.
struct Screen {
  explicit Screen(float bad_pixel_rate);

  float rate;
  bool useful;              // the rate is 1 or more
  std::uint16_t high = 0;   // above 65536 / rate, or 65535, with which the bound is the sample
  std::uint16_t low = 0;    // below 65536 / rate by at most 1; 0 for the rate 1, which does not fit
  std::uint16_t whole = 0;  // all bits set for the rate 1
};

/// A row to repair with the rows around it as they were before any repair.
struct RepairRow {
  const std::uint16_t* rows[5];  // y - 2 to y + 2; FixBadPixels2 needs the inner three
  const std::uint16_t* ahead;    // a row that will be read soon
  std::uint16_t* out;            // null: only look for bad samples
  int y;
};

/// The rows of a span of cells, each from the span's first sample on.
struct SplitSpan {
  const std::uint16_t* raw[4];    // from the row above the cells to the one below
  const std::uint16_t* ahead[2];  // rows that will be read soon
  std::uint16_t* g[2];
  std::uint16_t* r;
  std::uint16_t* b;
  int cells;
};
struct MergeSpan {
  const std::uint16_t* g[2];
  const std::uint16_t* r;
  const std::uint16_t* b;
  std::uint16_t* raw[2];
  int cells;
};

/// The functions of one instruction set.
struct Kernels {
  const char* name;
  int lanes;  // samples in a vector; shorter spans must not be given to the functions below

  /// Judges the samples from column `x` to `end`. Without `out` stops at the first vector that
  /// holds a bad sample, otherwise writes the repaired samples and leaves `out` alone elsewhere.
  /// May visit samples before `x` again, down to `end - lanes`. @return where it stopped.
  int (*fix_bad_pixels)(const RepairRow&, const Screen&, int x, int end);
  int (*fix_bad_pixels_2)(const RepairRow&, const Screen&, int x, int end);

  void (*split)(const SplitSpan&);
  void (*merge)(const MergeSpan&);

  /// Copies samples to memory that is not read soon, past the caches. Null: cannot.
  void (*stream)(std::uint16_t* to, const std::uint16_t* from, std::size_t samples);
  /// Makes what this thread has streamed visible to others.
  void (*finish_streaming)();
};

extern const Kernels kPlainKernels;     // plain loops; what the others are compared with
extern const Kernels kBaselineKernels;  // what the compiler's target has: SSE2, NEON, ...
extern const Kernels kAvx2Kernels;      // these two only on x86
extern const Kernels kAvx512Kernels;

/// The set in use: the widest that the processor has and OpenCV has not switched off, or the one
/// that was forced.
const Kernels& Active();

/// Forces a set; null goes back to the choice by processor. For tests and benchmarks; not while
/// another thread computes.
void Force(const Kernels* kernels);

/// The sets that this processor can run end with null; the widest first.
const Kernels* const* Supported();

}  // namespace lum::raw::kernels

#endif  // RAW_BAYER_ROW_KERNELS_H_
