#include "camm_processed_filter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "av_toolbox/codec_util.h"
#include "support/plain_extraction.h"
#include "support/samples.h"
#include "support/temp_dir.h"

extern std::atomic<bool> memory_is_out;

namespace {

using namespace motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::Each;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;
using Problem = CammProcessedFilter::Problem;

// A filter with an output directory, fed as the file source does.
class FilterTest : public ::testing::Test {
 protected:
  FilterTest() : stream_(lum::NewAVStream()) {
    stream_->time_base = {1, 1000};
    info_.stream = stream_.get();
  }
  void TearDown() override { memory_is_out = false; }

  void Feed(const TimedPayload& p) {
    // Exactly the payload's bytes: a sanitizer sees the first one read after it.
    const auto packet =
        lum::NewAACPacket(p.payload.data(), static_cast<int>(p.payload.size()), p.pts_ms, 0);
    packet->dts = p.dts_ms;
    EXPECT_TRUE(filter().Filter(&info_, packet));
  }
  /// What a whole run of a new filter over the packets writes.
  std::map<std::string, Bytes> Extract(const std::vector<TimedPayload>& packets) {
    Renew();
    filter().Open(&info_);
    for (const TimedPayload& packet : packets) Feed(packet);
    EXPECT_TRUE(filter().Close(&info_));
    return ReadDirectory(directory_.path());
  }
  void Renew() { filter_ = std::make_unique<CammProcessedFilter>(directory_.path()); }
  CammProcessedFilter& filter() { return *filter_; }

  TempDir directory_;
  std::shared_ptr<AVStream> stream_;
  lum::MediaInfo info_;
  std::unique_ptr<CammProcessedFilter> filter_;
};

const Bytes kOfEach = Concat(
    {GyroSample({1, 2, 3}), AccelSample({1, 2, 3}), ExposureSample(1, 2), GpsSample({1.4e9, 3})});

Bytes Cut(Bytes bytes, size_t size) {
  bytes.resize(size);
  return bytes;
}

TEST_F(FilterTest, CountsWhatAPayloadHolds) {
  // Reads as an exposure that reaches into the next sample.
  const Bytes invented = Concat({CammHeader(0), Bytes(8, 0), CammHeader(1)});
  const struct {
    const char* name;
    Bytes payload;
    size_t gyro, accelerate, exposure;
    int64_t left_out, unknown, cut, reread;
  } cases[] = {
      {"three bytes", {0, 0, 2}, 0, 0, 0, 0, 0, 0, 0},
      {"a header alone", CammHeader(2), 0, 0, 0, 0, 0, 1, 0},
      {"reserved bytes", GyroSample({1, 2, 3}, 0xFFFF), 1, 0, 0, 0, 0, 0, 0},
      {"in a row", Concat({kOfEach, kOfEach, {0, 0, 2}}), 2, 2, 2, 0, 0, 0, 0},
      {"types that are left out",
       Concat({Stored(camm::AngleAxis{}), Stored(camm::Position{}), Stored(camm::GpsMin{0, 0, 0}),
               Stored(camm::Magnetic{}), ExposureSample(1, 2)}),
       0, 0, 1, 4, 0, 0, 0},
      {"an unknown type", Concat({CammHeader(8), GyroSample({1, 2, 3})}), 1, 0, 0, 0, 1, 0, 1},
      {"a type of sixteen bits", Concat({CammHeader(0x0102), GyroSample({1, 2, 3})}), 1, 0, 0, 0, 1,
       0, 1},
      {"a header in a payload", Concat({CammHeader(5), CammHeader(1), Bytes(20, 0), kOfEach}), 1, 1,
       2, 1, 0, 0, 1},
      // Of the three samples that follow, the first is swallowed, and the rest is out of step.
      {"a header at a payload's end", Concat({invented, kOfEach, Stored(camm::AngleAxis{})}), 0, 1,
       2, 1, 0, 0, 4},
      {"cut", Cut(GyroSample({}), 15), 0, 0, 0, 0, 0, 1, 0},
      {"cut exposure", Cut(ExposureSample(0, 0), 11), 0, 0, 0, 0, 0, 1, 0},
      {"cut and left out", Cut(Stored(camm::Position{}), 10), 0, 0, 0, 1, 0, 0, 0},
      {"inside a cut one", Concat({CammHeader(6), GyroSample({1, 2, 3}), AccelSample({1, 2, 3})}),
       1, 1, 0, 0, 0, 1, 2}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Extract({{5, 5, c.payload}});
    EXPECT_EQ(filter().gyro_count(), c.gyro);
    EXPECT_EQ(filter().accelerate_count(), c.accelerate);
    EXPECT_EQ(filter().exposure_count(), c.exposure);
    const CammProcessedFilter::Tally& tally = filter().tally();
    int64_t left_out = 0;
    for (const int64_t count : tally.left_out) left_out += count;
    EXPECT_EQ(left_out, c.left_out);
    EXPECT_EQ(tally.unknown, c.unknown);
    EXPECT_EQ(tally.cut, c.cut);
    EXPECT_EQ(tally.reread, c.reread);
  }
}

// Where a stream's time base is no fraction, all times are 0.
TEST_F(FilterTest, ABrokenTimeBaseIsSurvived) {
  for (const AVRational time_base : {AVRational{0, 1}, AVRational{1, 0}}) {
    stream_->time_base = time_base;
    EXPECT_EQ(Extract({{5, 3, ExposureSample(-1, 1)}}).at("exposure_1.dat"),
              Packed(int64_t{0}, -1e-9));
  }
}

Bytes RandomPayload(std::mt19937& random) {
  const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  // Payloads of the types, and a byte more or less.
  constexpr size_t kSizes[] = {0, 3, 7, 8, 9, 11, 12, 13, 24, 55, 56, 57};
  Bytes payload;
  for (uint32_t parts = below(8); parts > 0; --parts) {
    Bytes part = CammHeader(static_cast<uint16_t>(below(9)), static_cast<uint16_t>(random()));
    // Noise, or bytes in which headers are likely.
    const bool noise = below(2) == 0;
    for (size_t i = kSizes[below(12)]; i > 0; --i) {
      part.push_back(static_cast<uint8_t>(noise ? random() : below(7)));
    }
    if (below(5) == 0) part.resize(below(static_cast<uint32_t>(part.size()) + 1));
    payload = Concat({payload, part});
  }
  return payload;
}

TEST_F(FilterTest, RandomPayloadsComeOutAsThePlainParserReadsThem) {
  for (uint32_t seed = 1; seed <= 40 && !HasFailure(); ++seed) {
    std::mt19937 random(seed);
    std::vector<TimedPayload> packets;
    for (int i = 0; i < 250; ++i) {
      const auto time = static_cast<int64_t>(random()) - (int64_t{1} << 31);
      packets.push_back({time, time - static_cast<int64_t>(random() % 3), RandomPayload(random)});
    }
    EXPECT_TRUE(Extract(packets) == ExtractPlainly(packets)) << "seed " << seed;
  }
}

TEST_F(FilterTest, TwoFilesExistFromTheStartAndASecondCloseWritesTheOthersAgain) {
  WriteFile(directory_ / "gps.json", Bytes(100, 'x'));
  WriteFile(directory_ / "exposure_3.dat", Bytes(100, 'x'));
  Renew();
  ASSERT_TRUE(filter().Open(&info_));
  EXPECT_THAT(ReadFile(directory_ / "gps.json"), IsEmpty());
  EXPECT_THAT(ReadFile(directory_ / "gyro.dat"), IsEmpty());
  EXPECT_THAT(ReadFile(directory_ / "exposure_3.dat"), SizeIs(100));
  Feed({1, 1, kOfEach});
  filter().Close(&info_);
  const auto first = ReadDirectory(directory_.path());
  EXPECT_TRUE(first == ExtractPlainly({{1, 1, kOfEach}}));
  for (const auto& [name, content] : first) fs::remove(directory_ / name);
  filter().Close(&info_);
  const auto second = ReadDirectory(directory_.path());
  EXPECT_THAT(second, SizeIs(6));
  for (const auto& [name, content] : second) EXPECT_EQ(content, first.at(name)) << name;
}

TEST_F(FilterTest, GpsNumbersAreThoseOfPrintfForAnyBits) {
  std::mt19937_64 random(20240817);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bits = random();
    lum::vela::GpsRecord record{};
    record.latitude = std::ldexp(static_cast<double>(bits >> 40), static_cast<int>(i % 60) - 40);
    if (i % 2 == 0) std::memcpy(&record.latitude, &bits, sizeof bits);
    ASSERT_THAT(lum::vela::GpsJson({record}),
                HasSubstr("\"latitude\":" + JsonNumber(record.latitude) + ","));
  }
}

TEST_F(FilterTest, WhatWasLostForWantOfMemoryMakesEveryFileIncomplete) {
  Renew();
  ASSERT_TRUE(filter().Open(&info_));
  Feed({1, 1, kOfEach});
  memory_is_out = true;
  EXPECT_THROW(
      {
        for (int i = 0; i < 1000; ++i) Feed({1, 1, kOfEach});
      },
      std::bad_alloc);
  memory_is_out = false;
  filter().Close(&info_);
  EXPECT_THAT(filter().problems(), SizeIs(8));
  EXPECT_THAT(filter().problems(), Each(Field(&Problem::error, ENOMEM)));
  EXPECT_THAT(filter().problems(), Each(Field(&Problem::created, true)));
  EXPECT_GE(ReadFile(directory_ / "gyro.dat").size(), 56U) << "what there is is written";

  // A text that does not fit into memory costs only its own file.
  Renew();
  ASSERT_TRUE(filter().Open(&info_));
  for (int i = 0; i < 100; ++i) Feed({1, 1, kOfEach});
  memory_is_out = true;
  filter().Close(&info_);
  memory_is_out = false;
  ASSERT_THAT(filter().problems(), SizeIs(1));
  EXPECT_EQ(filter().problems()[0].path, directory_ / "gps.json");
  EXPECT_EQ(filter().problems()[0].error, ENOMEM);
  EXPECT_THAT(ReadFile(directory_ / "gyro.dat"), SizeIs(100 * 56));
}

}  // namespace
