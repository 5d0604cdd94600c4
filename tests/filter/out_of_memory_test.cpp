// The motion filter where memory runs out: nothing may be lost without being named.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <new>

#include "av_toolbox/codec_util.h"
#include "camm_processed_filter.h"
#include "failing_allocator.h"
#include "support/samples.h"
#include "support/temp_dir.h"

namespace {

using namespace motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::IsEmpty;
using ::testing::SizeIs;

class OutOfMemoryTest : public ::testing::Test {
 protected:
  OutOfMemoryTest() : stream_(lum::NewAVStream()), filter_(directory_.path()) {
    stream_->time_base = {1, 1000};
    info_.stream = stream_.get();
    const Bytes payload =
        Concat({GyroSample({}), AccelSample({}), ExposureSample(1, 2), GpsSample({})});
    packet_ = lum::NewAACPacket(payload.data(), static_cast<int>(payload.size()), 1, 0);
  }
  void TearDown() override { memory_is_out = false; }

  TempDir directory_;
  std::shared_ptr<AVStream> stream_;
  lum::MediaInfo info_;
  CammProcessedFilter filter_;
  std::shared_ptr<lum::QVXPacket> packet_;
};

TEST_F(OutOfMemoryTest, WhatWasLostWhileDecodingMakesEveryFileIncomplete) {
  ASSERT_TRUE(filter_.Open(&info_));
  filter_.Filter(&info_, packet_);
  memory_is_out = true;
  EXPECT_THROW(
      {
        for (int i = 0; i < 1000; ++i) filter_.Filter(&info_, packet_);
      },
      std::bad_alloc);
  memory_is_out = false;
  EXPECT_TRUE(filter_.Close(&info_));
  ASSERT_THAT(filter_.problems(), SizeIs(8));
  for (const auto& problem : filter_.problems()) {
    EXPECT_EQ(problem.error, ENOMEM) << problem.path;
    EXPECT_TRUE(problem.created) << problem.path;
  }
  EXPECT_GE(ReadFile(directory_ / "gyro.dat").size(), 56U) << "what there is is written";
}

TEST_F(OutOfMemoryTest, ATextThatDoesNotFitIntoMemoryCostsOnlyItsOwnFile) {
  ASSERT_TRUE(filter_.Open(&info_));
  for (int i = 0; i < 100; ++i) filter_.Filter(&info_, packet_);
  memory_is_out = true;
  EXPECT_TRUE(filter_.Close(&info_));
  memory_is_out = false;
  ASSERT_THAT(filter_.problems(), SizeIs(1));
  EXPECT_EQ(filter_.problems()[0].path, (directory_ / "gps.json").string());
  EXPECT_EQ(filter_.problems()[0].error, ENOMEM);
  EXPECT_THAT(ReadFile(directory_ / "gps.json"), IsEmpty());
  EXPECT_THAT(ReadFile(directory_ / "gyro.dat"), SizeIs(100 * 56));
}

}  // namespace
