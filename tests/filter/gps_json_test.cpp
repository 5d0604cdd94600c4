#include "gps_json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "support/plain_extraction.h"

namespace {

// What the text of one record shows as its latitude.
std::string LatitudeText(double latitude) {
  GpsRecord record{};
  record.latitude = latitude;
  const std::string text = GpsJson({record});
  const std::string key = "\"latitude\":";
  const size_t begin = text.find(key) + key.size();
  return text.substr(begin, text.find(',', begin) - begin);
}

TEST(GpsJsonTest, RecordsShowTheirKeysInAscendingOrder) {
  EXPECT_EQ(GpsJson({}), "null");
  GpsRecord plain{};
  plain.pts_ms = 3;
  plain.dts_ms = -4;
  plain.gps_fix_type = -1;
  plain.latitude = 1.5;
  plain.longitude = -2;
  plain.altitude = 0.5F;
  GpsRecord full = plain;
  full.has_motion = true;
  full.x = 1;
  full.y = 2;
  full.z = 3;
  full.has_exposure = true;
  full.pixel_exposure_time = std::numeric_limits<int32_t>::min();
  full.rolling_shutter_skew_time = 7;
  const std::string head =
      R"({"altitude":0.5,"dts":-4,"gps_fix_type":-1,"horizontal_accuracy":0.0,"latitude":1.5,)"
      R"("longitude":-2.0,)";
  const std::string tail =
      R"("speed_accuracy":0.0,"time_gps_epoch":0.0,"velocity_east":0.0,"velocity_north":0.0,)"
      R"("velocity_up":0.0,"vertical_accuracy":0.0)";
  EXPECT_EQ(GpsJson({plain, full}),
            R"({"extended_gps_info":[)" + head + R"("pts":3,)" + tail + "}," + head +
                R"("pixel_exposure_time":-2147483648,"pts":3,"rolling_shutter_skew_time":7,)" +
                tail + R"(,"x":1.0,"y":2.0,"z":3.0}]})");
}

TEST(GpsJsonTest, NumbersHaveFifteenSignificantDigits) {
  const struct {
    double value;
    const char* text;
  } cases[] = {{0.0, "0.0"},
               {-0.0, "-0.0"},
               {1, "1.0"},
               {-180, "-180.0"},
               {0.1, "0.1"},
               {1.0 / 3, "0.333333333333333"},
               {48.1371079183, "48.1371079183"},
               {999999999999999.0, "999999999999999.0"},
               {1e15, "1e+15"},
               {123456789012345678.0, "1.23456789012346e+17"},
               {0.0001, "0.0001"},
               {0.00001, "1e-05"},
               {1e100, "1e+100"},
               {-std::numeric_limits<double>::max(), "-1.79769313486232e+308"},
               {std::numeric_limits<double>::denorm_min(), "4.94065645841247e-324"},
               {std::nan(""), "null"},
               {std::numeric_limits<double>::infinity(), "null"},
               {-std::numeric_limits<double>::infinity(), "null"}};
  for (const auto& c : cases) EXPECT_EQ(LatitudeText(c.value), c.text);
}

TEST(GpsJsonTest, NumbersAreThoseOfPrintfForAnyBits) {
  std::mt19937_64 random(20240817);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bits = random();
    double value = std::ldexp(static_cast<double>(bits >> 40), static_cast<int>(i % 60) - 40);
    if (i % 2 == 0) std::memcpy(&value, &bits, sizeof value);
    ASSERT_EQ(LatitudeText(value), motrace::testing::JsonNumber(value)) << std::hex << bits;
  }
}

}  // namespace
