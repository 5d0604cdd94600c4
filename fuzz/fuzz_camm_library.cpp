// The reader, the box parser and the writer of motion tracks.
//
// Input: a byte that chooses; then
//   0, 1: a file, which a track is added to (0: refused where there is one, 1: put in its place);
//         where that succeeds, the track must read back, and the frames' times must be found again
//   2:    packets, each a signed 32-bit number that is cubed for its time and a length byte, before
//         their bytes: what is written must read back bit for bit, with the times that were
//         promised

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "camm/check.h"
#include "camm/frames.h"
#include "camm/track_writer.h"
#include "fuzz_support.h"

namespace {

using motrace::fuzz::Require;
using TimedBytes = std::pair<std::int64_t, std::vector<std::uint8_t>>;

std::vector<TimedBytes> ReadBack(const std::string& path) {
  std::vector<TimedBytes> packets;
  const camm::ReadResult result =
      camm::StreamPackets({path, nullptr}, {}, [&](const camm::Packet& packet) {
        if (packet.size == 0) return;  // bridges a gap
        packets.emplace_back(packet.time_ns,
                             std::vector<std::uint8_t>(packet.data, packet.data + packet.size));
      });
  Require(result.status == camm::Status::kWhole, "what was written is whole");
  return packets;
}

void AddToFile(const std::uint8_t* data, std::size_t size, bool replace, const std::string& dir) {
  const std::string video = dir + "/video.mp4";
  std::ofstream(video, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  const camm::FrameTimes frames = camm::ReadFrames({video, nullptr});
  static_cast<void>(camm::Check(video));
  camm::WriterOptions options;
  options.video = video;
  options.overwrite = true;
  if (replace) options.existing = camm::ExistingTrack::kReplace;
  const std::string out = dir + "/out.mp4";
  camm::TrackWriter writer(out, options);
  writer.Add(0, camm::Gyro{1, 2, 3});
  if (writer.Finish().status != camm::Status::kWhole) return;
  if (frames.status == camm::Status::kWhole) {
    Require(camm::ReadFrames({out, nullptr}).pts_ns == frames.pts_ns, "the frames stay");
  }
}

void WritePackets(const std::uint8_t* data, std::size_t size, const std::string& dir) {
  // What looks like boxes that FFmpeg must not see is refused wherever it stands (InputGuard).
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (const char* mark : {"trun", "sidx", "dcomzlib"}) {
    if (bytes.find(mark) != std::string_view::npos) return;
  }
  const std::string out = dir + "/out.mp4";
  camm::WriterOptions options;
  options.overwrite = true;
  camm::TrackWriter writer(out, options);
  std::vector<TimedBytes> written;
  while (size > 5) {
    std::int32_t root = 0;
    std::memcpy(&root, data, sizeof root);
    root %= 2'000'000;  // 8 * 10^18 nanoseconds are 254 years
    const std::size_t length = std::min<std::size_t>(data[4], size - 5);
    if (length > 0) {
      written.emplace_back(std::int64_t{root} * root * root,
                           std::vector<std::uint8_t>(data + 5, data + 5 + length));
      writer.AddPacket(written.back().first, data + 5, length);
    }
    data += 5 + length;
    size -= 5 + length;
  }
  const camm::WriteResult result = writer.Finish();
  if (result.status != camm::Status::kWhole) return;
  const std::vector<TimedBytes> read = ReadBack(out);
  Require(read.size() == written.size(), "every packet reads back");
  for (std::size_t i = 0; i < read.size(); ++i) {
    Require(read[i].second == written[i].second, "every byte reads back");
    Require(std::abs(read[i].first - written[i].first) <= result.rounding_ns,
            "times are off by no more than what was said");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  camm::SilenceMessages();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const motrace::fuzz::ScratchDir scratch;
  if (size == 0) return 0;
  const std::string dir = scratch.path().string();
  if (data[0] % 3 == 2) {
    WritePackets(data + 1, size - 1, dir);
  } else {
    AddToFile(data + 1, size - 1, data[0] % 3 == 1, dir);
  }
  return 0;
}
