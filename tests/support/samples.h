// What the samples are made of, under the tests' own namespace, and the tracks that most tests use.
#ifndef MOTRACE_TESTS_SUPPORT_SAMPLES_H_
#define MOTRACE_TESTS_SUPPORT_SAMPLES_H_

#include "samples/av_encode.h"     // IWYU pragma: export
#include "samples/bytes.h"         // IWYU pragma: export
#include "samples/camera.h"        // IWYU pragma: export
#include "samples/mp4_layouts.h"   // IWYU pragma: export
#include "support/camm_samples.h"  // IWYU pragma: export

namespace motrace::testing {
using namespace samples;  // NOLINT(google-build-using-namespace): nearly every test makes some

/// Gyroscope samples (first, 0, 0), (first + 1, 0, 0), ..., `step` ticks apart.
inline Mp4Track GyroTrack(int samples, std::uint32_t step = 20, std::uint32_t timescale = 1000,
                          float first = 0) {
  Mp4Track track = Mp4Track::Camm(timescale);
  for (int i = 0; i < samples; ++i) {
    track.Add(GyroSample({first + static_cast<float>(i), 0, 0}), step);
  }
  return track;
}

/// A motion track of these packets, 10 ms apart.
inline Mp4Track PacketTrack(const std::vector<Bytes>& packets) {
  Mp4Track track = Mp4Track::Camm(1000);
  for (const Bytes& packet : packets) track.Add(packet, 10);
  return track;
}

/// A motion track of 200 kB, so that reading it takes several reads of the input.
inline Mp4Track LongTrack() { return PacketTrack(std::vector<Bytes>(100, Bytes(2000, 1))); }

/// A second of H.264; with B-frames, the first decode time lies below zero.
inline Mp4Track VideoTrack(int frames = 30, int b_frames = 2) {
  H264Options options;
  options.frames = frames;
  options.b_frames = b_frames;
  return ToMp4Track(EncodeH264(options), 90000);
}
/// A second of AAC; an edit list cuts the encoder's priming.
inline Mp4Track AudioTrack(int milliseconds = 1000, bool with_edit_list = true) {
  return ToMp4Track(EncodeAac({2, milliseconds}), 48000, with_edit_list);
}

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_SAMPLES_H_
