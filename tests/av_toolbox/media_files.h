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

/// Gyroscope samples (0, 0, 0), (1, 0, 0), ... every `duration` milliseconds, which are its ticks.
inline Mp4Track MotionTrack(int samples, uint32_t duration = 20) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < samples; ++i) track.Add(GyroSample({static_cast<float>(i), 0, 0}), duration);
  return track;
}

/// A motion track of 200 kB, so that reading it takes several reads of the input.
inline Mp4Track LongTrack() {
  Mp4Track track = Mp4Track::Camm(1000);
  for (int i = 0; i < 100; ++i) track.Add(Bytes(2000, 1), 10);
  return track;
}

inline Mp4Track VideoTrack(int frames = 30, int b_frames = 2) {
  H264Options options;
  options.frames = frames;
  options.b_frames = b_frames;
  return ToMp4Track(EncodeH264(options), 90000);
}
inline Mp4Track AudioTrack(int milliseconds = 1000, bool with_edit_list = true) {
  return ToMp4Track(EncodeAac({2, milliseconds}), 48000, with_edit_list);
}

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
