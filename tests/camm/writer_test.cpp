#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <tuple>

#include "av_toolbox/demuxer.h"
#include "camm/frames.h"
#include "camm/track_writer.h"
#include "support/samples.h"
#include "support/temp_dir.h"

namespace camm {
namespace {

using motrace::testing::Bytes;
using motrace::testing::EncodeAac;
using motrace::testing::EncodeH264;
using motrace::testing::Mp4Order;
using motrace::testing::Mp4Track;
using motrace::testing::ReadFile;
using motrace::testing::TempDir;
using motrace::testing::ToMp4Track;
using motrace::testing::WriteFile;
using ::testing::HasSubstr;

/// Stream, pts, dts, flags and bytes of every packet that is not of a `camm` track, by stream.
std::vector<std::tuple<int, std::int64_t, std::int64_t, int, Bytes>> OtherPackets(
    const std::string& path) {
  lum::Demuxer demuxer(path);
  std::vector<std::tuple<int, std::int64_t, std::int64_t, int, Bytes>> packets;
  if (demuxer.Open(nullptr, nullptr) != 0) return packets;
  std::shared_ptr<lum::QVXPacket> packet;
  while (demuxer.ReadPacket(packet) == 0) {
    const AVStream* stream = demuxer.GetStream(static_cast<unsigned>(packet->stream_index));
    if (stream->codecpar->codec_tag == MKTAG('c', 'a', 'm', 'm')) continue;
    packets.emplace_back(static_cast<int>(stream->codecpar->codec_type), packet->pts, packet->dts,
                         packet->flags, Bytes(packet->data, packet->data + packet->size));
  }
  std::sort(packets.begin(), packets.end());
  return packets;
}

std::vector<std::pair<std::int64_t, Bytes>> MotionPackets(const std::string& path) {
  std::vector<std::pair<std::int64_t, Bytes>> packets;
  const ReadResult result = StreamPackets({path, nullptr}, {}, [&](const Packet& packet) {
    if (packet.size == 0) return;  // bridges a gap
    packets.emplace_back(packet.time_ns, Bytes(packet.data, packet.data + packet.size));
  });
  EXPECT_EQ(result.status, Status::kWhole) << result.error;
  return packets;
}

class WriterTest : public ::testing::Test {
 protected:
  WriterTest() { SilenceMessages(); }

  /// A packet a time; each is different.
  WriteResult WriteTimes(const std::vector<std::int64_t>& times,
                         const WriterOptions& options = {}) {
    TrackWriter writer(out_, options);
    written_.clear();
    for (const std::int64_t time : times) {
      Bytes bytes;
      Encode(Gyro{static_cast<float>(written_.size()), 1, 2}, bytes);
      if (written_.size() % 3 == 1) Encode(Gps{1e9, 3, 48, 11, 500}, bytes);
      writer.AddPacket(time, bytes.data(), bytes.size());
      written_.emplace_back(time, bytes);
    }
    return writer.Finish();
  }
  std::string MakeVideo(Mp4Order order, std::uint64_t gap = 0,
                        const std::vector<Mp4Track>& more = {}) {
    std::vector<Mp4Track> tracks{ToMp4Track(EncodeH264(), 90000), ToMp4Track(EncodeAac(), 48000)};
    tracks.insert(tracks.end(), more.begin(), more.end());
    std::string path = dir_ / "video.mp4";
    motrace::testing::WriteMp4(path, tracks, {order, 500, gap});
    return path;
  }
  [[nodiscard]] std::size_t FilesLeft() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(dir_.path()),
                                                  std::filesystem::directory_iterator()));
  }

  TempDir dir_;
  std::string out_ = dir_ / "out.mp4";
  std::vector<std::pair<std::int64_t, Bytes>> written_;
};

TEST_F(WriterTest, TimesReadBackExactlyInTheSmallestScale) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const struct {
    std::vector<std::int64_t> times;
    std::uint32_t scale;
  } cases[] = {
      {{0, 5'000'000, 10'000'000}, 1000},
      {{0, 11111, 22222}, 90000},                                          // thirds of a nanosecond
      {{33366667, 66733333}, 30000},                                       // begins late
      {{0, 125, 250, 1000}, 8'000'000},                                    // a divisor of 10^9
      {{7, 7, 7, 8}, 1'000'000'000},                                       // several at a time
      {{-5, -3, 4}, 1'000'000'000},                                        // before zero
      {{0, 1000, 400, 600, 401, 2000}, 1'000'000'000},                     // backwards
      {{1, 60 * kSecond, 60 * kSecond + 1, 64 * kSecond}, 1'000'000'000},  // gaps
  };
  for (const auto& [times, scale] : cases) {
    const WriteResult result = WriteTimes(times, {"", ExistingTrack::kRefuse, true, 0});
    EXPECT_EQ(result.status, Status::kWhole) << result.error;
    EXPECT_EQ(result.time_scale, scale);
    EXPECT_EQ(result.rounding_ns, 0);
    EXPECT_EQ(MotionPackets(out_), written_);
  }
  // The scale that is wanted, only where it is exact.
  EXPECT_EQ(WriteTimes({0, 1'000'000}, {"", ExistingTrack::kRefuse, true, 48000}).time_scale,
            48000U);
  EXPECT_EQ(WriteTimes({0, 1'000'001}, {"", ExistingTrack::kRefuse, true, 48000}).time_scale,
            1'000'000'000U);
}

TEST_F(WriterTest, TimesThatNoExactScaleHoldsAreRounded) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const WriteResult result = WriteTimes({-3 * kSecond - 1, 0, 5'000'000 * kSecond + 400});
  EXPECT_EQ(result.status, Status::kWhole) << result.error;
  EXPECT_EQ(result.time_scale, 100'000U);
  EXPECT_EQ(result.rounding_ns, 400);
  const auto read = MotionPackets(out_);
  ASSERT_EQ(read.size(), 3U);
  EXPECT_EQ(read[0].first, -3 * kSecond);
  EXPECT_EQ(read[2].first, 5'000'000 * kSecond);

  // Offsets that FFmpeg takes for a broken table are avoided.
  EXPECT_EQ(WriteTimes({0, -300'000'001, 8}, {"", ExistingTrack::kRefuse, true, 0}).time_scale,
            100'000'000U);
  EXPECT_EQ(MotionPackets(out_)[1].first, -300'000'000);

  WriteTimes({kNoTime, 5, kNoTime}, {"", ExistingTrack::kRefuse, true, 0});
  const auto missing = MotionPackets(out_);
  ASSERT_EQ(missing.size(), 3U);
  EXPECT_EQ(missing[0].first, 0);
  EXPECT_EQ(missing[2].first, 5);
}

TEST_F(WriterTest, OtherTracksStayAsTheyAre) {
  struct {
    std::uint64_t gap;
    const char* trailer;
    Mp4Order order;
    bool open_end;  // the last box states no size
  } const cases[] = {
      {0, "", Mp4Order::kMoovLast, false},
      {0, "", Mp4Order::kMoovFirst, false},
      {std::uint64_t{5} << 30, "", Mp4Order::kMoovLast, false},  // 64-bit offsets; a hole
      {0, "a camera's trailer, no box", Mp4Order::kMoovLast, false},
      {0, "", Mp4Order::kMoovFirst, true},
  };
  std::vector<std::int64_t> times;
  for (std::int64_t i = 0; i < 3000; ++i) times.push_back(10000000 + i * 1250000);
  for (const auto& [gap, trailer, order, open_end] : cases) {
    const std::string video = MakeVideo(order, gap);
    if (gap == 0) {
      Bytes content = ReadFile(video);
      if (open_end) {  // the long size of mdat, behind moov
        const std::string type = "mdat";
        const auto mdat = std::search(content.begin(), content.end(), type.begin(), type.end());
        std::fill(mdat - 4, mdat, 0);
        content.erase(mdat + 4, mdat + 12);
        // The samples lie eight bytes closer to the beginning: a box of that size before them.
        const Bytes wide{0, 0, 0, 8, 'w', 'i', 'd', 'e'};
        content.insert(mdat - 4, wide.begin(), wide.end());
      }
      content.insert(content.end(), trailer, trailer + std::string(trailer).size());
      WriteFile(video, content);
    }
    const auto before = OtherPackets(video);
    ASSERT_GT(before.size(), 50U);
    WriterOptions options;
    options.video = video;
    options.overwrite = true;
    const WriteResult result = WriteTimes(times, options);
    ASSERT_EQ(result.status, Status::kWhole) << result.error;
    EXPECT_TRUE(OtherPackets(out_) == before);
    EXPECT_TRUE(MotionPackets(out_) == written_);
    EXPECT_EQ(ReadFrames({out_, nullptr}).pts_ns.size(), 30U);
    if (gap > 0) continue;
    const Bytes content = ReadFile(out_);
    EXPECT_TRUE(
        std::equal(trailer, trailer + std::string(trailer).size(),
                   content.end() - static_cast<std::ptrdiff_t>(std::string(trailer).size())));
  }
}

TEST_F(WriterTest, AnExistingTrackIsRefusedReplacedOrKept) {
  Mp4Track motion = Mp4Track::Camm(1000);
  motion.Add(Bytes(16, 0), 1);
  WriterOptions options;
  options.video =
      MakeVideo(Mp4Order::kMoovLast, 0, {motion, Mp4Track::Data("tmcd", "tmcd", 30), motion});
  EXPECT_THAT(WriteTimes({1}, options).error, HasSubstr("it holds a camm track already"));
  options.existing = ExistingTrack::kReplace;
  EXPECT_EQ(WriteTimes({1, 2}, options).status, Status::kWhole);
  const Recording replaced = Read({out_, nullptr});
  ASSERT_EQ(replaced.result.tracks.size(), 1U);
  EXPECT_EQ(replaced.result.tracks[0].stream_index, 2);
  EXPECT_TRUE(MotionPackets(out_) == written_);
  options.existing = ExistingTrack::kKeep;
  options.overwrite = true;
  EXPECT_EQ(WriteTimes({1, 2}, options).status, Status::kWhole);
  EXPECT_EQ(Read({out_, nullptr}).result.tracks.size(), 3U);
}

TEST_F(WriterTest, FailuresLeaveNothingBehind) {
  WriterOptions options;
  options.video = MakeVideo(Mp4Order::kFragmented);
  EXPECT_THAT(WriteTimes({1}, options).error, HasSubstr("it is in fragments"));
  MakeVideo(Mp4Order::kMoovFirst);
  std::filesystem::resize_file(options.video, std::filesystem::file_size(options.video) - 1);
  EXPECT_THAT(WriteTimes({1}, options).error, HasSubstr("the file is cut off"));
  WriteFile(options.video, Bytes(100, 'x'));
  EXPECT_THAT(WriteTimes({1}, options).error, HasSubstr("it is no MP4 or QuickTime file"));
  MakeVideo(Mp4Order::kMoovLast);
  EXPECT_EQ(WriteTimes({}, options).status, Status::kNoSamples);
  {
    const TrackWriter abandoned(out_, options);
    EXPECT_TRUE(abandoned.ok());
  }
  EXPECT_EQ(FilesLeft(), 1U);

  WriteFile(out_, {1, 2, 3});
  EXPECT_EQ(WriteTimes({1}, options).error, out_ + ": the file exists");
  EXPECT_EQ(ReadFile(out_), (Bytes{1, 2, 3}));
  out_ = dir_ / "no folder" / "out.mp4";
  const WriteResult result = WriteTimes({1}, options);
  EXPECT_EQ(result.status, Status::kCannotOpen);
  EXPECT_EQ(result.error, out_ + ": No such file or directory");
  options.overwrite = true;
  out_ = options.video;
  EXPECT_THAT(WriteTimes({1}, options).error, HasSubstr("it is the input"));
  out_ = dir_.path();
  EXPECT_THAT(WriteTimes({1}, options).error, HasSubstr("not a regular file"));
  EXPECT_EQ(FilesLeft(), 2U);
}

}  // namespace
}  // namespace camm
