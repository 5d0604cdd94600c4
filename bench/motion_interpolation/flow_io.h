#ifndef MOTRACE_BENCH_FLOW_IO_H_
#define MOTRACE_BENCH_FLOW_IO_H_

/// Reads the small formats of the flow benchmarks. Every function throws `std::runtime_error` with
/// the path for a file that is missing or of another kind.

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace lum_bench {

/// An 8-bit grey image from a binary PGM or PPM file (netpbm.sourceforge.net/doc); colours become
/// grey.
cv::Mat readGrey(const std::string& path);

/// A flow field, `CV_32FC2`, from a Middlebury .flo file (vision.middlebury.edu/flow).
cv::Mat readFlo(const std::string& path);

/// Two frames and the true flow from the first to the second.
struct FlowPair {
  std::string name;
  cv::Mat img0, img1;
  cv::Mat truth;     // CV_32FC2
  cv::Mat known;     // 255 where the truth is known, else 0
  cv::Mat occluded;  // 255 where the second frame does not show the pixel; empty: not told
};

/// The pairs below a folder, sorted by name. One folder each: img0.pgm, img1.pgm, flow.flo and,
/// where there are such pixels, invalid.pgm (not 0: truth unknown) and occlusion.pgm (not 0:
/// occluded).
std::vector<FlowPair> readPairs(const std::string& folder);

}  // namespace lum_bench

#endif  // MOTRACE_BENCH_FLOW_IO_H_
