#include "pair_times.h"

#include <gtest/gtest.h>

#include <limits>

namespace lum::vela {
namespace {

constexpr int64_t kNone = AV_NOPTS_VALUE;

TEST(PairTimesTest, SamplesOfTheSameNumberAreCompared) {
  const struct {
    const char* name;
    std::vector<std::pair<char, int64_t>> samples;  // gyroscope or accelerometer, and its time
    double gap;
    double interval;
  } cases[] = {
      {"gyroscope ahead", {{'g', 0}, {'g', 1}, {'g', 2}, {'a', 0}, {'a', 4}, {'a', 8}}, 6, 4},
      {"accelerometer ahead", {{'a', 0}, {'a', 4}, {'a', 8}, {'g', 0}, {'g', 1}}, 3, 4},
      {"several samples a time", {{'a', 0}, {'a', 0}, {'a', 6}, {'a', 6}, {'a', 12}}, 0, 6},
      {"the largest of several", {{'g', 9}, {'a', 2}, {'g', 3}, {'a', 4}}, 7, 2},
      {"without a time",
       {{'g', kNone}, {'a', 5}, {'g', 7}, {'a', kNone}, {'g', 6}, {'a', 6}},
       0,
       1},
      {"as far as can be",
       {{'g', std::numeric_limits<int64_t>::max()}, {'a', std::numeric_limits<int64_t>::min() + 1}},
       18446744073709551614.0,
       0}};
  for (const auto& c : cases) {
    PairTimes times;
    for (const auto& [kind, time] : c.samples) {
      kind == 'g' ? times.AddGyro(time) : times.AddAccelerate(time);
    }
    EXPECT_EQ(times.largest_gap(), c.gap) << c.name;
    EXPECT_EQ(times.interval(), c.interval) << c.name;
  }
}

}  // namespace
}  // namespace lum::vela
