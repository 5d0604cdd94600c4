#ifndef MOTION_INTERPOLATION_DENSE_OPTICAL_FLOW_H_
#define MOTION_INTERPOLATION_DENSE_OPTICAL_FLOW_H_

/// `cv::DenseOpticalFlow`, from OpenCV's tracking header where that is installed. That header
/// belongs to OpenCV's video package; where only core and imgproc are present, the same interface
/// is declared here, so that callers see one type either way.

#include <opencv2/core.hpp>

#if defined(__has_include)
#if __has_include(<opencv2/video/tracking.hpp>)
#define LUM_HAS_OPENCV_TRACKING_HEADER 1
#endif
#endif

#ifdef LUM_HAS_OPENCV_TRACKING_HEADER
#include <opencv2/video/tracking.hpp>
#else

namespace cv {

/// Base of dense optical flow engines. Not thread-safe: one thread at a time.
class DenseOpticalFlow : public Algorithm {
 public:
  /// Computes the flow from `I0` to `I1`, two single-channel images of one size, into `flow`
  /// (`CV_32FC2`, pixels).
  virtual void calc(InputArray I0, InputArray I1, InputOutputArray flow) = 0;

  /// Releases the working buffers.
  virtual void collectGarbage() = 0;
};

}  // namespace cv

#endif

#endif  // MOTION_INTERPOLATION_DENSE_OPTICAL_FLOW_H_
