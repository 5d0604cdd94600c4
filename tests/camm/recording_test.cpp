#include "camm/recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <sstream>
#include <string>

#include "support/memory_source.h"
#include "support/samples.h"
#include "support/subprocess.h"
#include "support/temp_dir.h"

namespace camm {
namespace {

using motrace::testing::Bytes;
using motrace::testing::CammHeader;
using motrace::testing::Concat;
using motrace::testing::GyroSample;
using motrace::testing::GyroTrack;
using motrace::testing::MemorySource;
using motrace::testing::Mp4Layout;
using motrace::testing::Mp4Order;
using motrace::testing::Mp4Track;
using motrace::testing::ReadFile;
using motrace::testing::TempDir;
using motrace::testing::WriteFile;
using ::testing::ElementsAre;

class RecordingTest : public ::testing::Test {
 protected:
  RecordingTest() { SilenceMessages(); }

  Recording Reading(const std::vector<Mp4Track>& tracks, const ReadOptions& options = {},
                    const Mp4Layout& layout = {}) {
    motrace::testing::WriteMp4(path_, tracks, layout);
    return Read({path_, nullptr}, options);
  }
  static std::vector<std::int64_t> GyroTimes(const Recording& recording) {
    std::vector<std::int64_t> times;
    for (const auto& gyro : recording.Of<Gyro>()) times.push_back(gyro.time_ns);
    return times;
  }
  static std::vector<std::string> ProblemsOf(const Recording& recording) {
    std::vector<std::string> texts;
    for (const Problem& problem : recording.result.problems) texts.push_back(problem.text);
    return texts;
  }

  TempDir dir_;
  std::string path_ = dir_ / "2026-01-02T10:11:12.mp4";  // looks like a URL, is a file
};

TEST_F(RecordingTest, TimesAreExactInEveryTimeBase) {
  for (const Mp4Order order : {Mp4Order::kMoovLast, Mp4Order::kMoovFirst, Mp4Order::kFragmented}) {
    const Mp4Layout layout{order};
    EXPECT_THAT(GyroTimes(Reading({GyroTrack(3, 7, 1'000'000'000)}, {}, layout)),
                ElementsAre(0, 7, 14));
    EXPECT_THAT(GyroTimes(Reading({GyroTrack(3, 1, 3)}, {}, layout)),
                ElementsAre(0, 333333333, 666666667));
  }
  Mp4Track early = Mp4Track::Camm(90000);
  early.Add(GyroSample({0, 0, 0}), 5, 0, /*sync=*/true);
  early.Add(GyroSample({1, 0, 0}), 5, 0, /*sync=*/false);
  early.edits = {{10, 5}};  // decoding begins before the edit does: a negative time
  EXPECT_THAT(GyroTimes(Reading({early})), ElementsAre(-55556, 0));
  Mp4Track late = GyroTrack(2, 1, 90000);
  late.edits = {{2500, -1}, {10, 0}};
  EXPECT_THAT(GyroTimes(Reading({late})), ElementsAre(2500000000, 2500011111));
}

/// The track's packets as FFmpeg's own program shows them: ticks and bytes, in hexadecimal digits.
std::vector<std::pair<std::int64_t, std::string>> Probed(const std::string& path) {
  std::vector<std::pair<std::int64_t, std::string>> packets;
  const auto run = motrace::testing::RunProcess(
      {"/usr/bin/ffprobe", "-v", "quiet", "-select_streams", "d:0", "-show_entries",
       "packet=pts,data", "-show_data", "-of", "default=noprint_wrappers=1", "file:" + path});
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("pts=", 0) == 0) packets.emplace_back(std::stoll(line.substr(4)), "");
    if (line.size() < 11 || line.find(": ") != 8) continue;
    for (const char digit : line.substr(10, 40)) {
      if (digit != ' ') packets.back().second += digit;
    }
  }
  return packets;
}

TEST_F(RecordingTest, ReadsWhatFFmpegsOwnProgramReads) {
  if (!std::filesystem::exists("/usr/bin/ffprobe")) GTEST_SKIP() << "there is no ffprobe";
  Mp4Track edited = motrace::testing::CameraTrack();
  edited.edits = {{40, -1}, {500, 9001}};
  Mp4Track shifted = Mp4Track::Camm(1'000'000'000);
  for (int i = 0; i < 40; ++i) shifted.Add(GyroSample({1, 2, 3}), 1'234'567, i % 3 - 5);
  motrace::testing::CameraOptions paired;
  paired.timescale = 7200;
  paired.paired = true;
  for (const Mp4Track& track : {edited, shifted, motrace::testing::CameraTrack(paired)}) {
    for (const Mp4Order order : {Mp4Order::kMoovFirst, Mp4Order::kFragmented}) {
      motrace::testing::WriteMp4(path_, {track}, {order});
      std::vector<std::pair<std::int64_t, std::string>> read;
      const ReadResult result = StreamPackets({path_, nullptr}, {}, [&](const Packet& packet) {
        // No tick is shorter than a nanosecond, so that this is exact.
        const double ticks = static_cast<double>(packet.time_ns) * 1e-9 * track.timescale();
        std::string digits;
        for (std::size_t i = 0; i < packet.size; ++i) {
          digits += "0123456789abcdef"[packet.data[i] >> 4];
          digits += "0123456789abcdef"[packet.data[i] & 15];
        }
        read.emplace_back(std::llround(ticks), digits);
      });
      EXPECT_EQ(result.status, Status::kWhole);
      EXPECT_GT(read.size(), 30U);
      EXPECT_TRUE(read == Probed(path_));
    }
  }
}

TEST_F(RecordingTest, FirstPacketOfAnyStreamIsAnOrigin) {
  ReadOptions options;
  options.origin = Origin::kFirstPacket;
  options.stream_index = 1;
  Mp4Track other = GyroTrack(4, 5);
  other.edits = {{20, -1}, {20, 0}};
  Mp4Track late = GyroTrack(2, 10);
  late.edits = {{100, -1}, {20, 0}};
  EXPECT_THAT(GyroTimes(Reading({other, late}, options)), ElementsAre(80'000'000, 90'000'000));
}

TEST_F(RecordingTest, PicksTheFirstTrackThatHoldsPackets) {
  const std::vector<Mp4Track> tracks{Mp4Track::Data("tmcd", "tmcd", 30), Mp4Track::Camm(1000),
                                     GyroTrack(2, 1), GyroTrack(1, 1, 1000, 100)};
  const Recording first = Reading(tracks);
  EXPECT_EQ(first.result.status, Status::kWhole);
  EXPECT_THAT(GyroTimes(first), ElementsAre(0, 1'000'000));
  ASSERT_EQ(first.result.tracks.size(), 3U);
  EXPECT_EQ(first.result.tracks[0].packets, 0);
  EXPECT_EQ(first.result.tracks[1].packets, 2);
  EXPECT_TRUE(first.result.tracks[1].read);
  EXPECT_THAT(ProblemsOf(first), ElementsAre("the file holds 3 camm tracks"));

  ReadOptions options;
  options.stream_index = 3;
  ASSERT_EQ(Reading(tracks, options).Of<Gyro>().size(), 1U);
  options.stream_index = 1;
  EXPECT_EQ(Reading(tracks, options).result.status, Status::kNoSamples);
  options.stream_index = 0;
  EXPECT_EQ(Reading(tracks, options).result.error, "stream 0 is not a camm track");
}

TEST_F(RecordingTest, WhatIsWrongIsCountedAndNamed) {
  const Bytes good = GyroSample({1, 2, 3});
  const Bytes cut(good.begin(), good.end() - 1);
  Mp4Track track = Mp4Track::Camm(1000);
  track.Add(Concat({good, CammHeader(9)}), 1);
  track.Add(Concat({GyroSample({1, 2, 3}, 7), good}), 1);
  const Recording reserved = Reading({track});
  track.Add(Concat({good, cut}), 1);
  track.Add(CammHeader(9), 1);
  const Recording all = Reading({track});
  EXPECT_EQ(all.result.status, Status::kPartial);
  EXPECT_EQ(all.result.packets, 4);
  EXPECT_EQ(all.result.counts[Gyro::kType], 4);
  EXPECT_THAT(ProblemsOf(all),
              ElementsAre("2 samples of the unknown type 9: the rest of the packet is left out",
                          "1 sample has reserved bytes that are not zero",
                          "1 sample is cut off by the end of the packet"));
  EXPECT_EQ(all.result.problems[2].first_time_ns, 2'000'000);

  Mp4Track only_reserved = Mp4Track::Camm(1000);
  only_reserved.Add(GyroSample({1, 2, 3}, 7), 1);
  EXPECT_EQ(Reading({only_reserved}).result.status, Status::kWhole);
}

TEST_F(RecordingTest, CutFilesAndFailingReadsAreDamage) {
  Mp4Layout layout;
  layout.order = Mp4Order::kMoovFirst;
  Reading({GyroTrack(4, 1)}, {}, layout);
  Bytes content = ReadFile(path_);
  const auto source = std::make_shared<MemorySource>(content);
  source->fails_from = static_cast<std::int64_t>(content.size()) - 16;
  const Recording failing = Read({"memory", source});
  EXPECT_EQ(failing.result.status, Status::kPartial);
  EXPECT_EQ(failing.Of<Gyro>().size(), 3U);

  content.resize(content.size() - 20);
  WriteFile(path_, content);
  const Recording cut = Read({path_, nullptr});
  EXPECT_EQ(cut.result.status, Status::kPartial);
  EXPECT_EQ(cut.Of<Gyro>().size(), 2U);
  ASSERT_FALSE(cut.result.problems.empty());
  EXPECT_EQ(cut.result.problems[0].text, "the file ends 20 bytes before the data it names");
}

TEST_F(RecordingTest, FilesWithoutAReadableTrackSayWhy) {
  const Recording other = Reading({Mp4Track::Data("tmcd", "tmcd", 30)});
  EXPECT_EQ(other.result.status, Status::kNoTrack);
  EXPECT_EQ(other.result.error, "there is no camm track");
  const Recording missing = Read({dir_ / "missing.mp4", nullptr});
  EXPECT_EQ(missing.result.status, Status::kCannotOpen);
  EXPECT_EQ(missing.result.error, "No such file or directory");
}

}  // namespace
}  // namespace camm
