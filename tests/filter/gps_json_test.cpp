// Keys and their order are held by the kept files (tests/golden).
#include "gps_json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "support/plain_extraction.h"

namespace lum::vela {
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

TEST(GpsJsonTest, NumbersHaveFifteenSignificantDigits) {
  const struct {
    double value;
    const char* text;
  } cases[] = {{-0.0, "-0.0"},
               {1, "1.0"},
               {1.0 / 3, "0.333333333333333"},
               {999999999999999.0, "999999999999999.0"},
               {1e15, "1e+15"},
               {0.0001, "0.0001"},
               {0.00001, "1e-05"},
               {-std::numeric_limits<double>::max(), "-1.79769313486232e+308"},
               {std::numeric_limits<double>::denorm_min(), "4.94065645841247e-324"},
               {std::nan(""), "null"},
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
}  // namespace lum::vela
