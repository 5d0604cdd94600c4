#include "camm_processed_filter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "av_toolbox/codec_util.h"
#include "support/plain_extraction.h"
#include "support/samples.h"
#include "support/temp_dir.h"

namespace {

using namespace motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;

// Exactly the payload's bytes: a sanitizer sees the first one read behind it.
std::shared_ptr<lum::QVXPacket> PacketOf(const Bytes& payload, int64_t pts, int64_t dts) {
  auto packet = lum::NewAACPacket(payload.data(), static_cast<int>(payload.size()), pts, 0);
  packet->dts = dts;
  return packet;
}

// A filter with an output directory, fed as the file source does.
class FilterTest : public ::testing::Test {
 protected:
  FilterTest() : stream_(lum::NewAVStream()) {
    stream_->time_base = {1, 1000};
    info_.stream = stream_.get();
  }

  void Feed(CammProcessedFilter& filter, const std::vector<TimedPayload>& packets) {
    for (const TimedPayload& p : packets) {
      EXPECT_TRUE(filter.Filter(&info_, PacketOf(p.payload, p.pts_ms, p.dts_ms)));
    }
  }

  /// What a whole run over the packets writes.
  std::map<std::string, Bytes> Extract(const std::vector<TimedPayload>& packets) {
    CammProcessedFilter filter(directory_.path());
    EXPECT_TRUE(filter.Open(&info_));
    Feed(filter, packets);
    EXPECT_TRUE(filter.Close(&info_));
    EXPECT_THAT(filter.problems(), IsEmpty());
    return ReadDirectory(directory_.path());
  }

  void ExpectAsPlainly(const std::vector<TimedPayload>& packets) {
    const auto expected = ExtractPlainly(packets).Files();
    const auto written = Extract(packets);
    ASSERT_THAT(written, SizeIs(expected.size()));
    for (const auto& [name, content] : expected) {
      EXPECT_TRUE(written.at(name) == content) << name << " differs";
    }
  }

  TempDir directory_;
  std::shared_ptr<AVStream> stream_;
  lum::MediaInfo info_;
};

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// ---- the grammar of a payload, by hand

struct Grammar {
  const char* name;
  Bytes payload;
  size_t gyro;
  size_t accelerate;
  size_t exposure;
};

Bytes Cut(Bytes bytes, size_t size) {
  bytes.resize(size);
  return bytes;
}

const Vec3 kVector{1, 2, 3};
// Payload bytes that read as headers of type 0.
const Vec3 kZero{0, 0, 0};

TEST_F(FilterTest, CountsTheSamplesOfAPayload) {
  const Grammar cases[] = {
      {"Empty", {}, 0, 0, 0},
      {"TwoBytes", {0, 0}, 0, 0, 0},
      {"ThreeBytes", {0, 0, 2}, 0, 0, 0},
      {"HeaderAlone", CammHeader(2), 0, 0, 0},
      {"HeaderAndThreeBytes", Concat({CammHeader(2), {0, 0, 2}}), 0, 0, 0},
      {"ReservedBytesAreNotRead", GyroSample(kVector, 0xFFFF), 1, 0, 0},
      {"TypeIsSixteenBits", Concat({CammHeader(0x0102), GyroSample(kVector)}), 1, 0, 0},
      {"ThreeBytesBehindASample", Concat({GyroSample(kVector), {0, 0, 2}}), 1, 0, 0},
      {"SamplesInARow",
       Concat({GyroSample(kVector), AccelSample(kVector), ExposureSample(1, 2), GyroSample(kVector),
               CammHeader(2)}),
       2, 1, 1},
      // Of a type that is not decoded, and of a sample that is cut, only the header is skipped:
      // the rest is read as headers again.
      {"BehindMagneticField", Concat({MagneticFieldSample(kZero), ExposureSample(1, 2)}), 0, 0, 1},
      {"UnknownTypes", Concat({CammHeader(8), CammHeader(0xFFFF), GyroSample(kVector)}), 1, 0, 0},
      // 00 00 02 00 would be a gyro header, which swallows the following sample's header as its
      // own payload.
      {"APayloadThatReadsAsAHeader",
       Concat({CammHeader(0), {0, 0, 2, 0}, Bytes(8, 0), GyroSample(kVector)}), 1, 0, 0},
      {"CutGyro", Cut(GyroSample(kZero), 15), 0, 0, 0},
      {"CutExposure", Cut(ExposureSample(0, 0), 11), 0, 0, 0},
      {"CutGps", Cut(GpsSample({}), 59), 0, 0, 0},
      {"SampleInsideACutGps", Concat({CammHeader(6), GyroSample(kVector), AccelSample(kVector)}), 1,
       1, 0}};
  for (const Grammar& c : cases) {
    SCOPED_TRACE(c.name);
    CammProcessedFilter filter(directory_.path());
    ASSERT_TRUE(filter.Open(&info_));
    Feed(filter, {{5, 5, c.payload}});
    EXPECT_TRUE(filter.Close(&info_));
    EXPECT_EQ(filter.gyro_count(), c.gyro);
    EXPECT_EQ(filter.accelerate_count(), c.accelerate);
    EXPECT_THAT(ReadFile(directory_ / "exposure_1.dat"), SizeIs(16 * c.exposure));
  }
}

// ---- bytes

TEST_F(FilterTest, RecordsAreMicrosecondsAndDoubles) {
  const auto files = Extract({{1, 0, ExposureSample(10000000, 5)},
                              {-2, 0, ExposureSample(-1, 5)},
                              {7, 7, GyroSample({1, 2, 3})},
                              {1, 0, AccelSample({4, 5, 6})}});
  EXPECT_EQ(files.at("exposure_1.dat"), Packed(int64_t{1000}, 0.01));
  EXPECT_EQ(files.at("exposure_2.dat"), Packed(int64_t{-2000}, -1e-9));
  EXPECT_EQ(files.at("gyro.dat"), Packed(int64_t{1000}, 4.0, 5.0, 6.0, 1.0, 2.0, 3.0));
}

TEST_F(FilterTest, TimeStampsAreRescaledToTheNearestMillisecond) {
  const struct {
    AVRational time_base;
    int64_t pts;
    int64_t expected_us;
  } cases[] = {{{1, 90000}, 90000, 1000000},
               {{1, 90000}, 44, 0},
               {{1, 90000}, 45, 1000},  // half a millisecond goes away from zero
               {{1, 90000}, -45, -1000},
               {{1, 1000000000}, 1499999, 1000},
               {{1001, 30000}, 3, 100000},
               {{1, 1}, int64_t{1} << 53, static_cast<int64_t>((uint64_t{1} << 53) * 1000000)},
               {{0, 1}, 5, 0},
               {{1, 0}, 5, 0}};
  for (const auto& c : cases) {
    stream_->time_base = c.time_base;
    EXPECT_EQ(Extract({{c.pts, 3, ExposureSample(1, 1)}}).at("exposure_1.dat"),
              Packed(c.expected_us, 1e-9))
        << c.pts << " in " << c.time_base.num << '/' << c.time_base.den;
  }
}

TEST_F(FilterTest, AMissingTimeStampIsAValueLikeAnyOther) {
  stream_->time_base = {1, 90000};
  const std::string missing = std::to_string(av_rescale_q(AV_NOPTS_VALUE, {1, 90000}, {1, 1000}));
  const auto files = Extract({{AV_NOPTS_VALUE, AV_NOPTS_VALUE, GpsSample({})}});
  const std::string text = Text(files.at("gps.json"));
  EXPECT_NE(text.find("\"dts\":" + missing + ","), std::string::npos);
  EXPECT_NE(text.find("\"pts\":" + missing + ","), std::string::npos);
}

// ---- random payloads against the plain statement

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
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<TimedPayload> packets;
    for (int i = 0; i < 250; ++i) {
      const auto time = static_cast<int64_t>(random()) - (int64_t{1} << 31);
      packets.push_back({time, time - static_cast<int64_t>(random() % 3), RandomPayload(random)});
    }
    ExpectAsPlainly(packets);
    if (HasFailure()) return;
  }
}

// ---- files

TEST_F(FilterTest, OpenCreatesTwoEmptyFilesOverOlderOnes) {
  WriteFile(directory_ / "gps.json", Bytes(100, 'x'));
  WriteFile(directory_ / "gyro.dat", Bytes(100, 'x'));
  WriteFile(directory_ / "exposure_3.dat", Bytes(100, 'x'));
  CammProcessedFilter filter(directory_.path());
  ASSERT_TRUE(filter.Open(&info_));
  EXPECT_THAT(ReadFile(directory_ / "gps.json"), IsEmpty());
  EXPECT_THAT(ReadFile(directory_ / "gyro.dat"), IsEmpty());
  EXPECT_TRUE(filter.Close(&info_));
  EXPECT_THAT(ReadFile(directory_ / "exposure_3.dat"), IsEmpty());
  EXPECT_THAT(ReadDirectory(directory_.path()), SizeIs(8));
}

TEST_F(FilterTest, ASecondCloseWritesOnlyTheExposuresAgain) {
  CammProcessedFilter filter(directory_.path());
  ASSERT_TRUE(filter.Open(&info_));
  Feed(filter, {{1, 1, Concat({ExposureSample(5, 6), GyroSample(kVector), AccelSample(kVector)})}});
  EXPECT_TRUE(filter.Close(&info_));
  const auto first = ReadDirectory(directory_.path());
  for (const auto& [name, content] : first) fs::remove(directory_ / name);
  EXPECT_TRUE(filter.Close(&info_));
  const auto second = ReadDirectory(directory_.path());
  EXPECT_THAT(second, SizeIs(6));
  for (const auto& [name, content] : second) EXPECT_EQ(content, first.at(name)) << name;
}

TEST_F(FilterTest, WithoutADirectoryOpenFailsAndCloseNamesEveryFile) {
  CammProcessedFilter filter(directory_ / "missing");
  EXPECT_FALSE(filter.Open(&info_));
  Feed(filter, {{1, 1, ExposureSample(5, 6)}});
  EXPECT_TRUE(filter.Close(&info_));
  EXPECT_FALSE(fs::exists(directory_ / "missing"));
  ASSERT_THAT(filter.problems(), SizeIs(8));
  for (const auto& problem : filter.problems()) {
    EXPECT_EQ(problem.error, ENOENT) << problem.path;
    EXPECT_FALSE(problem.created) << problem.path;
  }
}

TEST_F(FilterTest, OneFileThatCannotBeOpenedDoesNotHoldBackTheOthers) {
  for (const char* const blocked : {"gps.json", "gyro.dat"}) {
    const TempDir directory;
    fs::create_directory(directory / blocked);
    CammProcessedFilter filter(directory.path());
    EXPECT_FALSE(filter.Open(&info_)) << blocked;
    Feed(filter, {{1, 1, Concat({GyroSample(kVector), AccelSample(kVector)})}});
    EXPECT_TRUE(filter.Close(&info_));
    const auto files = ReadDirectory(directory.path());
    EXPECT_THAT(files, SizeIs(7));
    if (std::string(blocked) == "gps.json") {
      EXPECT_THAT(files.at("gyro.dat"), SizeIs(56));
    } else {
      EXPECT_EQ(Text(files.at("gps.json")), "null");
    }
    ASSERT_THAT(filter.problems(), SizeIs(1));
    EXPECT_EQ(filter.problems()[0].error, EISDIR);
  }
}

TEST_F(FilterTest, AFullDiskIsNoticedForEveryFile) {
  std::vector<TimedPayload> packets;
  const Bytes payload =
      Concat({GyroSample(kVector), AccelSample(kVector), ExposureSample(1, 2), GpsSample({})});
  for (const int count : {6, 6000}) {  // fits into the buffers, and does not
    packets.assign(static_cast<size_t>(count), {1, 1, payload});
    for (const auto& [name, content] : ExtractPlainly(packets).Files()) {
      const TempDir directory;
      fs::create_symlink("/dev/full", directory / name);
      CammProcessedFilter filter(directory.path());
      ASSERT_TRUE(filter.Open(&info_));
      Feed(filter, packets);
      EXPECT_TRUE(filter.Close(&info_));
      ASSERT_THAT(filter.problems(), SizeIs(1)) << name;
      EXPECT_EQ(filter.problems()[0].path, (directory / name).string());
      EXPECT_EQ(filter.problems()[0].error, ENOSPC);
      EXPECT_TRUE(filter.problems()[0].created);
    }
  }
}

TEST_F(FilterTest, APipeThatNobodyReadsIsAnErrorAndNoWait) {
  for (const char* const name : {"gps.json", "gyro.dat", "exposure_4.dat"}) {
    ASSERT_EQ(mkfifo((directory_ / name).c_str(), 0600), 0);
  }
  const int reader = open((directory_ / "gps.json").c_str(), O_RDONLY | O_NONBLOCK);
  CammProcessedFilter filter(directory_.path());
  EXPECT_FALSE(filter.Open(&info_));
  EXPECT_TRUE(filter.Close(&info_));
  ASSERT_THAT(filter.problems(), SizeIs(2));
  EXPECT_EQ(filter.problems()[0].error, ENXIO);
  EXPECT_EQ(filter.problems()[1].path, (directory_ / "exposure_4.dat").string());
  std::array<char, 16> text{};
  EXPECT_EQ(read(reader, text.data(), text.size()), 4);
  EXPECT_STREQ(text.data(), "null") << "a pipe with a reader gets the whole";
  close(reader);
}

TEST_F(FilterTest, CountsPacketsAndThoseMarkedCorrupt) {
  CammProcessedFilter filter(directory_.path());
  filter.Interrupt(&info_);
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(filter.Notify(&info_, {i, int64_t{1}}));
    const auto packet = PacketOf(GyroSample(kVector), i, i);
    packet->flags = i < 2 ? AV_PKT_FLAG_CORRUPT | AV_PKT_FLAG_KEY : AV_PKT_FLAG_KEY;
    filter.Filter(&info_, packet);
  }
  EXPECT_EQ(filter.packet_count(), 5);
  EXPECT_EQ(filter.corrupt_packet_count(), 2);
}

}  // namespace
