#ifndef MOTION_INTERPOLATION_DIS_FLOW_H_
#define MOTION_INTERPOLATION_DIS_FLOW_H_

#include <opencv2/core.hpp>
#include <vector>

#include "dense_optical_flow.h"
#include "variational_refinement.h"

namespace cv::optflow::lum {

namespace kernels {
struct SearchArgs;
}

/// Dense optical flow by inverse search: a coarse-to-fine pyramid in which a grid of square patches
/// is matched by inverse-compositional gradient descent, the patches' displacements are blended
/// into a flow per pixel, and that flow is refined variationally.
///
/// Algorithm: Kroeger, Timofte, Dai, Van Gool, "Fast Optical Flow using Dense Inverse Search",
/// ECCV 2016.
/// Threads: not thread-safe, one thread at a time per object. `calc` itself runs in OpenCV's
/// `parallel_for_`; its result is bit for bit the same for any number of threads.
/// Ownership: the object owns its working buffers and keeps them between calls, so that calls on
/// images of one size allocate them once.
/// Errors: accessors never fail; `calc` raises `cv::Exception`.
class DISOpticalFlow : public DenseOpticalFlow {
 public:
  /// Finest pyramid level that is processed; 0 is the full resolution, level i has the image's size
  /// divided by 2^i. Where that level holds no patch, the finest one below it that does is used. At
  /// least 0.
  virtual int getFinestScale() const = 0;
  virtual void setFinestScale(int value) = 0;

  /// Side of the square patches, in pixels: 1 to 16.
  virtual int getPatchSize() const = 0;
  virtual void setPatchSize(int value) = 0;

  /// Distance of neighbouring patches, in pixels: at least 1.
  virtual int getPatchStride() const = 0;
  virtual void setPatchStride(int value) = 0;

  /// Gradient descent steps per patch and scale, shared among the passes: at least 0.
  virtual int getGradientDescentIterations() const = 0;
  virtual void setGradientDescentIterations(int value) = 0;

  /// Iterations of the variational refinement per scale: at least 0; 0 switches it off.
  /// On scales above the finest one, which only start the search, they share five warps: fewer take
  /// several each, and the pull of the fifth lets nothing move any more.
  virtual int getVariationalRefinementIterations() const = 0;
  virtual void setVariationalRefinementIterations(int value) = 0;

  /// Weight of the smoothness term: at least 0. Only the ratios of the three weights count.
  virtual float getVariationalRefinementAlpha() const = 0;
  virtual void setVariationalRefinementAlpha(float value) = 0;

  /// Weight of the colour constancy term: at least 0.
  virtual float getVariationalRefinementDelta() const = 0;
  virtual void setVariationalRefinementDelta(float value) = 0;

  /// Weight of the gradient constancy term: at least 0.
  virtual float getVariationalRefinementGamma() const = 0;
  virtual void setVariationalRefinementGamma(float value) = 0;

  /// Whether patch errors leave out the difference of the patches' mean intensities.
  virtual bool getUseMeanNormalization() const = 0;
  virtual void setUseMeanNormalization(bool value) = 0;

  /// Whether patches try the flow of their neighbours.
  virtual bool getUseSpatialPropagation() const = 0;
  virtual void setUseSpatialPropagation(bool value) = 0;

  /// Whether a flow of the right size and type that `calc` is given serves as an initial flow; on
  /// by default. Switched off, it is only memory to be written: calls on frame after frame can
  /// reuse one matrix and need not touch fresh pages.
  bool getUseInitialFlow() const { return use_initial_flow_; }
  void setUseInitialFlow(bool value) { use_initial_flow_ = value; }

  /// A new engine with the default parameters.
  static Ptr<DISOpticalFlow> create();

 private:
  bool use_initial_flow_ = true;
};

/// The engine behind `DISOpticalFlow::create()`.
class DISOpticalFlowImpl : public DISOpticalFlow {
 public:
  DISOpticalFlowImpl();

  /// Computes the displacement (x, y), in pixels, that takes each pixel of `I0` to `I1`.
  ///
  /// @param I0, I1  continuous 8-bit single-channel images of one size, 1 x 1 to 16384 x 16384.
  /// @param flow    out: `CV_32FC2` of that size. A flow of that size and type on entry serves as
  ///                an initial flow, in which what is not a number is passed over; anything else
  ///                is replaced. Images too small for a single patch give the initial flow back,
  ///                else zero.
  /// Raises `cv::Exception`: `StsAssert` for images that are not as said, `StsBadSize` for larger
  /// ones, `StsOutOfRange`, naming the parameter, for a parameter out of its range. `flow` is then
  /// unchanged.
  void calc(InputArray I0, InputArray I1, InputOutputArray flow) override;

  /// Releases the working buffers; a later `calc` allocates them anew.
  void collectGarbage() override;

  int getFinestScale() const override { return finest_scale; }
  void setFinestScale(int value) override { finest_scale = value; }
  int getPatchSize() const override { return patch_size; }
  void setPatchSize(int value) override { patch_size = value; }
  int getPatchStride() const override { return patch_stride; }
  void setPatchStride(int value) override { patch_stride = value; }
  int getGradientDescentIterations() const override { return grad_descent_iter; }
  void setGradientDescentIterations(int value) override { grad_descent_iter = value; }
  int getVariationalRefinementIterations() const override { return variational_refinement_iter; }
  void setVariationalRefinementIterations(int value) override {
    variational_refinement_iter = value;
  }
  float getVariationalRefinementAlpha() const override { return variational_refinement_alpha; }
  void setVariationalRefinementAlpha(float value) override { variational_refinement_alpha = value; }
  float getVariationalRefinementDelta() const override { return variational_refinement_delta; }
  void setVariationalRefinementDelta(float value) override { variational_refinement_delta = value; }
  float getVariationalRefinementGamma() const override { return variational_refinement_gamma; }
  void setVariationalRefinementGamma(float value) override { variational_refinement_gamma = value; }
  bool getUseMeanNormalization() const override { return use_mean_normalization; }
  void setUseMeanNormalization(bool value) override { use_mean_normalization = value; }
  bool getUseSpatialPropagation() const override { return use_spatial_propagation; }
  void setUseSpatialPropagation(bool value) override { use_spatial_propagation = value; }

 private:
  void checkParameters() const;
  int chooseScales(Size full);
  void preparePyramids(const Mat& i0, const Mat& i1, const Mat& initial_flow, int finest,
                       int coarsest);
  void prepareLevel(int image, int level, int finest, bool has_initial);
  void prepareBuffers(Size full, int finest, int coarsest);
  void setScale(int scale);
  kernels::SearchArgs searchArgs(int scale, bool use_initial_flow);
  int searchStripes() const;
  void searchPatches(const kernels::SearchArgs& args);
  void densify(const kernels::SearchArgs& args);
  /// Fills `outs` with the scale's flow times `factor`, interpolated bilinearly: two planes of one
  /// component each, or one of both.
  void resizeFlow(int scale, float factor, const std::vector<Mat>& outs);
  void findColumns(int from, int to);
  void writeFlow(int finest, Size size, InputOutputArray flow);

  int finest_scale = 2;
  int coarsest_scale = 0;
  int patch_size = 8;
  int patch_stride = 4;
  int grad_descent_iter = 16;
  int variational_refinement_iter = 5;
  float variational_refinement_alpha = 20.0F;
  float variational_refinement_gamma = 10.0F;
  float variational_refinement_delta = 5.0F;
  bool use_mean_normalization = true;
  bool use_spatial_propagation = true;
  int border_size = 16;
  int w = 0, h = 0;    // size of the current scale, pixels
  int ws = 0, hs = 0;  // patch grid of the current scale, patches

  // One entry per scale.
  std::vector<Mat> I0s, I1s, I1s_ext;
  std::vector<Mat> I0xs, I0ys;  // CV_16S
  std::vector<Mat> Ux, Uy;
  std::vector<Mat> initial_Ux, initial_Uy;

  // One element per patch of the current scale, rows of the grid one after another; sized for the
  // finest scale.
  Mat Sx, Sy;
  Mat I0xx_buf, I0yy_buf, I0xy_buf, I0x_buf, I0y_buf;
  Mat weight_sums;                                    // per pixel of the current scale
  Mat column_sums;                                    // scratch of the structure tensor
  Mat resize_columns, resize_fractions, resize_rows;  // scratch of resizeFlow

  std::vector<Ptr<VariationalRefinement>> variational_refinement;
};

}  // namespace cv::optflow::lum

#endif  // MOTION_INTERPOLATION_DIS_FLOW_H_
