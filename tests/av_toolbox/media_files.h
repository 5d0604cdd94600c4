// Small media files for the tests of what reads them.
#ifndef MOTRACE_TESTS_AV_TOOLBOX_MEDIA_FILES_H_
#define MOTRACE_TESTS_AV_TOOLBOX_MEDIA_FILES_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "av_toolbox/ffmpeg_util.h"
#include "support/samples.h"
#include "support/temp_dir.h"

namespace motrace::testing {

/// Writes files into a directory of the test's own.
class MediaFileTest : public ::testing::Test {
 protected:
  MediaFileTest() { lum::InitFFmpeg(); }

  std::string Write(const std::vector<Mp4Track>& tracks, Mp4Order order = Mp4Order::kMoovLast) {
    WriteMp4(PathOf("input.mp4"), tracks, {order});
    return PathOf("input.mp4");
  }
  /// The video alone, in one of libavformat's containers.
  std::string Mux(const std::string& format, const EncodedStream& video) {
    MuxWithLibavformat(PathOf("v"), format, &video, nullptr, nullptr);
    return PathOf("v");
  }
  [[nodiscard]] std::string PathOf(const std::string& name) const { return directory_ / name; }

  TempDir directory_;
};

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_AV_TOOLBOX_MEDIA_FILES_H_
