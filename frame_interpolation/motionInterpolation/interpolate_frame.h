#ifndef MOTION_INTERPOLATION_INTERPOLATE_FRAME_H_
#define MOTION_INTERPOLATION_INTERPOLATE_FRAME_H_

#include <opencv2/core.hpp>

namespace lum {

/// The flows between two frames as `InterpolateFrame` wants them: those of
/// `cv::optflow::lum::DISOpticalFlow` at full resolution, of the frames in grey.
///
/// @param first, second      frames as of `InterpolateFrame`.
/// @param forward, backward  out: `CV_32FC2`, pixels, from the first frame to the second and from
///                           the second to the first.
/// Raises `cv::Exception` for frames that are not as said.
void FlowsBetween(cv::InputArray first, cv::InputArray second, cv::OutputArray forward,
                  cv::OutputArray backward);

/// The frame between two at a time between theirs, out of both: each pixel's place in either frame
/// is sought along that frame's flow, the two are sampled there with cubic interpolation and
/// blended by time. Where they disagree, as in occluded places and where the flow is wrong, more
/// than the frames do without motion, the plain average of the frames takes their place.
///
/// @param first, second      8-bit frames of 1 or 3 channels (blue, green, red), of one size and
///                           type, at most 16384 pixels on a side.
/// @param time               0 (the first frame) to 1 (the second).
/// @param frame              out: of the frames' size and type.
/// @param forward, backward  flows as of `FlowsBetween`, which is called for them if they are not
///                           given. For several times give them: nearly all time goes into them.
/// Threads: may be called at any time; works in OpenCV's `parallel_for_`.
/// Raises `cv::Exception` for arguments that are not as said; `frame` is then unchanged.
void InterpolateFrame(cv::InputArray first, cv::InputArray second, double time,
                      cv::OutputArray frame, cv::InputArray forward = cv::noArray(),
                      cv::InputArray backward = cv::noArray());

}  // namespace lum

#endif  // MOTION_INTERPOLATION_INTERPOLATE_FRAME_H_
