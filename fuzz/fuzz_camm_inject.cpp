// The logs that `camm inject` takes, whatever their text: they are read or refused, and what was
// read is what the track holds.
//
// Input: a byte that chooses the kind of file, and options; then the file.

#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "camm/program/motion_log.h"
#include "camm/track_writer.h"
#include "fuzz_support.h"

namespace {

using motrace::fuzz::Require;

constexpr std::array kNames{"log.csv", "log.jsonl", "log.gcsv", "log.gpx"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  camm::SilenceMessages();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const motrace::fuzz::ScratchDir scratch;
  if (size == 0) return 0;
  const std::string log = scratch.path() / kNames[data[0] % kNames.size()];
  std::ofstream(log, std::ios::binary)
      .write(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1));
  camm::program::LogOptions options;
  if ((data[0] & 4) != 0) options.rate_hz = 0.5;
  if ((data[0] & 8) != 0) options.leap_seconds = -1000;
  if ((data[0] & 16) != 0) options.start_unix_ns = 1'400'000'000'000'000'000;

  const std::string out = scratch.path() / "out.mp4";
  camm::WriterOptions writing;
  writing.overwrite = true;
  camm::TrackWriter writer(out, writing);
  std::vector<std::uint8_t> given;
  try {
    camm::program::ReadMotionLog(log, options, [&](const camm::TimedSample& sample) {
      camm::Encode(sample.sample, given);
      writer.Add(sample.time_ns, sample.sample);
    });
  } catch (const camm::program::LogError&) {
    return 0;
  }
  if (writer.Finish().status != camm::Status::kWhole) return 0;
  std::vector<std::uint8_t> held;
  const camm::ReadResult result =
      camm::Stream({out, nullptr}, {},
                   [&held](const camm::TimedSample& sample) { camm::Encode(sample.sample, held); });
  Require(result.status == camm::Status::kWhole, "what was written is whole");
  Require(given == held, "every sample reads back");
  return 0;
}
