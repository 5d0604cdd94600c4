// The sample decoder and the output files, against the plain second statement of both.
//
// Input: one byte chooses the stream's time base; then packets, each with a 16-bit length (cut at
// the end of the input), a byte that chooses the presentation time stamp, a byte added to it for
// the decoding time stamp, and the payload.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "av_toolbox/codec_util.h"
#include "camm_processed_filter.h"
#include "fuzz_support.h"
#include "support/plain_extraction.h"

namespace {

using motrace::fuzz::Require;
using motrace::testing::Bytes;

constexpr AVRational kMilliseconds{1, 1000};
constexpr std::array<AVRational, 8> kTimeBases = {{{1, 1000},
                                                   {1, 90000},
                                                   {1, 1000000000},
                                                   {1001, 30000},
                                                   {1, 1},
                                                   {1, 3},
                                                   {2147483647, 1},
                                                   {0, 1}}};

int64_t ChooseTime(uint8_t choice) {
  switch (choice) {
    case 255:
      return AV_NOPTS_VALUE;
    case 254:
      return std::numeric_limits<int64_t>::max();
    case 253:
      return std::numeric_limits<int64_t>::min() + 1;
    case 252:
      return int64_t{1} << 62;
    default:
      return int64_t{1001} * (choice - 100);
  }
}

int64_t Milliseconds(int64_t time, AVRational time_base) {
  if (time_base.num <= 0 || time_base.den <= 0) return 0;
  return av_rescale_q(time, time_base, kMilliseconds);
}

const motrace::fuzz::ScratchDir& Directory() {
  static const motrace::fuzz::ScratchDir directory;
  return directory;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  motrace::fuzz::SilenceStandardOutput();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const auto stream = lum::NewAVStream();
  stream->time_base = kTimeBases[data[0] % kTimeBases.size()];
  lum::MediaInfo info;
  info.stream = stream.get();

  CammProcessedFilter filter(Directory().path());
  Require(filter.Open(&info), "the outputs open");
  std::vector<motrace::testing::TimedPayload> packets;
  for (size_t at = 1; size - at >= 4;) {
    const size_t wanted = data[at] | size_t{data[at + 1]} << 8;
    const int64_t pts = ChooseTime(data[at + 2]);
    const auto dts =
        static_cast<int64_t>(static_cast<uint64_t>(pts) + static_cast<uint64_t>(data[at + 3]));
    at += 4;
    const size_t length = std::min(wanted, size - at);
    auto packet = lum::NewPacket();
    // Of exactly the payload's length, so that a read past it is seen.
    packet->buf = av_buffer_alloc(std::max<size_t>(length, 1));
    packet->data = packet->buf->data;
    packet->size = static_cast<int>(length);
    std::copy_n(data + at, length, packet->data);
    packet->pts = pts;
    packet->dts = dts;
    Require(filter.Filter(&info, packet), "a packet is accepted");
    packets.push_back({Milliseconds(pts, stream->time_base), Milliseconds(dts, stream->time_base),
                       Bytes(data + at, data + at + length)});
    at += length;
  }
  Require(filter.Close(&info), "the stream closes");
  Require(filter.problems().empty(), "every file is whole");

  const auto expected = motrace::testing::ExtractPlainly(packets);
  constexpr size_t kPairBytes = 56;
  Require(kPairBytes * std::min(filter.gyro_count(), filter.accelerate_count()) ==
              expected.at("gyro.dat").size(),
          "samples are counted");
  const CammProcessedFilter::Tally& tally = filter.tally();
  Require(tally.packets == static_cast<int64_t>(packets.size()), "packets are counted");
  const size_t decoded = filter.gyro_count() + filter.accelerate_count() + filter.exposure_count() +
                         filter.gps_count();
  Require(tally.reread <= static_cast<int64_t>(decoded), "what was reread was decoded");
  for (const auto& [name, content] : expected) {
    std::ifstream file(Directory().path() / name, std::ios::binary);
    const Bytes written{std::istreambuf_iterator<char>(file), {}};
    Require(written == content, name.c_str());
  }
  return 0;
}
