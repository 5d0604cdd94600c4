#include "camm/check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "camm/track_writer.h"
#include "support/samples.h"
#include "support/temp_dir.h"

namespace camm {
namespace {

using motrace::testing::EncodeH264;
using motrace::testing::Mp4Track;
using motrace::testing::TempDir;
using motrace::testing::ToMp4Track;
using ::testing::Contains;
using ::testing::IsSupersetOf;
using ::testing::UnorderedElementsAre;

constexpr std::int64_t kMillisecond = 1'000'000;

/// A sound second: each sensor at 200 Hz at rest, GPS at 10 Hz on the move.
std::vector<TimedSample> SoundSamples() {
  std::vector<TimedSample> samples;
  for (int i = 0; i < 200; ++i) {
    const std::int64_t time = std::int64_t{i} * 5 * kMillisecond;
    samples.push_back({time, Gyro{0.01F, 0, 0}});
    samples.push_back({time, Accel{0, 0, 9.8F}});
    if (i % 20 == 0) samples.push_back({time, Gps{1.4e9 + i * 0.005, 3, 48 + i * 5e-7, 11, 500}});
  }
  return samples;
}

TEST(Check, EveryFaultHasItsFinding) {
  SilenceMessages();
  const TempDir dir;
  const std::string video = dir / "video.mp4";
  const std::string path = dir / "out.mp4";
  const motrace::samples::EncodedStream pictures = EncodeH264();
  motrace::samples::MuxWithLibavformat(video, "mp4", &pictures, nullptr, nullptr);
  const auto codes = [&](const std::vector<TimedSample>& samples, Profile profile) {
    WriterOptions options;
    options.video = video;
    options.overwrite = true;
    TrackWriter writer(path, options);
    for (const TimedSample& sample : samples) writer.Add(sample.time_ns, sample.sample);
    EXPECT_EQ(writer.Finish().status, Status::kWhole);
    std::vector<std::string> found;
    for (const Finding& finding : Check(path, {-1, profile}).findings)
      found.push_back(finding.code);
    return found;
  };
  EXPECT_THAT(codes(SoundSamples(), Profile::kGeneral), UnorderedElementsAre());

  // Changes one kind of sample of the sound recording.
  const auto changed = [](auto change) {
    std::vector<TimedSample> samples = SoundSamples();
    for (std::size_t i = 0; i < samples.size(); ++i) {
      std::visit([&](auto& value) { change(samples[i].time_ns, value); }, samples[i].sample);
    }
    return samples;
  };
  const struct {
    std::vector<TimedSample> samples;
    std::string code, published;  // the name of the second profile, where it has one
  } cases[] = {
      {changed([](std::int64_t& time, auto& value) {
         if (std::is_same_v<decltype(value), Gyro&> && time == 50 * kMillisecond)
           time -= 11 * kMillisecond;
       }),
       "time-backwards", "time-backwards"},
      {changed([](std::int64_t& time, auto& value) {
         if (std::is_same_v<decltype(value), Gyro&> && time == 50 * kMillisecond)
           time += 5 * kMillisecond;
       }),
       "time-standing", "time-standing"},
      {changed([](std::int64_t& time, auto&) {
         if (time > 500 * kMillisecond) time += 100 * kMillisecond;
       }),
       "gap", "IMU_DATA_GAP"},
      {changed([](std::int64_t& time, auto& value) {
         if (std::is_same_v<decltype(value), Accel&>) time = time / 10 * 7;
       }),
       "unequal-rates", "unequal-rates"},
      {changed([](std::int64_t& time, auto& value) {
         if (std::is_same_v<decltype(value), Gyro&> && time / kMillisecond % 10 == 5)
           time += 2 * kMillisecond;
       }),
       "jitter", "jitter"},
      {changed([](std::int64_t&, auto& value) {
         if constexpr (std::is_same_v<decltype(value), Accel&>) value.z_m_s2 = 1;
       }),
       "gravity", "INVALID_IMU"},
      {changed([](std::int64_t& time, auto& value) {
         if constexpr (std::is_same_v<decltype(value), Gps&>)
           value.latitude_deg += time == 500 * kMillisecond ? 0.01 : 0;
       }),
       "gps-jump", "JUMPY_GPS"},
      {changed([](std::int64_t& time, auto& value) {
         if (std::is_same_v<decltype(value), Gps&> && time > 500 * kMillisecond)
           time += 6000 * kMillisecond;
       }),
       "gps-gap", "GPS_DATA_GAP"},
      {changed([](std::int64_t&, auto& value) {
         if constexpr (std::is_same_v<decltype(value), Gps&>) value.latitude_deg = 91;
       }),
       "gps-invalid", "INVALID_GPS"},
      {changed([](std::int64_t& time, auto&) { time += 9000 * kMillisecond; }), "gps-outside-video",
       "NO_OVERLAP_GPS"},
      {changed([](std::int64_t&, auto& value) {
         if constexpr (std::is_same_v<decltype(value), Gps&>) value.fix_type = 0;
       }),
       "gps-no-fix", "INSUFFICIENT_GPS"},
  };
  for (const auto& [samples, code, published] : cases) {
    EXPECT_THAT(codes(samples, Profile::kGeneral), Contains(code));
    EXPECT_THAT(codes(samples, Profile::kStreetView),
                IsSupersetOf({published, std::string("LOW_RESOLUTION")}));
  }
}

TEST(Check, BytesTracksAndEditListsAreLookedAt) {
  SilenceMessages();
  const TempDir dir;
  const std::string path = dir / "video.mp4";
  Mp4Track motion = Mp4Track::Camm(1000);
  motion.Add({1, 0, 9, 0}, 1);
  motion.Add(motrace::testing::GyroSample({1, 2, 3}), 1);
  Mp4Track video = ToMp4Track(EncodeH264(), 90000);
  video.edits.insert(video.edits.begin(), {500, -1});
  motrace::testing::WriteMp4(path, {video, motion, motion});
  const CheckResult result = Check(path);
  std::vector<std::string> found;
  for (const Finding& finding : result.findings) found.push_back(finding.code);
  EXPECT_THAT(found, UnorderedElementsAre("unknown-type", "reserved-bytes", "several-tracks",
                                          "missing-edit-list"));
  EXPECT_EQ(result.findings[0].severity, Severity::kError);
  EXPECT_TRUE(result.Wrong());
}

}  // namespace
}  // namespace camm
