#ifndef MOTION_INTERPOLATION_VARIATIONAL_REFINEMENT_H_
#define MOTION_INTERPOLATION_VARIATIONAL_REFINEMENT_H_

#include <atomic>
#include <opencv2/core.hpp>
#include <vector>

namespace cv::optflow::lum {

namespace kernels {
struct Band;
struct RefineArgs;
}  // namespace kernels

/// Refines a dense flow by minimising a robust variational energy.
///
/// Energy: the sum over all pixels of delta Psi(E_I) + gamma Psi(E_G) + alpha E_S. E_I and E_G are
/// the squared errors of colour and of gradient constancy, each in units of its own gradients and
/// error, r^2 / (|grad|^2 + r^2 + 2^2): about pixels where the images are linear, and without
/// weight where the error is no matter of a small motion, as in occluded places.
/// E_S = sqrt(|grad u|^2 + |grad v|^2 + 0.001^2), weighted by the steps of grey in the first image:
/// 0.05 across a strong edge, 1 on average. Psi(s^2) = sqrt(s^2 + 0.3^2).
/// Each iteration warps the second image anew, with cubic interpolation, takes the robust weights
/// from the flow so far, and solves the linear system by red-black successive over-relaxation. It
/// also pulls the flow towards what it starts from, by default twice as strongly as the iteration
/// before: so many iterations stay near the minimum that belongs to the incoming flow.
///
/// Algorithm: Brox, Bruhn, Papenberg, Weickert, "High Accuracy Optical Flow Estimation Based on a
/// Theory for Warping", ECCV 2004; data terms normalised after Zimmer, Bruhn, Weickert, "Optic Flow
/// in Harmony", IJCV 2011; smoothness weighted by image edges after Nagel, Enkelmann, "An
/// Investigation of Smoothness Constraints", PAMI 1986, in the isotropic form.
/// Precision: single. Weights a million times apart leave only rounding of the weaker term.
/// Threads: not thread-safe, one thread at a time per object; `refine` runs in `parallel_for_` and
/// gives bit for bit the same result for any number of threads.
/// Ownership: owns its working buffers and keeps them between calls of one size.
/// Errors: accessors never fail; `refine` raises `cv::Exception`.
class VariationalRefinement {
 public:
  static Ptr<VariationalRefinement> create();

  /// Weight of the smoothness term: finite, at least 0. Only the ratios of the three weights count.
  float getAlpha() const { return alpha_; }
  void setAlpha(float value) { alpha_ = value; }

  /// Weight of the colour constancy term: finite, at least 0.
  float getDelta() const { return delta_; }
  void setDelta(float value) { delta_ = value; }

  /// Weight of the gradient constancy term: finite, at least 0.
  float getGamma() const { return gamma_; }
  void setGamma(float value) { gamma_ = value; }

  /// Iterations, each with a new warp and new robust weights: at least 0; 0 leaves the flow as it
  /// is.
  int getIterations() const { return iterations_; }
  void setIterations(int value) { iterations_ = value; }

  /// Warps at least, in all iterations together: where these are fewer, some take several. At least
  /// 0.
  int getLeastWarps() const { return least_warps_; }
  void setLeastWarps(int value) { least_warps_ = value; }

  /// By what the pull grows from warp to warp: finite, at least 1. Where it is so strong that
  /// nothing moves any more, further warps are left out: from the 21st on with 2, the 6th with 16.
  float getPullGrowth() const { return pull_growth_; }
  void setPullGrowth(float value) { pull_growth_ = value; }

  /// Sweeps of the solver over both colours per warp: 1 to 1000.
  int getSolverSweeps() const { return sweeps_; }
  void setSolverSweeps(int value) { sweeps_ = value; }

  /// Relaxation factor of the solver: above 0, below 2; 1 is Gauss-Seidel.
  float getRelaxation() const { return omega_; }
  void setRelaxation(float value) { omega_ = value; }

  /// Refines a flow in place.
  ///
  /// @param i0, i1  images, `CV_8UC1`, of one size, at most 16384 x 16384.
  /// @param u, v    in and out: the flow from `i0` to `i1`, in pixels, `CV_32FC1`, of that size;
  ///                must not share memory. What is not a number, or beyond 1e9 px, counts as 0.
  /// Raises `cv::Exception` for other types and sizes and for a parameter out of its range; the
  /// flow is then unchanged.
  void refine(const Mat& i0, const Mat& i1, Mat& u, Mat& v);

  /// Releases the working buffers; a later `refine` allocates them anew.
  void collectGarbage();

 private:
  void checkParameters() const;
  int warpCount() const;
  void allocate(Size size, int bands);
  kernels::RefineArgs refineArgs(const Mat& i0, Mat& u, Mat& v);
  kernels::Band bandAt(int index, int bands);
  void planSolver(int width);

  float alpha_ = 20.0F;
  float delta_ = 5.0F;
  float gamma_ = 10.0F;
  int iterations_ = 5;
  int least_warps_ = 0;
  float pull_growth_ = 2.0F;
  int sweeps_ = 4;
  float omega_ = 1.8F;

  std::vector<std::atomic<int>> begun_;  // per band: phases
  std::vector<std::atomic<int>> done_;

  Size size_;
  int solver_rows_ = 0;  // of the ring
  int block_steps_ = 0;
  int group_sweeps_ = 0;
  Mat second_;      // the second image, padded
  Mat flow_[2];     // before and after an iteration, rows split into red and black pixels
  Mat natural_;     // per band: a ring of rows of warped images and derivatives
  Mat solver_;      // per band: a ring of rows of robust weights and systems
  Mat row_;         // per band: data terms of a row
  Mat edge_sums_;   // per row
  Mat edge_masks_;  // which places of a row are pixels, and have a left and a right neighbour
};

}  // namespace cv::optflow::lum

#endif  // MOTION_INTERPOLATION_VARIATIONAL_REFINEMENT_H_
