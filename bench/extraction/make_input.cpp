// make_input OUT.mp4 SECONDS [--paired] [--interleaved|--fragmented|--mpegts]: a camera file for
// the benchmarks.
//
// 60 Mbit/s H.264 at 60 frames a second and one motion track: 1 kHz gyroscope and accelerometer,
// 60 Hz exposure, 10 Hz GPS, every sample a packet of its own (with --paired the two motion samples
// of an instant share one). The track follows the video; with --interleaved the two alternate by
// the second, as recorders write them, with --fragmented in fragments. The first second holds real
// frames, so that probing finds what it looks for; after it the pictures are holes of a sparse
// file, which cost no disk and read back as zeros. With --mpegts it is a transport stream: every
// byte is stored.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "samples/av_encode.h"
#include "samples/bytes.h"
#include "samples/camera.h"
#include "samples/mp4_layouts.h"

namespace {

using namespace motrace::samples;  // NOLINT(google-build-using-namespace): one short program

constexpr uint32_t kTicksPerSecond = 60000;  // divides by every rate below
constexpr uint32_t kFramesPerSecond = 60;
constexpr uint32_t kFrameBytes = 60'000'000 / 8 / kFramesPerSecond;
constexpr int kWidth = 640;
constexpr int kHeight = 320;
constexpr int kMotionRate = 1000;

// The frame with a filler NAL unit after it (type 12, ISO/IEC 14496-10), up to the frame size.
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

EncodedStream EncodedSecond() {
  H264Options options;
  options.width = kWidth;
  options.height = kHeight;
  options.frames = kFramesPerSecond;
  options.frames_per_second = kFramesPerSecond;
  options.b_frames = 0;
  return EncodeH264(options);
}

Mp4Track VideoTrack(uint32_t seconds) {
  const auto encoded = EncodedSecond();
  Mp4Track track = Mp4Track::Video(encoded.extradata(), kWidth, kHeight, kTicksPerSecond);
  constexpr uint32_t kFrameTicks = kTicksPerSecond / kFramesPerSecond;
  for (const auto& packet : encoded.packets) {
    track.Add(Padded(packet.data), kFrameTicks, 0, packet.key);
  }
  for (uint32_t i = kFramesPerSecond; i < seconds * kFramesPerSecond; ++i) {
    track.AddHole(kFrameBytes, kFrameTicks, i % kFramesPerSecond == 0);
  }
  return track;
}

CameraOptions Motion(uint32_t seconds, bool paired) {
  CameraOptions options;
  options.timescale = kTicksPerSecond;
  options.instants = static_cast<int>(seconds) * kMotionRate;
  options.motion_hertz = kMotionRate;
  options.exposure_hertz = kFramesPerSecond;
  options.other_hertz = 0;
  options.paired = paired;
  return options;
}

// The same second of pictures again and again, and the motion track as private data.
void WriteTransportStream(const char* path, uint32_t seconds, bool paired) {
  EncodedStream video = EncodedSecond();
  const std::vector<EncodedPacket> one_second = std::move(video.packets);
  video.packets.clear();
  for (uint32_t second = 0; second < seconds; ++second) {
    for (auto packet : one_second) {
      packet.data = Padded(packet.data);
      packet.pts += int64_t{second} * kFramesPerSecond;
      packet.dts += int64_t{second} * kFramesPerSecond;
      video.packets.push_back(std::move(packet));
    }
  }
  DataStream data;
  data.time_base = {1, static_cast<int>(kTicksPerSecond)};
  int64_t time = 0;
  RecordCamera(Motion(seconds, paired), [&](const Bytes& payload, uint32_t duration) {
    EncodedPacket packet;
    packet.data = payload;
    packet.pts = packet.dts = time;
    time += duration;
    data.packets.push_back(std::move(packet));
  });
  MuxWithLibavformat(path, "mpegts", &video, nullptr, &data);
}

}  // namespace

int main(int argc, char** argv) {
  const auto has_flag = [&](const char* flag) {
    return std::any_of(argv + 1, argv + argc, [&](const char* a) { return !std::strcmp(a, flag); });
  };
  const bool paired = has_flag("--paired");
  const bool interleaved = has_flag("--interleaved");
  const bool fragmented = has_flag("--fragmented");
  const bool transport = has_flag("--mpegts");
  const long seconds = argc >= 3 ? std::strtol(argv[2], nullptr, 10) : 0;
  if (argc != 3 + paired + interleaved + fragmented + transport || seconds < 1) {
    std::fprintf(stderr,
                 "usage: make_input OUT.mp4 SECONDS [--paired] "
                 "[--interleaved|--fragmented|--mpegts]\n");
    return 2;
  }
  try {
    const auto length = static_cast<uint32_t>(seconds);
    const CameraOptions motion = Motion(length, paired);
    if (transport) {
      WriteTransportStream(argv[1], length, paired);
    } else if (interleaved || fragmented) {
      Mp4Layout layout;
      layout.interleave_ms = 1000;
      if (fragmented) layout.order = Mp4Order::kFragmented;
      WriteMp4(argv[1], {VideoTrack(length), CameraTrack(motion)}, layout);
    } else {
      const std::string video = std::string(argv[1]) + ".part";
      WriteMp4(video, {VideoTrack(length)});
      WriteCamera(argv[1], motion, video);
      std::filesystem::remove(video);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_input: %s\n", e.what());
    return 1;
  }
  return 0;
}
