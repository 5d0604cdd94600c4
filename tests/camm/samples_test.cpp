#include "camm/samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/samples.h"

namespace camm {
namespace {

using motrace::testing::Bytes;
using motrace::testing::Concat;

/// What decoding calls back, one entry a call.
std::vector<std::string> Decoded(const Bytes& packet) {
  std::vector<std::string> calls;
  Decode(
      packet.data(), packet.size(),
      [&](const Sample& sample) { calls.emplace_back(TypeName(sample.index())); },
      [&](const Defect& defect) {
        const char* const names[] = {"unknown", "cut", "reserved"};
        calls.push_back(std::string(names[static_cast<int>(defect.kind)]) + " type " +
                        std::to_string(defect.type) + " at " + std::to_string(defect.offset));
      });
  return calls;
}

TEST(Samples, EveryTypeIsStoredFieldByField) {
  using namespace motrace::testing;  // NOLINT(google-build-using-namespace): builders of bytes
  // Two reserved bytes and the type, then the fields.
  const std::vector<Bytes> stored{
      Packed(0x0000'0000, 1.F, 2.F, 3.F),
      Packed(0x0001'0000, 4, -5),
      Packed(0x0002'0000, 6.F, 7.F, 8.F),
      Packed(0x0003'0000, 9.F, 10.F, 11.F),
      Packed(0x0004'0000, 12.F, 13.F, 14.F),
      Packed(0x0005'0000, 15., 16., 17.),
      Packed(0x0006'0000, 18., 19, 20., 21., 22.F, 23.F, 24.F, 25.F, 26.F, 27.F, 28.F),
      Packed(0x0007'0000, 29.F, 30.F, 31.F),
  };
  const std::vector<Sample> samples{AngleAxis{1, 2, 3},
                                    Exposure{4, -5},
                                    Gyro{6, 7, 8},
                                    Accel{9, 10, 11},
                                    Position{12, 13, 14},
                                    GpsMin{15, 16, 17},
                                    Gps{18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28},
                                    Magnetic{29, 30, 31}};
  Bytes encoded;
  for (const Sample& sample : samples) Encode(sample, encoded);
  EXPECT_EQ(encoded, Concat(stored));

  // One packet of all of them decodes to the same bytes again.
  Bytes again;
  Decode(
      encoded.data(), encoded.size(), [&](const Sample& sample) { Encode(sample, again); },
      [](const Defect&) { FAIL(); });
  EXPECT_EQ(again, encoded);
}

TEST(Samples, DefectsAreNamedWithTheirPlace) {
  using namespace motrace::testing;  // NOLINT(google-build-using-namespace): builders of bytes
  using ::testing::ElementsAre;
  const Bytes good = GyroSample({1, 2, 3});
  const Bytes cut(good.begin(), good.end() - 1);
  EXPECT_THAT(Decoded({}), ElementsAre());
  EXPECT_THAT(Decoded(Concat({good, CammHeader(8), good})),
              ElementsAre("gyro", "unknown type 8 at 16"));
  EXPECT_THAT(Decoded(Concat({good, cut})), ElementsAre("gyro", "cut type 2 at 16"));
  EXPECT_THAT(Decoded(Concat({good, Bytes{0, 0, 2}})), ElementsAre("gyro", "cut type 0 at 16"));
  // The type is 16 bits wide, and reserved bytes are no reason to leave a sample out.
  EXPECT_THAT(Decoded(CammHeader(0x0102, 1)),
              ElementsAre("reserved type 258 at 0", "unknown type 258 at 0"));
  EXPECT_THAT(Decoded(Concat({GyroSample({1, 2, 3}, 0x8000), good})),
              ElementsAre("reserved type 2 at 0", "gyro", "gyro"));
}

}  // namespace
}  // namespace camm
