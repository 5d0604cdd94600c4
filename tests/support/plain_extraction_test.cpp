// The plain extraction is what the tool is compared with, so it is itself compared with bytes
// written out by hand.

#include "support/plain_extraction.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "support/camm_samples.h"

namespace motrace::testing {
namespace {

std::string Text(const Bytes& bytes) {
  static const char* const kDigits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

TEST(JsonNumberTest, FollowsFifteenSignificantDigits) {
  EXPECT_EQ(JsonNumber(0.0), "0.0");
  EXPECT_EQ(JsonNumber(-0.0), "-0.0");
  EXPECT_EQ(JsonNumber(1), "1.0");
  EXPECT_EQ(JsonNumber(-42), "-42.0");
  EXPECT_EQ(JsonNumber(0.1), "0.1");
  EXPECT_EQ(JsonNumber(0.1F), "0.100000001490116");
  EXPECT_EQ(JsonNumber(1.0 / 3), "0.333333333333333");
  EXPECT_EQ(JsonNumber(123456789012345), "123456789012345.0");
  EXPECT_EQ(JsonNumber(1234567890123456), "1.23456789012346e+15");
  EXPECT_EQ(JsonNumber(1e15), "1e+15");
  EXPECT_EQ(JsonNumber(1e-5), "1e-05");
  EXPECT_EQ(JsonNumber(0.0001), "0.0001");
  EXPECT_EQ(JsonNumber(5e-324), "4.94065645841247e-324");
  EXPECT_EQ(JsonNumber(std::nan("")), "null");
  EXPECT_EQ(JsonNumber(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(JsonNumber(-std::numeric_limits<double>::infinity()), "null");
}

TEST(PlainExtractionTest, NothingDecodedGivesNullAndEmptyFiles) {
  const PlainExtraction result = ExtractPlainly({{0, 0, {}},
                                                 {0, 0, Bytes(2, 1)},
                                                 {5, 5, AngleAxisSample({0.5F, 0.5F, 0.5F})},
                                                 {5, 5, CammHeader(99)}});
  EXPECT_EQ(result.gps_json, "null");
  EXPECT_EQ(result.gyro, Bytes());
  for (const Bytes& file : result.exposure) EXPECT_EQ(file, Bytes());
  EXPECT_EQ(result.Files().size(), 8U);
}

TEST(PlainExtractionTest, WritesAccelerationThenGyroscopeWithMicroseconds) {
  const PlainExtraction result = ExtractPlainly(
      {{1999, 0, GyroSample({1, -2, 0.5F})}, {2000, 0, AccelSample({4, 8, -1}, 0xABCD)}});
  EXPECT_EQ(Text(result.gyro),
            "80841e0000000000"  // 2000000, the accelerometer's
            "0000000000001040"  // 4
            "0000000000002040"  // 8
            "000000000000f0bf"  // -1
            "000000000000f03f"  // 1
            "00000000000000c0"  // -2
            "000000000000e03f");
}

TEST(PlainExtractionTest, DealsExposuresOutOverSixFiles) {
  std::vector<TimedPayload> packets;
  packets.reserve(8);
  for (int i = 0; i < 8; ++i) packets.push_back({i + 1, 0, ExposureSample(10000000 - i, 7)});
  const PlainExtraction result = ExtractPlainly(packets);
  EXPECT_EQ(Text(result.exposure[0]).substr(0, 32),
            "e803000000000000"    // 1000
            "7b14ae47e17a843f");  // 0.01
  EXPECT_EQ(result.exposure[0].size(), 32U);
  EXPECT_EQ(result.exposure[1].size(), 32U);
  EXPECT_EQ(result.exposure[2].size(), 16U);
  EXPECT_EQ(Text(result.exposure[1]).substr(32, 16), "401f000000000000");  // 8000: the eighth
}

TEST(PlainExtractionTest, GpsRecordsCarryWhatThePacketSetBefore) {
  GpsFix fix;
  fix.time_gps_epoch = 1e9;
  fix.gps_fix_type = -2;
  fix.latitude = -12.5;
  fix.altitude = 0.1F;
  fix.velocity_up = std::numeric_limits<float>::quiet_NaN();
  const PlainExtraction result = ExtractPlainly(
      {{-7, -8,
        Concat({GpsSample(fix), ExposureSample(-1, 2), GyroSample({1, 2, 3}), GpsSample(fix)})}});
  const std::string gps =
      "\"speed_accuracy\":0.0,\"time_gps_epoch\":1000000000.0,\"velocity_east\":0.0,"
      "\"velocity_north\":0.0,\"velocity_up\":null,\"vertical_accuracy\":0.0";
  const std::string front =
      "\"gps_fix_type\":-2,\"horizontal_accuracy\":0.0,\"latitude\":-12.5,\"longitude\":0.0,";
  EXPECT_EQ(result.gps_json,
            "{\"extended_gps_info\":["
            "{\"altitude\":0.100000001490116,\"dts\":-8," +
                front + "\"pts\":-7," + gps +
                "},"
                "{\"altitude\":0.100000001490116,\"dts\":-8," +
                front +
                "\"pixel_exposure_time\":-1,\"pts\":-7,"
                "\"rolling_shutter_skew_time\":2," +
                gps + ",\"x\":1.0,\"y\":2.0,\"z\":3.0}]}");
}

TEST(PlainExtractionTest, ResumesBehindTheHeaderOfWhatItSkips) {
  // The payload of the skipped sample holds a whole exposure sample.
  const Bytes hidden = Concat({CammHeader(4), ExposureSample(1, 2)});
  // A gyroscope header whose payload is cut: four-byte steps from there on.
  const Bytes cut = Concat({CammHeader(2), Bytes(7, 0)});
  const PlainExtraction result = ExtractPlainly({{0, 0, hidden}, {0, 0, cut}});
  EXPECT_EQ(result.exposure[0].size(), 16U);
  EXPECT_EQ(result.gyro, Bytes());
}

TEST(PlainExtractionTest, StopsWhereThreeBytesAreLeft) {
  Bytes payload = GyroSample({1, 2, 3});
  payload.insert(payload.end(), {0, 0, 2});
  const PlainExtraction result =
      ExtractPlainly({{0, 0, payload}, {0, 0, AccelSample({})}, {0, 0, AccelSample({})}});
  EXPECT_EQ(result.gyro.size(), 56U);
  EXPECT_EQ(result.unpaired_accelerations, 1U);
}

}  // namespace
}  // namespace motrace::testing
