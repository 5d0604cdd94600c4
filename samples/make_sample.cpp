// make_sample OUT.mp4 [without-audio]: writes a small camera video to try the tool on. Four seconds
// of H.264 with B-frames, AAC sound, and a Camera Motion Metadata track as a hand-held 360 degree
// camera would record it: gyroscope and accelerometer at 200 Hz, exposure at 30 Hz, GPS at 10 Hz,
// and once a second the types that the tool leaves out (angle-axis, position, minimal GPS, magnetic
// field).

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

#include "samples/av_encode.h"
#include "samples/camera.h"
#include "samples/mp4_writer.h"

namespace {

using namespace motrace::samples;  // NOLINT(google-build-using-namespace): one short program

constexpr int kSeconds = 4;
constexpr std::uint32_t kTicksPerSecond = 90000;

}  // namespace

int main(int argc, char** argv) {
  const bool with_audio = argc == 2;
  if (!with_audio && (argc != 3 || std::strcmp(argv[2], "without-audio") != 0)) {
    std::fputs("usage: make_sample OUT.mp4 [without-audio]\n", stderr);
    return 2;
  }
  try {
    H264Options video;
    video.width = 320;
    video.height = 160;
    video.frames = kSeconds * video.frames_per_second;
    AacOptions audio;
    audio.milliseconds = kSeconds * 1000;
    std::vector<Mp4Track> tracks{ToMp4Track(EncodeH264(video), kTicksPerSecond)};
    if (with_audio) tracks.push_back(ToMp4Track(EncodeAac(audio), 48000));
    CameraOptions motion;
    motion.timescale = kTicksPerSecond;
    motion.instants = kSeconds * motion.motion_hertz;
    tracks.push_back(CameraTrack(motion));
    WriteMp4(argv[1], tracks);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_sample: %s\n", error.what());
    return 1;
  }
  return 0;
}
