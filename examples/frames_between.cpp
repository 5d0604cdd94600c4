// Writes the frames between two pictures: frames_between [FIRST SECOND] COUNT OUT
//
// FIRST and SECOND are binary PGM or PPM files of one size and kind; without them two pictures of a
// ball that flies to the right are drawn. The frames become OUT1.ppm, OUT2.ppm and so on.
#include <cstdio>
#include <exception>
#include <fstream>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "motionInterpolation/interpolate_frame.h"

namespace {

cv::Mat readPicture(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string kind;
  int width = 0;
  int height = 0;
  int maximum = 0;
  file >> kind >> width >> height >> maximum;
  file.get();
  if ((kind != "P5" && kind != "P6") || width < 1 || height < 1 || maximum != 255) {
    throw std::runtime_error(path + " is not an 8-bit binary PGM or PPM file");
  }
  cv::Mat picture(height, width, kind == "P5" ? CV_8UC1 : CV_8UC3);
  file.read(reinterpret_cast<char*>(picture.data),
            static_cast<std::streamsize>(picture.total() * picture.elemSize()));
  if (!file) throw std::runtime_error(path + " ends too early");
  return picture;
}

void writePicture(const std::string& path, const cv::Mat& picture) {
  std::ofstream file(path, std::ios::binary);
  file << (picture.channels() == 1 ? "P5 " : "P6 ") << picture.cols << ' ' << picture.rows
       << " 255\n";
  file.write(reinterpret_cast<const char*>(picture.data),
             static_cast<std::streamsize>(picture.total() * picture.elemSize()));
  if (!file) throw std::runtime_error("cannot write " + path);
}

cv::Mat ballAt(int x) {
  cv::Mat noise(12, 16, CV_8UC3);
  cv::RNG(1).fill(noise, cv::RNG::UNIFORM, 0, 128);
  cv::Mat picture;
  cv::resize(noise, picture, cv::Size(128, 96), 0, 0, cv::INTER_CUBIC);
  cv::circle(picture, cv::Point(x, 48), 16, cv::Scalar(255, 255, 255), cv::FILLED, cv::LINE_AA);
  return picture;
}

void run(const std::vector<std::string>& args) {
  const bool drawn = args.size() == 2;
  const cv::Mat first = drawn ? ballAt(40) : readPicture(args[0]);
  const cv::Mat second = drawn ? ballAt(56) : readPicture(args[1]);
  const int count = std::stoi(args[args.size() - 2]);

  // [between]
  // Once for all frames between the two.
  cv::Mat forward;
  cv::Mat backward;
  lum::FlowsBetween(first, second, forward, backward);
  const auto frameAt = [&](double time) {
    cv::Mat frame;
    lum::InterpolateFrame(first, second, time, frame, forward, backward);
    return frame;
  };
  // [between]
  for (int i = 1; i <= count; ++i) {
    const cv::Mat frame = frameAt(static_cast<double>(i) / (count + 1));
    const std::string path = args.back() + std::to_string(i) + ".ppm";
    writePicture(path, frame);
    std::printf("%s", path.c_str());
    if (drawn) {
      cv::Mat white;
      cv::inRange(frame, cv::Scalar::all(200), cv::Scalar::all(255), white);
      const cv::Moments moments = cv::moments(white, /*binaryImage=*/true);
      std::printf(": the ball at %.0f", moments.m10 / moments.m00);
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() != 2 && args.size() != 4) {
    std::fprintf(stderr, "usage: %s [FIRST SECOND] COUNT OUT\n", argv[0]);
    return 2;
  }
  try {
    run(args);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
