// From a sensor's raw image to colour planes: black level, bad pixels, border, any Bayer pattern.
#include <cstdio>
#include <opencv2/core.hpp>

#include "raw_bayer/raw_bayer.h"

int main() {
  // A grey wall in warm light, 64 counts of black level, as a sensor with the pattern GRBG sees it.
  cv::Mat raw(480, 640, CV_16UC1);
  for (int y = 0; y < raw.rows; ++y) {
    for (int x = 0; x < raw.cols; ++x) {
      const int light = y % 2 == x % 2 ? 600 : y % 2 == 0 ? 900 : 450;  // green, red, blue
      raw.at<std::uint16_t>(y, x) = static_cast<std::uint16_t>(64 + light);
    }
  }
  for (const int at : {100, 101, 203}) raw.at<std::uint16_t>(at, at + 1) = 4000;
  raw.at<std::uint16_t>(300, 300) = 64;  // a dead pixel: too dark, which is not repaired

  // First of all the black level: rates and means are those of light.
  cv::subtract(raw, 64, raw);

  // The mosaic starts with red at the top left. Of GRBG that is the view from column 1 on, of GBRG
  // the one from row 1 on, of BGGR the one from both; the last column or row goes, so that whole
  // cells are left.
  cv::Mat mosaic = raw.colRange(1, raw.cols - 1);

  // In place, so that `raw` changes. The rate is above the ratio of neighbouring colours, here
  // 900 / 450, or else every red sample would outshine its neighbours.
  const cv::Mat before = mosaic.clone();
  lum::raw::FixBadPixels(mosaic, 2.5F);
  const int repaired = cv::countNonZero(mosaic != before);

  // A border that keeps the colours where they are: mirrored at the edge's samples.
  cv::Mat bordered;
  cv::copyMakeBorder(mosaic, bordered, 2, 2, 2, 2, cv::BORDER_REFLECT_101 | cv::BORDER_ISOLATED);

  // Keep the planes for the next image: new memory costs several times the work.
  cv::Mat g, r, b, merged;
  lum::raw::SplitRaw(bordered, g, r, b, /*border_size=*/2);
  lum::raw::MergeRaw(g, r, b, merged, /*index=*/0);

  std::printf("%d repaired, green %.0f, red %.0f, blue %.0f, merged as before: %s\n", repaired,
              cv::mean(g)[0], cv::mean(r)[0], cv::mean(b)[0],
              cv::countNonZero(merged != mosaic) == 0 ? "yes" : "no");
}
