// make_input OUT.mp4 SECONDS [--paired] [--fragmented|--mpegts]: a camera file
// for the extraction benchmark.
//
// 60 Mbit/s H.264 at 60 frames a second and one motion track: 1 kHz gyroscope and accelerometer,
// 60 Hz exposure, 10 Hz GPS, every sample a packet of its own (with --paired the two motion samples
// of an instant share one), a chunk a second, or with --fragmented a fragment. The first second
// holds real frames, so that probing finds what it looks for; behind it the pictures are holes of a
// sparse file, which cost no disk and read back as zeros. With --mpegts it is a transport stream:
// every byte is stored.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>
#include <vector>

#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/mp4_writer.h"

namespace {

using motrace::testing::Bytes;
using motrace::testing::Mp4Track;

constexpr uint32_t kTicksPerSecond = 60000;  // divides by every rate below
constexpr uint32_t kFramesPerSecond = 60;
constexpr uint32_t kFrameBytes = 60'000'000 / 8 / kFramesPerSecond;
constexpr int kWidth = 640;
constexpr int kHeight = 320;
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

motrace::testing::EncodedStream EncodedSecond() {
  motrace::testing::H264Options options;
  options.width = kWidth;
  options.height = kHeight;
  options.frames = kFramesPerSecond;
  options.frames_per_second = kFramesPerSecond;
  options.b_frames = 0;
  return motrace::testing::EncodeH264(options);
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

// Calls add(payload, ticks to the next sample) for every sample of the motion track.
template <typename Add>
void ForEachMotionSample(uint32_t seconds, bool paired, Add add) {
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
      add(motrace::testing::GpsSample(fix), 0);
    }
    if (i * kFramesPerSecond / kMotionRate != (i + 1) * kFramesPerSecond / kMotionRate) {
      add(motrace::testing::ExposureSample(8'000'000, 16'000'000), 0);
    }
    const Bytes gyro = motrace::testing::GyroSample({wave(0.7), wave(0.5), wave(1.1)});
    const Bytes accel = motrace::testing::AccelSample({wave(1.8), wave(2.8), 9.81F});
    if (paired) {
      add(motrace::testing::Concat({gyro, accel}), kStep);
    } else {
      add(gyro, 0);
      add(accel, kStep);
    }
  }
}

Mp4Track MotionTrack(uint32_t seconds, bool paired) {
  Mp4Track track = Mp4Track::Camm(kTicksPerSecond);
  ForEachMotionSample(seconds, paired, [&track](const Bytes& payload, uint32_t duration) {
    track.Add(payload, duration);
  });
  return track;
}

// The same second of pictures again and again, and the motion track as private data.
void WriteTransportStream(const char* path, uint32_t seconds, bool paired) {
  motrace::testing::EncodedStream video = EncodedSecond();
  const std::vector<motrace::testing::EncodedPacket> one_second = std::move(video.packets);
  video.packets.clear();
  for (uint32_t second = 0; second < seconds; ++second) {
    for (auto packet : one_second) {
      packet.data = Padded(packet.data);
      packet.pts += int64_t{second} * kFramesPerSecond;
      packet.dts += int64_t{second} * kFramesPerSecond;
      video.packets.push_back(std::move(packet));
    }
  }
  motrace::testing::DataStream data;
  data.time_base = {1, static_cast<int>(kTicksPerSecond)};
  int64_t time = 0;
  ForEachMotionSample(seconds, paired, [&](const Bytes& payload, uint32_t duration) {
    motrace::testing::EncodedPacket packet;
    packet.data = payload;
    packet.pts = packet.dts = time;
    time += duration;
    data.packets.push_back(std::move(packet));
  });
  motrace::testing::MuxWithLibavformat(path, "mpegts", &video, nullptr, &data);
}

}  // namespace

int main(int argc, char** argv) {
  const auto has_flag = [&](const char* flag) {
    return std::any_of(argv + 1, argv + argc, [&](const char* a) { return !std::strcmp(a, flag); });
  };
  const bool paired = has_flag("--paired");
  const bool fragmented = has_flag("--fragmented");
  const bool transport = has_flag("--mpegts");
  const long seconds = argc >= 3 ? std::strtol(argv[2], nullptr, 10) : 0;
  if (argc != 3 + paired + fragmented + transport || seconds < 1) {
    std::fprintf(stderr, "usage: make_input OUT.mp4 SECONDS [--paired] [--fragmented|--mpegts]\n");
    return 2;
  }
  try {
    motrace::testing::Mp4Layout layout;
    layout.interleave_ms = 1000;
    if (fragmented) layout.order = motrace::testing::Mp4Order::kFragmented;
    const auto length = static_cast<uint32_t>(seconds);
    if (transport) {
      WriteTransportStream(argv[1], length, paired);
      return 0;
    }
    motrace::testing::WriteMp4(argv[1], {VideoTrack(length), MotionTrack(length, paired)}, layout);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_input: %s\n", e.what());
    return 1;
  }
  return 0;
}
