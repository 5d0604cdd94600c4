// make_sample OUT.mp4 [without-audio]: writes a small camera video to try the tool on. Four seconds
// of H.264 with B-frames, AAC sound, and a Camera Motion Metadata track as a hand-held 360 degree
// camera would record it: gyroscope and accelerometer at 200 Hz, exposure at 30 Hz, GPS at 10 Hz,
// and once a second the types that the tool leaves out (angle-axis, position, minimal GPS, magnetic
// field).

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>

#include "samples/av_encode.h"
#include "samples/camera.h"

namespace {

using namespace motrace::samples;  // NOLINT(google-build-using-namespace): one short program

constexpr int kSeconds = 4;

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
    const EncodedStream pictures = EncodeH264(video);
    const EncodedStream sound = EncodeAac(audio);
    const std::filesystem::path without_motion = std::string(argv[1]) + ".part";
    MuxWithLibavformat(without_motion, "mp4", &pictures, with_audio ? &sound : nullptr, nullptr);
    CameraOptions motion;
    motion.instants = kSeconds * motion.motion_hertz;
    WriteCamera(argv[1], motion, without_motion);
    std::filesystem::remove(without_motion);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_sample: %s\n", error.what());
    return 1;
  }
  return 0;
}
