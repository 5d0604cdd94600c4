#ifndef TESTS_RAW_BAYER_REFERENCE_H_
#define TESTS_RAW_BAYER_REFERENCE_H_

#include <algorithm>
#include <cstdint>
#include <opencv2/core/mat.hpp>

// The rules of the kernels as plain loops, written from their description and sharing nothing with
// the library. Tests and benchmarks compare with them.
namespace lum::raw::reference {

inline int At(const cv::Mat& image, int x, int y) { return image.at<std::uint16_t>(y, x); }
inline void Put(cv::Mat& image, int x, int y, int value) {
  image.at<std::uint16_t>(y, x) = static_cast<std::uint16_t>(value);
}

/// From `source` to `fixed`, which starts as a copy of it.
inline void FixBadPixels(const cv::Mat& source, cv::Mat& fixed, float rate) {
  for (int y = 2; y < source.rows - 2; ++y) {
    for (int x = 2; x < source.cols - 2; ++x) {
      const auto at = [&](int dx, int dy) { return At(source, x + dx, y + dy); };
      const float value = static_cast<float>(at(0, 0)) / rate;
      const auto above = [&](int dx, int dy) { return value > static_cast<float>(at(dx, dy)); };
      if (above(0, -1) && above(-1, 0) && above(1, 0) && above(0, 1)) {
        const int sum = x % 2 == y % 2 ? at(0, -2) + at(-2, 0) + at(2, 0) + at(0, 2)
                                       : at(-1, -1) + at(1, -1) + at(-1, 1) + at(1, 1);
        Put(fixed, x, y, sum / 4);
      }
    }
  }
}

inline void FixBadPixels2(const cv::Mat& source, cv::Mat& fixed, float rate) {
  for (int y = 0; y < source.rows; ++y) {
    for (int x = 0; x < source.cols; ++x) {
      const float value = static_cast<float>(At(source, x, y)) / rate;
      int sum = 0;
      bool bad = true;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          if (dx != 0 || dy != 0) {
            const int neighbour = At(source, std::clamp(x + dx, 0, source.cols - 1),
                                     std::clamp(y + dy, 0, source.rows - 1));
            sum += neighbour;
            bad = bad && value > static_cast<float>(neighbour);
          }
        }
      }
      if (bad) {
        Put(fixed, x, y, sum / 8);
      }
    }
  }
}

/// The outputs have their sizes already.
inline void SplitRaw(const cv::Mat& raw, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border) {
  for (int y = 0; y < g.rows; ++y) {
    for (int x = 0; x < g.cols; ++x) {
      const auto at = [&](int dx, int dy) { return At(raw, x + border + dx, y + border + dy); };
      if (x % 2 != y % 2) {
        Put(g, x, y, at(0, 0));
        continue;
      }
      Put(g, x, y, (at(0, -1) + at(1, 0) + at(0, 1) + at(-1, 0)) / 4);
      Put(x % 2 == 0 ? r : b, x / 2, y / 2, at(0, 0));
    }
  }
}

inline void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw,
                     int index) {
  const int height = 2 * r.rows;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < g.cols; ++x) {
      const int row = y + index * height;
      const int value = x % 2 != y % 2 ? At(g, x, row) : At(x % 2 == 0 ? r : b, x / 2, y / 2);
      Put(raw, x, row, value);
    }
  }
}

}  // namespace lum::raw::reference

#endif  // TESTS_RAW_BAYER_REFERENCE_H_
