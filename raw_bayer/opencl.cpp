#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/core/ocl.hpp>
#include <string>
#include <vector>

#include "raw_bayer/backends.h"
#include "raw_bayer/raw_bayer.h"

namespace lum::raw::opencl {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw cv::Exception(cv::Error::OpenCLApiCallError, "OpenCL backend: " + what, "lum::raw",
                      __FILE__, __LINE__);
}

std::string SizeText(const cv::Size& size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height);
}

/// The first device that the machine lists. OpenCV itself chooses processors (as PoCL's device)
/// only where a user asks for them by OPENCV_OPENCL_DEVICE.
cv::ocl::OpenCLExecutionContext FirstListed() {
  std::vector<cv::ocl::PlatformInfo> platforms;
  cv::ocl::getPlatfomsInfo(platforms);
  for (const cv::ocl::PlatformInfo& platform : platforms) {
    for (int i = 0; i < platform.deviceNumber(); ++i) {
      cv::ocl::Device device;
      platform.getDevice(device, i);
      if (!device.available() || !device.compilerAvailable()) {
        continue;
      }
      // By name, as OpenCV 4.6 rejects the contexts that its Context::fromDevice makes.
      const auto type = static_cast<unsigned>(device.type());
      const char* const type_name = (type & cv::ocl::Device::TYPE_GPU) != 0   ? "GPU"
                                    : (type & cv::ocl::Device::TYPE_CPU) != 0 ? "CPU"
                                                                              : "ACCELERATOR";
      const cv::ocl::Context context =
          cv::ocl::Context::create(platform.name() + ":" + type_name + ":");
      if (!context.empty()) {
        return cv::ocl::OpenCLExecutionContext::create(context, context.device(0));
      }
    }
  }
  return {};
}

/// What all calls share. One at a time: OpenCV's queue and kernels are shared state.
struct Shared {
  std::mutex mutex;
  cv::ocl::OpenCLExecutionContext first_listed;  // guarded by mutex; empty until it is needed

  static Shared& Get() {
    static Shared shared;
    return shared;
  }

  /// The device that OpenCV works with on this thread, or else the first that is listed.
  /// @param problem  why there is none.
  cv::ocl::OpenCLExecutionContext Find(std::string& problem) {
#ifdef __linux__
    // Drivers look the processor's or card's parts up there; PoCL ends the process without it.
    if (access("/sys/devices", R_OK) != 0) {
      problem = "not tried, as /sys is not mounted and drivers may end the process without it";
      return {};
    }
#endif
    problem = "no device";
    try {
      if (!cv::ocl::haveOpenCL()) {
        return {};
      }
      const auto& current = cv::ocl::OpenCLExecutionContext::getCurrentRef();
      if (!current.empty()) {
        return current;
      }
      if (first_listed.empty()) {
        first_listed = FirstListed();
      }
    } catch (const cv::Exception& error) {
      problem = "looking for a device failed: " + error.err;
    }
    return first_listed;
  }
};

/// Makes the device OpenCV's current one on this thread for the length of a call.
class Session {
 public:
  Session() : lock_(Shared::Get().mutex), scope_(context_) { cv::ocl::setUseOpenCL(true); }
  ~Session() { cv::ocl::setUseOpenCL(was_used_); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  static cv::UMat Upload(const cv::Mat& image) {
    cv::UMat copy = Allocate(image.size());
    image.copyTo(copy);
    return copy;
  }

  static cv::UMat Allocate(const cv::Size& size) {
    if (static_cast<std::int64_t>(size.width) * size.height > INT_MAX) {
      Fail("expected an image of at most " + std::to_string(INT_MAX) + " samples, got " +
           SizeText(size));
    }
    cv::UMat image(size, CV_16UC1, cv::USAGE_ALLOCATE_DEVICE_MEMORY);
    // OpenCV falls back to the host's memory in silence.
    if (image.u == nullptr || image.u->currAllocator != cv::ocl::getOpenCLAllocator()) {
      Fail("out of device memory for an image of " + SizeText(size));
    }
    // The kernels address rows stored back to back.
    if (!image.isContinuous()) {
      Fail("expected device memory without gaps between rows");
    }
    return image;
  }

  /// Runs one work item per column and row of `size` and waits for the end.
  template <typename... Arguments>
  void Run(const char* kernel_name, const cv::Size& size, const Arguments&... arguments) const {
    const cv::ocl::ProgramSource source("lum_raw", "raw_bayer", KernelSource(), "");
    cv::String log;
    const cv::ocl::Program program =
        cv::ocl::Context::getDefault(/*initialize=*/false).getProg(source, "", log);
    if (program.empty()) {
      Fail("building the kernels failed: " + log);
    }
    cv::ocl::Kernel kernel(kernel_name, program);
    if (kernel.empty()) {
      Fail(std::string("no kernel ") + kernel_name);
    }
    kernel.args(arguments...);
    std::size_t global[] = {static_cast<std::size_t>(size.width),
                            static_cast<std::size_t>(size.height)};
    if (!kernel.run(2, global, nullptr, /*sync=*/true)) {
      Fail(std::string("running ") + kernel_name + " failed");
    }
  }

 private:
  static cv::ocl::OpenCLExecutionContext Opened() {
    std::string problem;
    cv::ocl::OpenCLExecutionContext context = Shared::Get().Find(problem);
    if (context.empty()) {
      Fail(problem);
    }
    return context;
  }

  std::lock_guard<std::mutex> lock_;
  cv::ocl::OpenCLExecutionContext context_ = Opened();  // Before OpenCV looks for devices itself.
  bool was_used_ = cv::ocl::useOpenCL();
  cv::ocl::OpenCLExecutionContextScope scope_;
};

cv::ocl::KernelArg In(const cv::UMat& image) { return cv::ocl::KernelArg::PtrReadOnly(image); }
cv::ocl::KernelArg Out(const cv::UMat& image) { return cv::ocl::KernelArg::PtrWriteOnly(image); }

void Repair(const char* kernel, cv::Mat& image, float bad_pixel_rate) {
  const Session session;
  const cv::UMat source = Session::Upload(image);
  const cv::UMat repaired = Session::Allocate(image.size());
  session.Run(kernel, image.size(), In(source), Out(repaired), bad_pixel_rate, image.cols,
              image.rows);
  cv::Mat result;  // The image itself stays whole if the download fails.
  repaired.copyTo(result);
  result.copyTo(image);
}

}  // namespace

bool Available() {
  const std::lock_guard<std::mutex> lock(Shared::Get().mutex);
  std::string problem;
  return !Shared::Get().Find(problem).empty();
}

void FixBadPixels(cv::Mat& image, float bad_pixel_rate) {
  Repair("kernel_fixBadPixelsFrom", image, bad_pixel_rate);
}

void FixBadPixels2(cv::Mat& image, float bad_pixel_rate) {
  Repair("kernel_fixBadPixels2From", image, bad_pixel_rate);
}

void SplitRaw(const cv::Mat& raw_border, cv::Mat& g, cv::Mat& r, cv::Mat& b, int border_size) {
  const Session session;
  const cv::UMat raw = Session::Upload(raw_border);
  const cv::UMat green = Session::Allocate(g.size());
  const cv::UMat red = Session::Allocate(r.size());
  const cv::UMat blue = Session::Allocate(b.size());
  session.Run("kernel_splitRaw", r.size(), In(raw), Out(green), Out(red), Out(blue), border_size,
              raw.cols, raw.rows, green.cols, green.rows, red.cols, red.rows);
  green.copyTo(g);
  red.copyTo(r);
  blue.copyTo(b);
}

void MergeRaw(const cv::Mat& g, const cv::Mat& r, const cv::Mat& b, cv::Mat& raw) {
  const Session session;
  const cv::UMat green = Session::Upload(g);
  const cv::UMat red = Session::Upload(r);
  const cv::UMat blue = Session::Upload(b);
  const cv::UMat mosaic = Session::Allocate(raw.size());
  session.Run("kernel_mergeRaw", r.size(), In(green), In(red), In(blue), Out(mosaic), green.cols,
              green.rows, red.cols, red.rows, mosaic.cols, mosaic.rows, /*index=*/0);
  mosaic.copyTo(raw);
}

}  // namespace lum::raw::opencl
