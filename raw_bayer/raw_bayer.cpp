#include "raw_bayer/raw_bayer.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <new>
#include <opencv2/core.hpp>
#include <sstream>

#include "raw_bayer/backends.h"

namespace lum::raw {
namespace {

/// Collects the words of a message and throws it.
template <typename... Words>
[[noreturn]] void Reject(int code, const char* function, const Words&... words) {
  std::ostringstream message;
  (message << ... << words);
  throw cv::Exception(code, message.str(), function, __FILE__, __LINE__);
}

void CheckInput(const char* function, const char* argument, const cv::Mat& image) {
  if (image.dims > 2) {
    Reject(cv::Error::StsBadSize, function, argument, ": expected two dimensions, got ",
           image.dims);
  }
  if (image.empty()) {
    Reject(cv::Error::StsBadSize, function, argument, ": expected an image, got an empty one");
  }
  if (image.type() != CV_16UC1) {
    Reject(cv::Error::StsUnsupportedFormat, function, argument, ": expected type CV_16UC1, got ",
           cv::typeToString(image.type()));
  }
}

void CheckRate(const char* function, float bad_pixel_rate) {
  if (!std::isfinite(bad_pixel_rate) || bad_pixel_rate <= 0.0F) {
    Reject(cv::Error::StsOutOfRange, function,
           "bad_pixel_rate: expected a finite number greater than 0, got ", bad_pixel_rate);
  }
}

std::string SizeText(int width, int height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

/// Whether the two share a sample. Views side by side in one larger image do not.
bool Overlap(const cv::Mat& a, const cv::Mat& b) {
  if (a.empty() || b.empty()) {
    return false;
  }
  const auto bytes = [](const cv::Mat& image) {
    return static_cast<std::size_t>(image.rows - 1) * image.step +
           static_cast<std::size_t>(image.cols) * image.elemSize();
  };
  const auto a_start = reinterpret_cast<std::uintptr_t>(a.data);
  const auto b_start = reinterpret_cast<std::uintptr_t>(b.data);
  if (a_start >= b_start + bytes(b) || b_start >= a_start + bytes(a)) {
    return false;
  }
  if (a.step != b.step) {
    return true;  // Taken as overlap; costs a copy where it is not.
  }
  // Same rows of one image: compare columns, also across the end of a row.
  const std::size_t step = a.step;
  const std::size_t shift =
      b_start >= a_start ? (b_start - a_start) % step : (step - (a_start - b_start) % step) % step;
  return shift < static_cast<std::size_t>(a.cols) * a.elemSize() ||
         shift + static_cast<std::size_t>(b.cols) * b.elemSize() > step;
}

/// An output of a call: what the backend writes to and how it reaches the caller's `cv::Mat`. That
/// one is touched by `Commit` alone, so that it stays as it was if a backend fails on the way. The
/// processor, which cannot fail, writes memory that the caller's image already has directly unless
/// it holds an input.
class Output {
 public:
  Output(cv::Mat& target, int rows, int cols, Backend backend,
         std::initializer_list<const cv::Mat*> inputs)
      : target_(target) {
    if (target.dims == 2 && target.type() == CV_16UC1 && target.rows == rows &&
        target.cols == cols) {
      reuse_ = true;
      copy_back_ = backend != Backend::kProcessor;
      for (const cv::Mat* input : inputs) {
        copy_back_ = copy_back_ || Overlap(target, *input);
      }
    }
    if (reuse_ && !copy_back_) {
      written_ = target;
    } else {
      written_.create(rows, cols, CV_16UC1);
    }
  }

  cv::Mat& image() { return written_; }
  const cv::Mat& target() const { return target_; }
  bool reuses_memory() const { return reuse_; }

  void Commit() {
    if (copy_back_) {
      written_.copyTo(target_);
    } else {
      target_ = written_;
    }
  }

 private:
  cv::Mat& target_;
  cv::Mat written_;
  bool reuse_ = false;
  bool copy_back_ = false;
};

void CheckApart(const char* function, const char* a_name, const Output& a, const char* b_name,
                const Output& b) {
  if (&a.target() == &b.target() ||
      (a.reuses_memory() && b.reuses_memory() && Overlap(a.target(), b.target()))) {
    Reject(cv::Error::StsBadArg, function, a_name, ", ", b_name,
           ": expected images of their own, got shared memory");
  }
}

/// Calls the one of three functions that belongs to `backend`.
template <typename Function, typename... Arguments>
void Dispatch(const char* function, Backend backend, Function processor, Function opencl,
              Function cuda, Arguments&&... arguments) {
  try {
    switch (backend) {
      case Backend::kProcessor:
        return processor(arguments...);
      case Backend::kOpenCl:
        return opencl(arguments...);
      case Backend::kCuda:
        return cuda(arguments...);
    }
  } catch (const std::bad_alloc&) {
    Reject(cv::Error::StsNoMem, function, "out of memory for rows of the image");
  }
  Reject(cv::Error::StsBadArg, function, "backend: expected kProcessor, kOpenCl or kCuda, got ",
         static_cast<int>(backend));
}

}  // namespace

const char* BackendName(Backend backend) {
  switch (backend) {
    case Backend::kProcessor:
      return "processor";
    case Backend::kOpenCl:
      return "OpenCL";
    case Backend::kCuda:
      return "CUDA";
  }
  return "unknown";
}

std::vector<Backend> AvailableBackends() {
  std::vector<Backend> backends = {Backend::kProcessor};
  if (opencl::Available()) {
    backends.push_back(Backend::kOpenCl);
  }
  if (cuda::Available()) {
    backends.push_back(Backend::kCuda);
  }
  return backends;
}

void FixBadPixels(cv::Mat& image, float bad_pixel_rate, Backend backend) {
  CheckInput("FixBadPixels", "image", image);
  CheckRate("FixBadPixels", bad_pixel_rate);
  Dispatch("FixBadPixels", backend, processor::FixBadPixels, opencl::FixBadPixels,
           cuda::FixBadPixels, image, bad_pixel_rate);
}

void FixBadPixels2(cv::Mat& image, float bad_pixel_rate, Backend backend) {
  CheckInput("FixBadPixels2", "image", image);
  CheckRate("FixBadPixels2", bad_pixel_rate);
  Dispatch("FixBadPixels2", backend, processor::FixBadPixels2, opencl::FixBadPixels2,
           cuda::FixBadPixels2, image, bad_pixel_rate);
}

void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size,
              Backend backend) {
  constexpr char kName[] = "SplitRaw";
  CheckInput(kName, "raw_border", raw_border);
  if (border_size < 1) {
    Reject(cv::Error::StsOutOfRange, kName, "border_size: expected at least 1, got ", border_size);
  }
  // Halves, because twice a large border does not fit an int.
  if (border_size > (raw_border.cols - 2) / 2 || border_size > (raw_border.rows - 2) / 2) {
    Reject(cv::Error::StsOutOfRange, kName,
           "border_size: expected one that leaves a 2 x 2 cell of raw_border (",
           SizeText(raw_border.cols, raw_border.rows), "), got ", border_size);
  }
  const int width = raw_border.cols - 2 * border_size;
  const int height = raw_border.rows - 2 * border_size;
  if (width % 2 != 0 || height % 2 != 0) {
    Reject(cv::Error::StsBadSize, kName, "raw_border: expected even sides inside the border, got ",
           SizeText(width, height));
  }
  const cv::Mat input = raw_border;  // Keeps the samples alive if an output is the same cv::Mat.
  Output green(g, height, width, backend, {&input});
  Output red(r, height / 2, width / 2, backend, {&input});
  Output blue(b, height / 2, width / 2, backend, {&input});
  CheckApart(kName, "g", green, "r", red);
  CheckApart(kName, "g", green, "b", blue);
  CheckApart(kName, "r", red, "b", blue);
  Dispatch(kName, backend, processor::SplitRaw, opencl::SplitRaw, cuda::SplitRaw, input,
           green.image(), red.image(), blue.image(), border_size);
  green.Commit();
  red.Commit();
  blue.Commit();
}

void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw, int index,
              Backend backend) {
  constexpr char kName[] = "MergeRaw";
  CheckInput(kName, "g", g);
  CheckInput(kName, "r", r);
  CheckInput(kName, "b", b);
  if (r.size() != b.size()) {
    Reject(cv::Error::StsUnmatchedSizes, kName, "b: expected the size of r (",
           SizeText(r.cols, r.rows), "), got ", SizeText(b.cols, b.rows));
  }
  if (g.cols % 2 != 0 || g.cols / 2 != r.cols || g.rows % 2 != 0 || (g.rows / 2) % r.rows != 0) {
    Reject(cv::Error::StsUnmatchedSizes, kName, "g: expected images of twice the size of r (",
           SizeText(r.cols, r.rows), ") one below the other, got ", SizeText(g.cols, g.rows));
  }
  const int images = g.rows / 2 / r.rows;
  if (index < 0 || index >= images) {
    Reject(cv::Error::StsOutOfRange, kName, "index: expected 0 to ", images - 1,
           ", as g holds that many images, got ", index);
  }
  const int height = 2 * r.rows;
  const cv::Range rows(index * height, (index + 1) * height);

  const cv::Mat green = g.rowRange(rows);
  // A raw that stays is written through a view of the one mosaic, so that its others are kept.
  const bool stays =
      raw.dims == 2 && raw.type() == CV_16UC1 && raw.cols == g.cols && raw.rows >= rows.end;
  if (index > 0 && !stays && !raw.empty()) {
    Reject(cv::Error::StsUnmatchedSizes, kName, "raw: expected an empty image or one that holds ",
           "the mosaics before ", index, ", CV_16UC1 and at least ", SizeText(g.cols, rows.end),
           ", got ", cv::typeToString(raw.type()), " and ", SizeText(raw.cols, raw.rows));
  }
  cv::Mat batch = stays ? raw : cv::Mat(cv::Mat::zeros(g.size(), CV_16UC1));
  cv::Mat mosaic = batch.rowRange(rows);
  Output output(mosaic, height, g.cols, backend, {&green, &r, &b});
  Dispatch(kName, backend, processor::MergeRaw, opencl::MergeRaw, cuda::MergeRaw, green, r, b,
           output.image());
  output.Commit();
  raw = batch;
}

}  // namespace lum::raw
