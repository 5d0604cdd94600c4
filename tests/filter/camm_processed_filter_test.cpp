#include "camm_processed_filter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "av_toolbox/codec_util.h"
#include "support/camm_samples.h"
#include "support/plain_extraction.h"
#include "support/temp_dir.h"

namespace {

using namespace motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
namespace fs = std::filesystem;

std::shared_ptr<lum::QVXPacket> PacketOf(const Bytes& payload, int64_t pts, int64_t dts) {
  auto packet = lum::NewPacket();
  if (!payload.empty()) {
    // Exactly the payload's bytes: a sanitizer sees the first one read behind it.
    packet->buf = av_buffer_alloc(payload.size());
    packet->data = packet->buf->data;
    packet->size = static_cast<int>(payload.size());
    std::copy(payload.begin(), payload.end(), packet->data);
  }
  packet->pts = pts;
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
      EXPECT_TRUE(written.count(name) == 1 && written.at(name) == content) << name << " differs";
    }
  }

  TempDir directory_;
  std::shared_ptr<AVStream> stream_;
  lum::MediaInfo info_;
};

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

size_t ExposureCount(const std::map<std::string, Bytes>& files) {
  size_t bytes = 0;
  for (int k = 1; k <= 6; ++k) bytes += files.at("exposure_" + std::to_string(k) + ".dat").size();
  return bytes / 16;
}

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

Bytes Join(std::initializer_list<Bytes> parts) { return Concat(parts); }

class GrammarTest : public FilterTest, public ::testing::WithParamInterface<Grammar> {};

TEST_P(GrammarTest, CountsSamples) {
  CammProcessedFilter filter(directory_.path());
  ASSERT_TRUE(filter.Open(&info_));
  EXPECT_TRUE(filter.Filter(&info_, PacketOf(GetParam().payload, 5, 5)));
  EXPECT_TRUE(filter.Close(&info_));
  EXPECT_EQ(filter.gyro_count(), GetParam().gyro);
  EXPECT_EQ(filter.accelerate_count(), GetParam().accelerate);
  EXPECT_EQ(ExposureCount(ReadDirectory(directory_.path())), GetParam().exposure);
}

const Vec3 kVector{1, 2, 3};
// Payload bytes that read as headers of type 0.
const Vec3 kZero{0, 0, 0};

INSTANTIATE_TEST_SUITE_P(
    Payloads, GrammarTest,
    ::testing::Values(
        Grammar{"Empty", {}, 0, 0, 0}, Grammar{"OneByte", {0}, 0, 0, 0},
        Grammar{"TwoBytes", {0, 0}, 0, 0, 0}, Grammar{"ThreeBytes", {0, 0, 2}, 0, 0, 0},
        Grammar{"HeaderAlone", CammHeader(2), 0, 0, 0},
        Grammar{"HeaderAndThreeBytes", Join({CammHeader(2), {0, 0, 2}}), 0, 0, 0},
        Grammar{"OneGyro", GyroSample(kVector), 1, 0, 0},
        Grammar{"OneAcceleration", AccelSample(kVector), 0, 1, 0},
        Grammar{"OneExposure", ExposureSample(1, 2), 0, 0, 1},
        Grammar{"ReservedBytesAreNotRead", GyroSample(kVector, 0xFFFF), 1, 0, 0},
        Grammar{"TypeIsSixteenBits", Join({CammHeader(0x0102), GyroSample(kVector)}), 1, 0, 0},
        Grammar{"OneByteBehindASample", Join({GyroSample(kVector), {2}}), 1, 0, 0},
        Grammar{"ThreeBytesBehindASample", Join({GyroSample(kVector), {0, 0, 2}}), 1, 0, 0},
        Grammar{"FourBytesBehindASample", Join({GyroSample(kVector), CammHeader(2)}), 1, 0, 0},
        Grammar{"SamplesInARow",
                Join({GyroSample(kVector), AccelSample(kVector), ExposureSample(1, 2),
                      GyroSample(kVector)}),
                2, 1, 1},
        // The skipped payload's bytes are read as headers again.
        Grammar{"BehindAngleAxis", Join({AngleAxisSample(kZero), GyroSample(kVector)}), 1, 0, 0},
        Grammar{"BehindPosition", Join({PositionSample(kZero), AccelSample(kVector)}), 0, 1, 0},
        Grammar{"BehindMagneticField", Join({MagneticFieldSample(kZero), ExposureSample(1, 2)}), 0,
                0, 1},
        Grammar{"BehindMinimalGps", Join({MinimalGpsSample(0, 0, 0), GyroSample(kVector)}), 1, 0,
                0},
        Grammar{"ASampleInsideASkippedPayload", Join({CammHeader(0), GyroSample(kVector)}), 1, 0,
                0},
        // 1.0F is 00 00 80 3F: type 0x3F80; 2^-126 * k: 00 00 02 00 would be a gyro header, which
        // swallows the following sample's header as its own payload.
        Grammar{"APayloadThatReadsAsAHeader",
                Join({CammHeader(0), {0, 0, 2, 0}, Bytes(8, 0), GyroSample(kVector)}), 1, 0, 0},
        Grammar{"UnknownTypes",
                Join({CammHeader(8), CammHeader(255), CammHeader(0xFFFF), GyroSample(kVector)}), 1,
                0, 0},
        Grammar{"CutGyro", Cut(GyroSample(kZero), 15), 0, 0, 0},
        Grammar{"CutExposure", Cut(ExposureSample(0, 0), 11), 0, 0, 0},
        Grammar{"CutGps", Cut(GpsSample({}), 59), 0, 0, 0},
        Grammar{"SampleInsideACutGps",
                Join({CammHeader(6), GyroSample(kVector), AccelSample(kVector)}), 1, 1, 0},
        Grammar{"CutSampleInsideACutGyro", Join({CammHeader(2), Cut(CammHeader(1), 4), {0, 0, 0}}),
                0, 0, 0}),
    [](const auto& parameter) { return parameter.param.name; });

// ---- bytes

TEST_F(FilterTest, WithoutDecodedSamplesThereAreEightFilesWithNothing) {
  const auto files = Extract({{1, 1, MagneticFieldSample(kVector)}, {2, 2, {}}});
  ASSERT_THAT(files, SizeIs(8));
  for (const auto& [name, content] : files) {
    EXPECT_EQ(Text(content), name == "gps.json" ? "null" : "") << name;
  }
}

TEST_F(FilterTest, ExposureRecordsAreMicrosecondsAndSeconds) {
  const auto files = Extract({{1, 0, ExposureSample(10000000, 5)}, {-2, 0, ExposureSample(-1, 5)}});
  EXPECT_THAT(files.at("exposure_1.dat"),
              ElementsAre(0xE8, 0x03, 0, 0, 0, 0, 0, 0,                      // 1000
                          0x7B, 0x14, 0xAE, 0x47, 0xE1, 0x7A, 0x84, 0x3F));  // 0.01
  EXPECT_THAT(files.at("exposure_2.dat"),
              ElementsAre(0x30, 0xF8, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,    // -2000
                          0x95, 0xD6, 0x26, 0xE8, 0x0B, 0x2E, 0x11, 0xBE));  // -1e-9
}

TEST_F(FilterTest, ExposuresAreDealtOutInTurn) {
  for (const int count : {1, 5, 6, 7, 12, 13}) {
    std::vector<TimedPayload> packets;
    packets.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) packets.push_back({i, i, ExposureSample(i, 0)});
    const auto files = Extract(packets);
    for (int k = 0; k < 6; ++k) {
      const Bytes& content = files.at("exposure_" + std::to_string(k + 1) + ".dat");
      const int expected = count / 6 + (k < count % 6 ? 1 : 0);
      ASSERT_THAT(content, SizeIs(expected * 16)) << count << " exposures, file " << k + 1;
      for (int j = 0; j < expected; ++j) {
        int64_t time_us = 0;
        std::memcpy(&time_us, content.data() + ptrdiff_t{16} * j, sizeof time_us);
        EXPECT_EQ(time_us, (k + 6 * j) * 1000);
      }
    }
  }
}

TEST_F(FilterTest, MotionRecordsPairByPositionAndStopAtTheShorter) {
  const TimedPayload gyro{7, 7, GyroSample(kVector)};
  const TimedPayload acceleration{2000, 2000, AccelSample({4, 5, 6})};
  EXPECT_THAT(Extract({acceleration, acceleration, acceleration, gyro, gyro, gyro, gyro, gyro})
                  .at("gyro.dat"),
              SizeIs(3 * 56));
  EXPECT_THAT(Extract({gyro, acceleration, acceleration, acceleration}).at("gyro.dat"), SizeIs(56));
  const Bytes record =
      Extract({{2000, 0, Concat({gyro.payload, acceleration.payload})}}).at("gyro.dat");
  int64_t time_us = 0;
  std::array<double, 6> values{};
  ASSERT_THAT(record, SizeIs(56));
  std::memcpy(&time_us, record.data(), 8);
  std::memcpy(values.data(), record.data() + 8, 48);
  EXPECT_EQ(time_us, 2000000);
  EXPECT_THAT(values, ElementsAre(4, 5, 6, 1, 2, 3));
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
    int64_t time_us = 0;
    const Bytes record = Extract({{c.pts, 3, ExposureSample(1, 1)}}).at("exposure_1.dat");
    std::memcpy(&time_us, record.data(), 8);
    EXPECT_EQ(time_us, c.expected_us)
        << c.pts << " in " << c.time_base.num << '/' << c.time_base.den;
  }
}

TEST_F(FilterTest, AMissingTimeStampIsAValueLikeAnyOther) {
  ExpectAsPlainly({{AV_NOPTS_VALUE + 1, 0, ExposureSample(1, 1)}});
  stream_->time_base = {1, 90000};
  const std::string missing = std::to_string(av_rescale_q(AV_NOPTS_VALUE, {1, 90000}, {1, 1000}));
  const auto files = Extract({{AV_NOPTS_VALUE, AV_NOPTS_VALUE, GpsSample({})}});
  EXPECT_NE(Text(files.at("gps.json")).find("\"dts\":" + missing + ","), std::string::npos);
  EXPECT_NE(Text(files.at("gps.json")).find("\"pts\":" + missing + ","), std::string::npos);
}

TEST_F(FilterTest, KeysOfEarlierSamplesStayUntilThePacketEnds) {
  const Bytes gps = GpsSample({});
  // In turn: alone; behind a motion sample; behind both; overwritten; and fresh in a new packet.
  const auto files = Extract({{1, 1, gps},
                              {2, 2,
                               Concat({AccelSample({1, 2, 3}), gps, ExposureSample(-7, -8), gps,
                                       GyroSample({4, 5, 6}), ExposureSample(9, 10), gps})},
                              {3, 3, gps}});
  std::vector<std::string> records;
  const std::string text = Text(files.at("gps.json"));
  for (size_t begin = text.find('['); (begin = text.find('{', begin)) != std::string::npos;) {
    const size_t end = text.find('}', begin);
    records.push_back(text.substr(begin, end - begin));
    begin = end;
  }
  ASSERT_THAT(records, SizeIs(5));
  const auto holds = [&](size_t i, const char* part) {
    return records[i].find(part) != std::string::npos;
  };
  for (const size_t fresh : {size_t{0}, size_t{4}}) {
    EXPECT_FALSE(holds(fresh, "\"x\"")) << fresh;
    EXPECT_FALSE(holds(fresh, "exposure")) << fresh;
  }
  EXPECT_TRUE(holds(1, R"("x":1.0,"y":2.0,"z":3.0)"));
  EXPECT_FALSE(holds(1, "exposure"));
  EXPECT_TRUE(holds(2, R"("x":1.0)") && holds(2, R"("pixel_exposure_time":-7,)") &&
              holds(2, R"("rolling_shutter_skew_time":-8,)"));
  EXPECT_TRUE(holds(3, R"("x":4.0,"y":5.0,"z":6.0)") && holds(3, R"("pixel_exposure_time":9,)") &&
              holds(3, R"("rolling_shutter_skew_time":10,)"));
}

TEST_F(FilterTest, ExtremeValuesComeOutAsTheyAre) {
  GpsFix fix;
  fix.time_gps_epoch = std::numeric_limits<double>::max();
  fix.gps_fix_type = std::numeric_limits<int32_t>::min();
  fix.latitude = -0.0;
  fix.longitude = std::nan("");
  fix.altitude = std::numeric_limits<float>::infinity();
  fix.velocity_up = std::numeric_limits<float>::denorm_min();
  fix.speed_accuracy = -std::numeric_limits<float>::max();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float infinite = std::numeric_limits<float>::infinity();
  const int32_t lowest = std::numeric_limits<int32_t>::min();
  ExpectAsPlainly({{std::numeric_limits<int64_t>::max(), -std::numeric_limits<int64_t>::max(),
                    Concat({GyroSample({nan, -nan, infinite}), AccelSample({-infinite, -0.0F, nan}),
                            ExposureSample(lowest, lowest), GpsSample(fix)})}});
  EXPECT_NE(Text(ReadFile(directory_ / "gps.json")).find(R"("gps_fix_type":-2147483648,)"),
            std::string::npos);
}

// ---- random payloads against the plain statement

Bytes RandomPayload(std::mt19937& random) {
  const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  const auto small = [&] { return static_cast<float>(below(1000)) / 8; };
  Bytes payload;
  for (uint32_t parts = below(8); parts > 0; --parts) {
    Bytes part;
    switch (below(11)) {
      case 0:
        part = AngleAxisSample({small(), small(), small()});
        break;
      case 1:
        part = ExposureSample(static_cast<int32_t>(random()), static_cast<int32_t>(random()));
        break;
      case 2:
        part = GyroSample({small(), small(), small()}, static_cast<uint16_t>(random()));
        break;
      case 3:
        part = AccelSample({small(), small(), small()});
        break;
      case 4:
        part = PositionSample({small(), small(), small()});
        break;
      case 5:
        part = MinimalGpsSample(small(), small(), small());
        break;
      case 6: {
        GpsFix fix;
        fix.time_gps_epoch = small() * 1e9;
        fix.latitude = std::sin(small());
        fix.gps_fix_type = static_cast<int32_t>(random());
        fix.velocity_east = small();
        part = GpsSample(fix);
        break;
      }
      case 7:
        part = MagneticFieldSample({small(), small(), small()});
        break;
      case 8:
        part = CammHeader(static_cast<uint16_t>(below(10)));
        break;
      default:
        // Noise in which types of the format are likely.
        for (uint32_t i = below(80); i > 0; --i) {
          part.push_back(
              static_cast<uint8_t>(below(3) == 0 ? random() : (i % 2 == 0 ? 0 : below(8))));
        }
    }
    if (below(5) == 0) part.resize(below(static_cast<uint32_t>(part.size()) + 1));
    payload.insert(payload.end(), part.begin(), part.end());
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

TEST_F(FilterTest, CloseWithoutOpenWritesOnlyTheExposures) {
  CammProcessedFilter filter(directory_.path());
  Feed(filter, {{1, 1, ExposureSample(5, 6)}});
  EXPECT_TRUE(filter.Close(&info_));
  EXPECT_THAT(ReadDirectory(directory_.path()), SizeIs(6));
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

TEST_F(FilterTest, AnEmptyDirectoryNameMeansTheCurrentOne) {
  const fs::path before = fs::current_path();
  fs::current_path(directory_.path());
  CammProcessedFilter filter("");
  EXPECT_TRUE(filter.Open(&info_));
  EXPECT_TRUE(filter.Close(&info_));
  fs::current_path(before);
  EXPECT_THAT(ReadDirectory(directory_.path()), SizeIs(8));
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
  ASSERT_EQ(mkfifo((directory_ / "gps.json").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((directory_ / "exposure_4.dat").c_str(), 0600), 0);
  CammProcessedFilter filter(directory_.path());
  EXPECT_FALSE(filter.Open(&info_));
  EXPECT_TRUE(filter.Close(&info_));
  ASSERT_THAT(filter.problems(), SizeIs(2));
  EXPECT_EQ(filter.problems()[0].error, ENXIO);
  EXPECT_EQ(filter.problems()[1].path, (directory_ / "exposure_4.dat").string());
}

TEST_F(FilterTest, APipeWithAReaderGetsTheWholeText) {
  ASSERT_EQ(mkfifo((directory_ / "gps.json").c_str(), 0600), 0);
  const int reader = open((directory_ / "gps.json").c_str(), O_RDONLY | O_NONBLOCK);
  CammProcessedFilter filter(directory_.path());
  ASSERT_TRUE(filter.Open(&info_));
  EXPECT_TRUE(filter.Close(&info_));
  std::array<char, 16> text{};
  EXPECT_EQ(read(reader, text.data(), text.size()), 4);
  EXPECT_STREQ(text.data(), "null");
  close(reader);
}

TEST_F(FilterTest, NotifyAndInterruptChangeNothing) {
  CammProcessedFilter filter(directory_.path());
  ASSERT_TRUE(filter.Open(&info_));
  for (int32_t code = 0; code < 4; ++code) {
    EXPECT_TRUE(filter.Notify(&info_, {code, int64_t{1}}));
    EXPECT_TRUE(filter.Notify(&info_, {code, lum::any()}));
  }
  filter.Interrupt(&info_);
  Feed(filter, {{1, 1, ExposureSample(5, 6)}});
  EXPECT_TRUE(filter.Close(&info_));
  EXPECT_EQ(ExposureCount(ReadDirectory(directory_.path())), 1U);
}

TEST_F(FilterTest, CountsPacketsAndThoseMarkedCorrupt) {
  CammProcessedFilter filter(directory_.path());
  for (int i = 0; i < 5; ++i) {
    const auto packet = PacketOf(GyroSample(kVector), i, i);
    packet->flags = i < 2 ? AV_PKT_FLAG_CORRUPT | AV_PKT_FLAG_KEY : AV_PKT_FLAG_KEY;
    filter.Filter(&info_, packet);
  }
  EXPECT_EQ(filter.packet_count(), 5);
  EXPECT_EQ(filter.corrupt_packet_count(), 2);
}

}  // namespace
