// The fixtures are only worth something when a real demuxer reads back what they were told to
// write. How the tool reads them is compared with libavformat's own reading elsewhere; here it is
// compared with what went in.

#include "support/mp4_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/plain_extraction.h"
#include "support/temp_dir.h"

namespace motrace::testing {
namespace {

using ::testing::ElementsAreArray;

constexpr std::uint64_t kBeyond32Bits = 4500000000;

TEST(Mp4WriterTest, EveryLayoutReadsBackWithItsTimesAndBytes) {
  std::vector<TimedPayload> written;
  Mp4Track motion = Mp4Track::Camm(90000);
  for (int i = 0; i < 1500; ++i) {
    const auto size = static_cast<std::size_t>(1 + i * 7 % 64);
    // The B-frames before time zero begin at -67 ms, and times count from there.
    written.push_back({i + 67, i + 67, Bytes(size, static_cast<std::uint8_t>(i))});
    motion.Add(written.back().payload, 90);
  }
  for (const Mp4Layout& layout :
       {Mp4Layout{Mp4Order::kMoovLast, 500, 0}, Mp4Layout{Mp4Order::kMoovFirst, 0, 0},
        Mp4Layout{Mp4Order::kMoovLast, 500, kBeyond32Bits},
        Mp4Layout{Mp4Order::kMoovFirst, 10, kBeyond32Bits},
        Mp4Layout{Mp4Order::kFragmented, 200, 0}, Mp4Layout{Mp4Order::kFragmented, 0, 0}}) {
    const TempDir dir;
    WriteMp4(dir / "v", {ToMp4Track(EncodeH264(), 90000), ToMp4Track(EncodeAac(), 48000), motion},
             layout);
    const auto read = ReadDataStream(dir / "v");
    ASSERT_TRUE(read.has_value());
    ASSERT_EQ(read->size(), written.size());
    for (std::size_t i = 0; i < written.size(); ++i) {
      ASSERT_EQ((*read)[i].payload, written[i].payload) << i;
      ASSERT_EQ((*read)[i].pts_ms, written[i].pts_ms) << i;
    }
  }
}

std::vector<std::int64_t> PresentationTimes(const Mp4Track& track) {
  const TempDir dir;
  WriteMp4(dir / "v", {track});
  std::vector<std::int64_t> times;
  const auto packets = ReadDataStream(dir / "v");
  for (const TimedPayload& packet : *packets) times.push_back(packet.pts_ms);
  return times;
}

TEST(Mp4WriterTest, UnusualTablesReachTheDemuxer) {
  Mp4Track four = Mp4Track::Camm(1000);
  for (std::uint8_t i = 0; i < 4; ++i) four.Add(Bytes{i}, 100);
  Mp4Track trimmed = four;
  trimmed.edits = {{200, 200, 1}};
  EXPECT_THAT(PresentationTimes(trimmed), ElementsAreArray({0, 100}));
  Mp4Track untimed = four;
  untimed.samples_without_time = 2;
  EXPECT_EQ(PresentationTimes(untimed).size(), 4U);
  Mp4Track offset = Mp4Track::Camm(1000);
  offset.Add(Bytes{1}, 100, 50);
  offset.AddHole(8 << 20, 100);
  offset.Add(Bytes{2}, 100, -50);
  EXPECT_THAT(PresentationTimes(offset), ElementsAreArray({50, 100, 150}));
}

}  // namespace
}  // namespace motrace::testing
