#include "av_toolbox/reading_plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/media_files.h"
#include "av_toolbox/packet_log.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names

using Tracks = std::vector<Mp4Track>;

// Hands a change to the bytes at the last place that holds `mark`.
void Edit(const std::string& path, const std::string& mark,
          const std::function<void(uint8_t*)>& edit) {
  Bytes content = ReadFile(path);
  const auto at = std::find_end(content.begin(), content.end(), mark.begin(), mark.end());
  ASSERT_NE(at, content.end());
  edit(&*at);
  WriteFile(path, content);
}

PacketLog Read(const std::string& path, PacketLogOptions options) {
  Demuxer demuxer(path);
  EXPECT_EQ(demuxer.Open(nullptr, nullptr), 0);
  return ReadAll(demuxer, options);
}

Mp4Track Motion(const std::function<void(Mp4Track&)>& change = {}) {
  Mp4Track track = GyroTrack(300, 10);
  if (change) change(track);
  return track;
}

using ReadingPlanTest = MediaFileTest;

TEST_F(ReadingPlanTest, GivesTheSamePacketsWhereItIsUsedAndIsUsedWhereThatIsCertain) {
  const Mp4Track video = VideoTrack(60);
  const Mp4Track audio = AudioTrack(3000);
  const auto with = [&](const Mp4Track& motion) { return Tracks{video, audio, motion}; };
  const auto cut = [](const std::string& path) {
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 10);
  };
  const auto swap_chunks = [](const std::string& path) {
    Edit(path, "co64", [](uint8_t* box) { std::swap_ranges(box + 12, box + 20, box + 20); });
  };
  const auto rename = [](const char* box, const char* name) {
    return [=](const std::string& path) {
      Edit(path, box, [=](uint8_t* at) { std::copy_n(name, 4, at); });
    };
  };
  const struct {
    const char* name;
    Tracks tracks;
    Mp4Layout layout;
    bool by_plan;
    std::function<void(const std::string&)> change = {};
  } cases[] = {
      {"motion alone", {Motion()}, {}, true},
      {"a camera's file", with(Motion()), {}, true},
      {"index first", with(Motion()), {Mp4Order::kMoovFirst}, true},
      {"one chunk a track", with(Motion()), {Mp4Order::kMoovFirst, 0}, true},
      {"a chunk a sample", with(Motion()), {Mp4Order::kMoovLast, 10}, true},
      {"beyond 4 GiB", {video, Motion()}, {Mp4Order::kMoovLast, 500, uint64_t{5} << 30}, true},
      {"edit list",
       with(Motion([](Mp4Track& t) {
         t.edits = {{50, -1, 1}, {900, 40, 1}};
       })),
       {},
       true},
      {"edits that repeat",
       with(Motion([](Mp4Track& t) {
         t.edits = {{500, 40, 1}, {60, 0, 1}, {900, 500, 1}};
       })),
       {},
       true},
      {"samples without a time",
       with(Motion([](Mp4Track& t) { t.samples_without_time = 7; })),
       {},
       true},
      {"no duration", with(Motion([](Mp4Track& t) { t.media_duration = 0; })), {}, true},
      {"samples of many sizes",
       with(Motion([](Mp4Track& t) {
         for (uint32_t i = 1; i < 60; ++i) t.Add(Bytes(size_t{i} * i * 18, 1), i % 3);
       })),
       {},
       true},
      {"samples out of file order", with(Motion()), {}, true, swap_chunks},
      {"an empty sample", with(Motion([](Mp4Track& t) { t.Add({}, 10); })), {}, false},
      {"a sample larger than a range",
       with(Motion([](Mp4Track& t) { t.Add(Bytes(70000), 1); })),
       {},
       false},
      {"composition offsets",
       with(Motion([](Mp4Track& t) {
         t.Add({1, 2}, 10, 5);
       })),
       {},
       false},
      {"key samples",
       with(Motion([](Mp4Track& t) {
         t.Add({1, 2}, 10, 0, false);
       })),
       {},
       false},
      {"fragments", with(Motion()), {Mp4Order::kFragmented}, false},
      {"a second description",
       with(Motion()),
       {},
       false,
       [](const std::string& path) { Edit(path, "stsd", [](uint8_t* box) { box[11] = 2; }); }},
      {"a box that is unknown in its place", with(Motion()), {}, false, rename("nmhd", "xxxx")},
      {"what reaches far, in a box of the file",
       with(Motion()),
       {Mp4Order::kMoovFirst},
       false,
       rename("ftyp", "sidx")},
      {"timecode", {video, Mp4Track::Data("tmcd", "tmcd", 30)}, {}, false},
      {"cut within the last sample", {video, Motion()}, {Mp4Order::kMoovFirst, 0}, false, cut},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = PathOf("input.mp4");
    WriteMp4(path, c.tracks, c.layout);
    if (c.change) c.change(path);
    for (const int before : {0, 1, 40}) {
      const PacketLog plain = Read(path, {false, before});
      for (const bool keep : {false, true}) {
        const PacketLog by_plan = Read(path, {true, before, keep});
        EXPECT_EQ(by_plan.end, plain.end);
        EXPECT_TRUE(by_plan.packets == plain.packets) << before << ' ' << keep;
        EXPECT_FALSE(plain.by_plan);
        EXPECT_EQ(by_plan.by_plan, c.by_plan) << before << ' ' << keep;
      }
    }
  }
}

TEST_F(ReadingPlanTest, LeavesTheRestToFFmpegWhenTheFileShrinks) {
  const std::string path = Write({LongTrack()}, Mp4Order::kMoovFirst);
  Demuxer demuxer(path);
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  PacketLog log = ReadAll(demuxer, {true, 0, false, 40});
  EXPECT_TRUE(log.by_plan);
  std::filesystem::resize_file(path, std::filesystem::file_size(path) - size_t{30} * 2000 + 700);
  const PacketLog rest = ReadAll(demuxer);
  EXPECT_FALSE(rest.by_plan);
  log.packets.insert(log.packets.end(), rest.packets.begin(), rest.packets.end());
  const PacketLog plain = Read(path, {false});
  EXPECT_TRUE(log.packets == plain.packets) << log.packets.size() << ' ' << plain.packets.size();
  EXPECT_EQ(rest.end, plain.end);
}

TEST_F(ReadingPlanTest, EndsWithASeekAndWithItsStream) {
  const std::string path = Write({VideoTrack(), Motion()});
  const PacketLog plain = Read(path, {false, 0});
  Demuxer demuxer(path);
  ASSERT_EQ(demuxer.Open(nullptr, nullptr), 0);
  EXPECT_TRUE(ReadAll(demuxer, {true, 0, false, 250}).by_plan);
  EXPECT_LT(demuxer.Seek(-1, 0, AVSEEK_FLAG_BYTE), 0);
  EXPECT_TRUE(demuxer.ReadsByPlan()) << "nothing has moved";
  ASSERT_GE(demuxer.Seek(-1, 0, AVSEEK_FLAG_BACKWARD), 0);
  const PacketLog again = ReadAll(demuxer);
  EXPECT_FALSE(again.by_plan);
  const std::vector<PacketCopy> motion(plain.packets.end() - 300, plain.packets.end());
  EXPECT_TRUE(again.packets == motion);

  Demuxer abandoned(path);
  ASSERT_EQ(abandoned.Open(nullptr, nullptr), 0);
  EXPECT_TRUE(ReadAll(abandoned, {true, 0, false, 250}).by_plan);
  abandoned.DiscardStream(1);
  EXPECT_EQ(ReadAll(abandoned).end, AVERROR_EOF);
}

}  // namespace
}  // namespace lum
