// make_input OUT.mp4 SECONDS [--paired]: a camera file for the extraction benchmark.
//
// 60 Mbit/s H.264 at 60 frames a second and one motion track: 1 kHz gyroscope and accelerometer,
// 60 Hz exposure, 10 Hz GPS, every sample a packet of its own (with --paired the two motion samples
// of an instant share one), a chunk a second. The first second holds real frames, so that probing
// finds what it looks for; behind it the pictures are holes of a sparse file, which cost no disk
// and read back as zeros.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/mp4_writer.h"

namespace {

using motrace::testing::Bytes;
using motrace::testing::Mp4Track;

constexpr uint32_t kTicksPerSecond = 60000;  // divides by every rate below
constexpr uint32_t kFramesPerSecond = 60;
constexpr uint32_t kFrameBytes = 60'000'000 / 8 / kFramesPerSecond;
constexpr uint32_t kMotionRate = 1000;
constexpr uint32_t kGpsRate = 10;

// The frame with a filler NAL unit behind it (type 12, ISO/IEC 14496-10), up to the frame size.
Bytes Padded(const Bytes& frame) {
  constexpr size_t kLengthSize = 4;
  if (frame.size() + kLengthSize + 2 > kFrameBytes) return frame;
  Bytes padded = frame;
  const auto filler = static_cast<uint32_t>(kFrameBytes - frame.size() - kLengthSize);
  for (int shift = 24; shift >= 0; shift -= 8) {
    padded.push_back(static_cast<uint8_t>(filler >> shift));
  }
  padded.push_back(12);
  padded.resize(kFrameBytes - 1, 0xFF);
  padded.push_back(0x80);
  return padded;
}

Mp4Track VideoTrack(uint32_t seconds) {
  motrace::testing::H264Options options;
  options.width = 640;
  options.height = 320;
  options.frames = kFramesPerSecond;
  options.frames_per_second = kFramesPerSecond;
  options.b_frames = 0;
  const auto encoded = motrace::testing::EncodeH264(options);
  Mp4Track track =
      Mp4Track::Video(encoded.extradata(), options.width, options.height, kTicksPerSecond);
  constexpr uint32_t kFrameTicks = kTicksPerSecond / kFramesPerSecond;
  for (const auto& packet : encoded.packets) {
    track.Add(Padded(packet.data), kFrameTicks, 0, packet.key);
  }
  for (uint32_t i = kFramesPerSecond; i < seconds * kFramesPerSecond; ++i) {
    track.AddHole(kFrameBytes, kFrameTicks, i % kFramesPerSecond == 0);
  }
  return track;
}

Mp4Track MotionTrack(uint32_t seconds, bool paired) {
  Mp4Track track = Mp4Track::Camm(kTicksPerSecond);
  constexpr uint32_t kStep = kTicksPerSecond / kMotionRate;
  for (uint32_t i = 0; i < seconds * kMotionRate; ++i) {
    const double t = static_cast<double>(i) / kMotionRate;
    const auto wave = [t](double hertz) { return static_cast<float>(std::sin(t * hertz)); };
    // The last sample of an instant takes the time to the next one, the others take none.
    if (i % (kMotionRate / kGpsRate) == 0) {
      motrace::testing::GpsFix fix;
      fix.time_gps_epoch = 1.4e9 + t;
      fix.latitude = 48.0 + t * 1e-5;
      fix.longitude = 11.0 + t * 1e-5;
      track.Add(motrace::testing::GpsSample(fix), 0);
    }
    if (i * kFramesPerSecond / kMotionRate != (i + 1) * kFramesPerSecond / kMotionRate) {
      track.Add(motrace::testing::ExposureSample(8'000'000, 16'000'000), 0);
    }
    const Bytes gyro = motrace::testing::GyroSample({wave(0.7), wave(0.5), wave(1.1)});
    const Bytes accel = motrace::testing::AccelSample({wave(1.8), wave(2.8), 9.81F});
    if (paired) {
      track.Add(motrace::testing::Concat({gyro, accel}), kStep);
    } else {
      track.Add(gyro, 0);
      track.Add(accel, kStep);
    }
  }
  return track;
}

}  // namespace

int main(int argc, char** argv) {
  const bool paired = argc == 4 && std::strcmp(argv[3], "--paired") == 0;
  const long seconds = argc >= 3 ? std::strtol(argv[2], nullptr, 10) : 0;
  if ((argc != 3 && !paired) || seconds < 1) {
    std::fprintf(stderr, "usage: make_input OUT.mp4 SECONDS [--paired]\n");
    return 2;
  }
  try {
    motrace::testing::Mp4Layout layout;
    layout.interleave_ms = 1000;
    const auto length = static_cast<uint32_t>(seconds);
    motrace::testing::WriteMp4(argv[1], {VideoTrack(length), MotionTrack(length, paired)}, layout);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_input: %s\n", e.what());
    return 1;
  }
  return 0;
}
