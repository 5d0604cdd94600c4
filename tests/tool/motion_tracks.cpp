#include "tool/motion_tracks.h"

#include <cstddef>

namespace motrace::testing {

const EncodedStream& SharedVideo() {
  static const EncodedStream stream = EncodeH264();
  return stream;
}

const EncodedStream& SharedAudio() {
  static const EncodedStream stream = EncodeAac();
  return stream;
}

Mp4Track VideoTrack() { return ToMp4Track(SharedVideo(), 90000); }
Mp4Track AudioTrack() { return ToMp4Track(SharedAudio(), 48000); }

std::vector<Bytes> MotionSource::Next() {
  std::vector<Bytes> samples{GyroSample(Vector()), AccelSample(Vector())};
  if (instant_ % 6 == 0) {
    samples.push_back(ExposureSample(static_cast<std::int32_t>(random_() % 33000000), 12345));
  }
  if (instant_ % 20 == 0) {
    GpsFix fix;
    fix.time_gps_epoch = 1.3e9 + instant_ / 200.0;
    fix.latitude = Degrees() / 2;
    fix.longitude = Degrees();
    fix.altitude = Value();
    fix.velocity_north = Value();
    samples.push_back(GpsSample(fix));
  }
  if (instant_ % 50 == 0) {
    samples.push_back(MagneticFieldSample(Vector()));
    samples.push_back(MinimalGpsSample(Degrees(), Degrees(), 100));
  }
  ++instant_;
  return samples;
}

Mp4Track MotionTrack(std::uint32_t timescale, int instants, int hertz, std::uint32_t seed) {
  Mp4Track track = Mp4Track::Camm(timescale);
  MotionSource source(seed);
  const auto ticks = [=](int instant) { return std::int64_t{timescale} * instant / hertz; };
  for (int i = 0; i < instants; ++i) {
    const std::vector<Bytes> samples = source.Next();
    for (std::size_t s = 0; s < samples.size(); ++s) {
      const bool last = s + 1 == samples.size();
      track.Add(samples[s], last ? static_cast<std::uint32_t>(ticks(i + 1) - ticks(i)) : 0);
    }
  }
  return track;
}

}  // namespace motrace::testing
