#include "interpolate_frame.h"

#include <opencv2/imgproc.hpp>

#include "dis_flow.h"
#include "simd/parallel_for.h"

namespace lum {
namespace {

constexpr int kLargestSide = 16384;
/// Fixed point steps along a flow. Where none settles, beside edges of the motion, they go to and
/// fro between the two motions: an odd number of steps ends on the side of the covering one.
constexpr int kSteps = 3;
/// Side of the square over which frames are compared, pixels.
constexpr int kTrustSide = 9;
constexpr int kRowsPerTask = 64;

void CheckFrames(const cv::Mat& first, const cv::Mat& second) {
  if (first.empty() || (first.type() != CV_8UC1 && first.type() != CV_8UC3) || first.dims > 2) {
    CV_Error(cv::Error::StsBadArg, "the first frame must be an 8-bit image of 1 or 3 channels");
  }
  if (second.type() != first.type() || second.dims > 2 || second.size() != first.size()) {
    CV_Error(cv::Error::StsBadArg, "both frames must be of one size and type");
  }
  if (std::max(first.cols, first.rows) > kLargestSide) {
    CV_Error(cv::Error::StsBadSize, "frames must have at most 16384 pixels on a side");
  }
}

/// Where the pixels of a frame that lies `part` of the way along `flow` come from in the frame that
/// the flow starts from.
cv::Mat Sources(const cv::Mat& flow, double part) {
  cv::Mat grid(flow.size(), CV_32FC2);
  for (int y = 0; y < grid.rows; ++y) {
    for (int x = 0; x < grid.cols; ++x) {
      grid.at<cv::Vec2f>(y, x) = cv::Vec2f(static_cast<float>(x), static_cast<float>(y));
    }
  }
  cv::Mat sources = grid.clone();
  cv::Mat moved;
  for (int i = 0; i < kSteps; ++i) {
    cv::remap(flow, moved, sources, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    cv::scaleAdd(moved, -part, grid, sources);
  }
  return sources;
}

cv::Mat Warped(const cv::Mat& frame, const cv::Mat& flow, double part) {
  cv::Mat warped;
  cv::remap(frame, warped, Sources(flow, part), cv::noArray(), cv::INTER_CUBIC,
            cv::BORDER_REPLICATE);
  return warped;
}

/// How far two frames are apart around each pixel: `CV_32FC1`.
cv::Mat Distance(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat distance;
  cv::absdiff(a, b, distance);
  if (distance.channels() == 3) cv::transform(distance, distance, cv::Matx13f(1, 1, 1));
  cv::blur(distance, distance, cv::Size(kTrustSide, kTrustSide));
  return distance;
}

struct Pair {
  cv::Mat first, second;
};

/// `warped` blended by time, or `frames` where the warped ones are less alike.
void Blend(const Pair& frames, const Pair& warped, float time, cv::Mat& out) {
  const cv::Mat moving = Distance(frames.first, frames.second);
  const cv::Mat left = Distance(warped.first, warped.second);
  const int channels = out.channels();
  const int tasks = (out.rows + kRowsPerTask - 1) / kRowsPerTask;
  simd::ParallelFor(tasks, [&](int task) {
    for (int y = task * kRowsPerTask; y < std::min((task + 1) * kRowsPerTask, out.rows); ++y) {
      const float* const plain[2] = {frames.first.ptr<float>(y), frames.second.ptr<float>(y)};
      const float* const moved[2] = {warped.first.ptr<float>(y), warped.second.ptr<float>(y)};
      const float* const own = left.ptr<float>(y);
      const float* const other = moving.ptr<float>(y);
      uchar* const target = out.ptr(y);
      for (int x = 0; x < out.cols; ++x) {
        constexpr float kSame = 1e-3F;  // frames that are alike in any case
        const float square = other[x] * other[x] + kSame;
        const float trust = square / (square + own[x] * own[x]);
        for (int i = x * channels; i < (x + 1) * channels; ++i) {
          const float average = plain[0][i] + time * (plain[1][i] - plain[0][i]);
          const float blended = moved[0][i] + time * (moved[1][i] - moved[0][i]);
          target[i] = cv::saturate_cast<uchar>(average + trust * (blended - average));
        }
      }
    }
  });
}

}  // namespace

void FlowsBetween(cv::InputArray first, cv::InputArray second, cv::OutputArray forward,
                  cv::OutputArray backward) {
  cv::Mat frames[2] = {first.getMat(), second.getMat()};
  CheckFrames(frames[0], frames[1]);
  for (cv::Mat& frame : frames) {
    if (frame.channels() == 3) {
      cv::Mat grey;
      cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
      frame = grey;
    } else if (!frame.isContinuous()) {
      frame = frame.clone();
    }
  }
  const auto engine = cv::optflow::lum::DISOpticalFlow::create();
  engine->setFinestScale(0);
  cv::Mat flows[2];
  engine->calc(frames[0], frames[1], flows[0]);
  engine->calc(frames[1], frames[0], flows[1]);
  forward.assign(flows[0]);
  backward.assign(flows[1]);
}

void InterpolateFrame(cv::InputArray first, cv::InputArray second, double time,
                      cv::OutputArray frame, cv::InputArray forward, cv::InputArray backward) {
  const Pair given{first.getMat(), second.getMat()};
  CheckFrames(given.first, given.second);
  if (!(time >= 0.0 && time <= 1.0)) {
    CV_Error(cv::Error::StsOutOfRange, "the time must be between 0 and 1");
  }
  Pair flows{forward.getMat(), backward.getMat()};
  if (flows.first.empty() && flows.second.empty()) {
    FlowsBetween(first, second, flows.first, flows.second);
  }
  for (const cv::Mat* flow : {&flows.first, &flows.second}) {
    if (flow->type() != CV_32FC2 || flow->dims > 2 || flow->size() != given.first.size()) {
      CV_Error(cv::Error::StsBadArg, "flows must be CV_32FC2, of the frames' size");
    }
  }
  // What is next to white or black may be sampled beyond it: rounded once, at the end.
  Pair frames;
  given.first.convertTo(frames.first, CV_32F);
  given.second.convertTo(frames.second, CV_32F);
  const Pair warped{Warped(frames.first, flows.first, time),
                    Warped(frames.second, flows.second, 1.0 - time)};
  frame.create(given.first.size(), given.first.type());
  cv::Mat out = frame.getMat();
  Blend(frames, warped, static_cast<float>(time), out);
}

}  // namespace lum
