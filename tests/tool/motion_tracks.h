#ifndef MOTRACE_TESTS_TOOL_MOTION_TRACKS_H_
#define MOTRACE_TESTS_TOOL_MOTION_TRACKS_H_

#include <cstdint>

#include "support/samples.h"

/// Tracks that the tool's tests put together to files.
namespace motrace::testing {

/// One second of H.264 with B-frames (first decode time below zero), encoded once per process.
inline const EncodedStream& SharedVideo() {
  static const EncodedStream stream = EncodeH264();
  return stream;
}
/// One second of AAC with priming, encoded once per process.
inline const EncodedStream& SharedAudio() {
  static const EncodedStream stream = EncodeAac();
  return stream;
}

/// The shared streams as tracks with the usual time scales.
inline Mp4Track VideoTrack() { return ToMp4Track(SharedVideo(), 90000); }
inline Mp4Track AudioTrack() { return ToMp4Track(SharedAudio(), 48000); }

/// A camm track of `instants` at `hertz`, every sample a packet of its own.
inline Mp4Track MotionTrack(std::uint32_t timescale, int instants = 200, int hertz = 200) {
  return CameraTrack({timescale, instants, hertz});
}

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_TOOL_MOTION_TRACKS_H_
