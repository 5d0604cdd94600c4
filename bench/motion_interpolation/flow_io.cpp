#include "flow_io.h"

#include <cctype>
#include <fstream>
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

cv::Mat readPgm(const std::string& path) {
  std::ifstream file = openFile(path);
  const bool is_pgm = file.get() == 'P' && file.get() == '5';
  const int width = readNumber(file);
  const int height = readNumber(file);
  const int maximum = readNumber(file);
  file.get();  // the one white space before the pixels
  if (!is_pgm || width < 1 || height < 1 || width > kMaxSide || height > kMaxSide ||
      maximum != 255) {
    throw std::runtime_error("'" + path + "' is no 8-bit binary PGM");
  }
  cv::Mat image(height, width, CV_8UC1);
  readRows(file, path, image);
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

}  // namespace lum_bench
