#include "tool/motion_tracks.h"

#include <algorithm>
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
  for (int i = 0; i < instants; ++i) {
    const auto ticks = [&](int instant) {
      return std::uint64_t{timescale} * static_cast<std::uint64_t>(instant) /
             static_cast<std::uint64_t>(hertz);
    };
    const std::vector<Bytes> samples = source.Next();
    for (std::size_t s = 0; s < samples.size(); ++s) {
      const bool last = s + 1 == samples.size();
      track.Add(samples[s], last ? static_cast<std::uint32_t>(ticks(i + 1) - ticks(i)) : 0);
    }
  }
  return track;
}

Mp4Track GroupedMotionTrack(std::uint32_t timescale, int instants, int hertz,
                            int instants_per_packet, std::uint32_t seed) {
  Mp4Track track = Mp4Track::Camm(timescale);
  MotionSource source(seed);
  for (int i = 0; i < instants; i += instants_per_packet) {
    Bytes packet;
    for (int k = i; k < std::min(instants, i + instants_per_packet); ++k) {
      for (const Bytes& sample : source.Next()) {
        packet.insert(packet.end(), sample.begin(), sample.end());
      }
    }
    track.Add(packet, timescale / static_cast<std::uint32_t>(hertz) *
                          static_cast<std::uint32_t>(instants_per_packet));
  }
  return track;
}

Bytes RandomPayload(std::mt19937& random) {
  const auto below = [&random](std::uint32_t limit) {
    return static_cast<std::uint32_t>(random() % limit);
  };
  Bytes payload;
  const std::uint32_t pieces = below(6);
  for (std::uint32_t i = 0; i < pieces; ++i) {
    Bytes piece =
        CammHeader(static_cast<std::uint16_t>(below(9)), static_cast<std::uint16_t>(below(3)));
    // Whole payloads are 8, 12 or 56 bytes; a byte more or less is as likely as an exact fit.
    constexpr std::size_t kSizes[] = {0, 3, 7, 8, 9, 11, 12, 13, 24, 55, 56, 57};
    const std::size_t size = kSizes[below(12)];
    const bool noise = below(2) == 0;
    for (std::size_t k = 0; k < size; ++k) {
      piece.push_back(static_cast<std::uint8_t>(noise ? random() : below(7)));
    }
    payload.insert(payload.end(), piece.begin(), piece.end());
  }
  for (std::uint32_t i = below(4); i > 0; --i) payload.push_back(static_cast<std::uint8_t>(i));
  return payload;
}

}  // namespace motrace::testing
