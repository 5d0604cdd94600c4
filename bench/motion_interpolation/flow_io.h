#pragma once

/// Reads the small formats of the flow benchmarks.

#include <opencv2/core.hpp>
#include <string>

namespace lum_bench {

/// An 8-bit grey image from a binary PGM file (netpbm.sourceforge.net/doc/pgm.html). Throws
/// `std::runtime_error` with the path for a file that is missing or of another kind.
cv::Mat readPgm(const std::string& path);

/// A flow field, `CV_32FC2`, from a Middlebury .flo file (vision.middlebury.edu/flow). Throws
/// `std::runtime_error` as `readPgm` does.
cv::Mat readFlo(const std::string& path);

}  // namespace lum_bench
