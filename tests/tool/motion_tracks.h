#ifndef MOTRACE_TESTS_TOOL_MOTION_TRACKS_H_
#define MOTRACE_TESTS_TOOL_MOTION_TRACKS_H_

#include <cstdint>
#include <random>
#include <vector>

#include "support/av_encode.h"
#include "support/camm_samples.h"
#include "support/mp4_writer.h"

/// Tracks that the tool's tests put together to files.
namespace motrace::testing {

/// One second of H.264 with B-frames (first decode time below zero), encoded once per process.
const EncodedStream& SharedVideo();
/// One second of AAC with priming, encoded once per process.
const EncodedStream& SharedAudio();

/// The shared streams as tracks with the usual time scales.
Mp4Track VideoTrack();
Mp4Track AudioTrack();

/// Random samples as a camera writes them: at each instant a gyroscope and an accelerometer sample
/// (one decode time for both), every 6th instant an exposure, every 20th a GPS fix, now and then a
/// type that is not decoded. Values are arbitrary but finite.
class MotionSource {
 public:
  explicit MotionSource(std::uint32_t seed) : random_(seed) {}
  /// The samples of the next instant.
  std::vector<Bytes> Next();

 private:
  float Value() { return std::uniform_real_distribution<float>(-40, 40)(random_); }
  double Degrees() { return std::uniform_real_distribution<double>(-180, 180)(random_); }
  Vec3 Vector() { return {Value(), Value(), Value()}; }

  std::mt19937 random_;
  int instant_ = 0;
};

/// A camm track of `instants` at `hertz`, every sample a packet of its own.
Mp4Track MotionTrack(std::uint32_t timescale, int instants = 200, int hertz = 200,
                     std::uint32_t seed = 1);

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_TOOL_MOTION_TRACKS_H_
