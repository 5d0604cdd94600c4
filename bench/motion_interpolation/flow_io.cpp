#include "flow_io.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

namespace lum_bench {
namespace {

constexpr int kMaxSide = 65536;

std::ifstream openFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot open '" + path + "'");
  return file;
}

void readRows(std::ifstream& file, const std::string& path, cv::Mat& mat) {
  const auto bytes = static_cast<std::streamsize>(mat.total() * mat.elemSize());
  if (!file.read(reinterpret_cast<char*>(mat.data), bytes)) {
    throw std::runtime_error("'" + path + "' ends before its last row");
  }
}

int readNumber(std::ifstream& file) {
  while (std::isspace(file.peek()) != 0 || file.peek() == '#') {
    if (file.get() == '#') {
      std::string comment;
      std::getline(file, comment);
    }
  }
  int value = 0;
  file >> value;
  return file ? value : 0;
}

}  // namespace

cv::Mat readGrey(const std::string& path) {
  std::ifstream file = openFile(path);
  const int letter = file.get();
  const int digit = file.get();
  const bool is_known = letter == 'P' && (digit == '5' || digit == '6');
  const int width = readNumber(file);
  const int height = readNumber(file);
  const int maximum = readNumber(file);
  file.get();  // the one white space before the pixels
  if (!is_known || width < 1 || height < 1 || width > kMaxSide || height > kMaxSide ||
      maximum != 255) {
    throw std::runtime_error("'" + path + "' is no 8-bit binary PGM or PPM");
  }
  cv::Mat image(height, width, digit == '5' ? CV_8UC1 : CV_8UC3);
  readRows(file, path, image);
  if (digit == '6') cv::cvtColor(image, image, cv::COLOR_RGB2GRAY);
  return image;
}

cv::Mat readFlo(const std::string& path) {
  std::ifstream file = openFile(path);
  float tag = 0.0F;
  std::int32_t size[2] = {0, 0};
  file.read(reinterpret_cast<char*>(&tag), sizeof(tag));
  file.read(reinterpret_cast<char*>(size), sizeof(size));
  constexpr float kTag = 202021.25F;  // the format's byte order check
  if (!file || tag != kTag || size[0] < 1 || size[1] < 1 || size[0] > kMaxSide ||
      size[1] > kMaxSide) {
    throw std::runtime_error("'" + path + "' is no .flo file");
  }
  cv::Mat flow(size[1], size[0], CV_32FC2);
  readRows(file, path, flow);
  return flow;
}

std::vector<FlowPair> readPairs(const std::string& folder) {
  namespace fs = std::filesystem;
  std::vector<FlowPair> pairs;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const auto path = [&](const char* name) { return (entry.path() / name).string(); };
    if (!fs::exists(path("flow.flo"))) continue;
    FlowPair pair{entry.path().filename().string(),
                  readGrey(path("img0.pgm")),
                  readGrey(path("img1.pgm")),
                  readFlo(path("flow.flo")),
                  {},
                  {}};
    // Files without a mask of their own mark unknown pixels with huge numbers.
    cv::inRange(pair.truth, cv::Scalar::all(-1e9), cv::Scalar::all(1e9), pair.known);
    if (fs::exists(path("invalid.pgm"))) pair.known &= readGrey(path("invalid.pgm")) == 0;
    if (fs::exists(path("occlusion.pgm"))) pair.occluded = readGrey(path("occlusion.pgm")) != 0;
    if (pair.img0.size() != pair.img1.size() || pair.img0.size() != pair.truth.size() ||
        (!pair.occluded.empty() && pair.img0.size() != pair.occluded.size())) {
      throw std::runtime_error("'" + pair.name + "': images and ground truth differ in size");
    }
    pairs.push_back(pair);
  }
  if (pairs.empty()) throw std::runtime_error("no folder with a flow.flo in '" + folder + "'");
  std::sort(pairs.begin(), pairs.end(),
            [](const FlowPair& a, const FlowPair& b) { return a.name < b.name; });
  return pairs;
}

}  // namespace lum_bench
