// A file read by plan and by FFmpeg alone: every packet must be the same.
//
// Input: the container. Its last byte, which containers ignore, chooses how it is read.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "av_toolbox/demuxer.h"
#include "av_toolbox/ffmpeg_util.h"
#include "av_toolbox/packet_log.h"
#include "fuzz_support.h"

namespace {

using motrace::fuzz::Require;
using motrace::testing::PacketLog;
using motrace::testing::PacketLogOptions;

constexpr size_t kMaxSize = size_t{1} << 20;
constexpr size_t kMaxPackets = 5000;
constexpr uint8_t kBefore = 3;  // how many packets before streams are discarded
constexpr uint8_t kKeep = 4;

int plans = 0;  // of the readings so far

PacketLog Read(const std::string& path, const PacketLogOptions& options) {
  lum::Demuxer demuxer(path);
  if (demuxer.Open(nullptr, nullptr) != 0) return {};
  return ReadAll(demuxer, options);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  motrace::fuzz::SilenceStandardOutput();
  lum::InitFFmpeg();
  std::atexit([] { std::fprintf(stderr, "read by plan to the end: %d\n", plans); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kMaxSize) return 0;
  static const motrace::fuzz::ScratchDir directory;
  const std::string path = directory.path() / "input";
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const bool written = write(file, data, size) == static_cast<ssize_t>(size);
  close(file);
  Require(written, "the input can be written");

  const uint8_t choice = data[size - 1];
  PacketLogOptions options;
  options.before_discarding = choice & kBefore;
  options.keep = (choice & kKeep) != 0;
  options.limit = kMaxPackets;
  const PacketLog by_plan = Read(path, options);
  options.plan = false;
  const PacketLog plain = Read(path, options);
  Require(by_plan.end == plain.end, "both readings end in the same way");
  Require(by_plan.packets == plain.packets, "both readings give the same packets");
  plans += static_cast<int>(by_plan.by_plan);
  return 0;
}
