// Every export format: what it writes is well-formed, whatever the samples.
//
// Input: a byte of options, then pieces, each a signed 32-bit number that is cubed for a time and a
// length byte, before the bytes of a packet; every third piece is a video frame's time as well.

#include <expat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "camm/program/formats/formats.h"
#include "fuzz_support.h"

namespace {

using motrace::fuzz::Require;

/// Files in memory.
class Memory : public camm::formats::Files {
 public:
  camm::formats::TextOut& Create(const std::string& name) override {
    Require(contents_.emplace(name, "").second, "a file is made once");
    std::string& content = contents_[name];
    outs_.push_back(std::make_unique<camm::formats::TextOut>(
        [&content](std::string_view piece) { content += piece; }));
    return *outs_.back();
  }
  const std::map<std::string, std::string>& Contents() {
    for (const auto& out : outs_) out->Flush();
    return contents_;
  }

 private:
  std::map<std::string, std::string> contents_;
  std::vector<std::unique_ptr<camm::formats::TextOut>> outs_;
};

void CheckXml(const std::string& content) {
  XML_Parser parser = XML_ParserCreate(nullptr);
  const auto result =
      XML_Parse(parser, content.data(), static_cast<int>(content.size()), /*isFinal=*/1);
  XML_ParserFree(parser);
  Require(result == XML_STATUS_OK, "XML parses");
}

/// Rows after `header_lines`, each with as many cells as the line above the first.
/// @param increasing the first cell is a whole number, above that of the row before.
void CheckTable(const std::string& content, bool increasing) {
  std::ptrdiff_t cells = -1;
  std::int64_t last = 0;
  bool first = true;
  Require(!content.empty() && content.back() == '\n', "a table ends in a line feed");
  for (std::size_t at = 0; at < content.size();) {
    const std::size_t end = content.find('\n', at);
    const std::string_view line(content.data() + at, end - at);
    at = end + 1;
    if (cells < 0 && line.substr(0, 1) != "t" && line.substr(0, 1) != "#" &&
        line.substr(0, 1) != "f") {
      continue;  // what a log says before its columns
    }
    const auto commas = std::count(line.begin(), line.end(), ',');
    if (cells < 0 && commas < 1) continue;
    // tscale and the like have one value; columns are two or more and begin with a time or frame.
    if (cells < 0 && (line.substr(0, 6) == "tscale" || line.substr(0, 6) == "frame_")) continue;
    if (cells < 0) {
      cells = commas;
      continue;
    }
    Require(commas == cells, "every row has every column");
    if (!increasing) continue;
    std::int64_t value = 0;
    const auto [stop, error] = std::from_chars(line.data(), line.data() + line.size(), value);
    Require(error == std::errc() && *stop == ',', "stamps are whole numbers");
    Require(first || value > last, "stamps increase");
    last = value;
    first = false;
  }
}

void CheckFile(const std::string& name, const std::string& content) {
  const auto ends = [&name](std::string_view end) {
    return name.size() >= end.size() && name.substr(name.size() - end.size()) == end;
  };
  if (ends(".gpx") || ends(".kml")) {
    CheckXml(content);
  } else if (ends(".geojson")) {
    Require(nlohmann::json::accept(content), "JSON parses");
  } else if (ends(".jsonl")) {
    for (std::size_t at = 0; at < content.size();) {
      const std::size_t end = content.find('\n', at);
      Require(end != std::string::npos, "a line ends");
      Require(nlohmann::json::accept(content.substr(at, end - at)), "a line parses");
      at = end + 1;
    }
  } else if (ends(".npz")) {
    Require(content.substr(0, 2) == "PK", "an archive begins as one");
  } else if (ends(".txt")) {
    Require(content.find("nan") == std::string::npos && content.find("inf") == std::string::npos,
            "positions are numbers");
  } else {
    CheckTable(content, ends("imu0.csv") || ends("imu0/data.csv") || ends(".gcsv"));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  camm::formats::Options options;
  options.name = "a<&\"\\\x01\xFF]]>";
  options.video = options.name + ",\n.mp4";
  if ((*data & 1) != 0) options.track.start_unix_ns = 1'700'000'000'000'000'000;
  if ((*data & 2) != 0) options.track.rate_hz = 3;
  if ((*data & 4) != 0) options.every_metres = 10;
  if ((*data & 8) != 0) options.epoch_offset_ns = -1'000'000'000;
  if ((*data & 16) != 0) options.track.leap_seconds = -1000;
  options.interpolate = (*data & 32) != 0;
  ++data;
  --size;

  std::vector<camm::TimedSample> samples;
  camm::Recording recording;
  camm::FrameTimes frames;
  for (int piece = 0; size > 5; ++piece) {
    std::int32_t root = 0;
    std::memcpy(&root, data, sizeof root);
    const std::size_t length = std::min<std::size_t>(data[4], size - 5);
    root %= 2'000'000;  // 8 * 10^18 nanoseconds
    std::int64_t time = std::int64_t{root} * root * root;
    if (piece % 16 == 15) time = camm::kNoTime;
    if (piece % 3 == 0 && time != camm::kNoTime) frames.pts_ns.push_back(time);
    camm::Decode(
        data + 5, length,
        [&](const camm::Sample& sample) {
          samples.push_back({time, sample});
          std::visit(
              [&](const auto& value) {
                recording.Of<std::decay_t<decltype(value)>>().push_back({time, value});
              },
              sample);
        },
        [](const camm::Defect&) {});
    data += 5 + length;
    size -= 5 + length;
  }
  if (samples.empty()) return 0;
  std::sort(frames.pts_ns.begin(), frames.pts_ns.end());
  for (const camm::formats::Format& format : camm::formats::AllFormats()) {
    Memory files;
    if (format.stream != nullptr) {
      const auto writer = format.stream(options, files);
      for (const auto& sample : samples) writer->Add(sample);
    } else {
      const auto report = format.write({recording, frames, options}, files);
      Require(report.written == !files.Contents().empty(), "the report tells the truth");
    }
    for (const auto& [name, content] : files.Contents()) CheckFile(name, content);
  }
  return 0;
}
