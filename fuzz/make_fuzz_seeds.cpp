// make_fuzz_seeds DIR: writes the seeds of the fuzz targets' corpora, DIR/<target>/<seed>.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/samples.h"
#include "support/temp_dir.h"

namespace {

using namespace motrace::testing;  // NOLINT(google-build-using-namespace): one short program
namespace fs = std::filesystem;

camm::Gps Fix() {
  camm::Gps fix;
  fix.fix_type = 3;
  fix.time_gps_s = 1400000000.25;
  fix.latitude_deg = 48.137;
  fix.longitude_deg = 11.575;
  fix.altitude_m = 519.5F;
  return fix;
}

// `instants` times one of each type.
CameraOptions Camera(std::uint32_t timescale, int instants) {
  constexpr int kHertz = 100;
  return {timescale, instants, kHertz, kHertz, kHertz, kHertz};
}

// A packet of the decoder's target: length, time, difference, payload.
Bytes DecoderPacket(const Bytes& payload, uint8_t time, uint8_t difference) {
  return Concat({Packed(static_cast<std::uint16_t>(payload.size()), time, difference), payload});
}

void WriteDecoderSeeds(const fs::path& directory) {
  fs::create_directories(directory);
  Bytes all{1};
  Bytes together;
  RecordCamera(Camera(1000, 1), [&](const Bytes& sample, std::uint32_t /*duration*/) {
    const std::uint8_t type = sample[2];
    WriteFile(directory / ("type_" + std::to_string(type)),
              Concat({{type}, DecoderPacket(sample, 100, 0)}));
    all = Concat({all, DecoderPacket(sample, static_cast<std::uint8_t>(101 + type), 1)});
    together = Concat({together, sample});
  });
  WriteFile(directory / "every_type", all);
  WriteFile(directory / "one_packet", Concat({{0}, DecoderPacket(together, 255, 0)}));
  WriteFile(directory / "carried_keys",
            Concat({{2},
                    DecoderPacket(Concat({ExposureSample(-1, 2), GyroSample({0.5F, -1.25F, 9.75F}),
                                          GpsSample(Fix()), AccelSample({}), GpsSample(Fix())}),
                                  254, 3)}));
  Bytes pairs{3};
  for (int i = 0; i < 14; ++i) {
    pairs = Concat(
        {pairs, DecoderPacket(Concat({GyroSample({0.5F, -1.25F, 9.75F}),
                                      AccelSample({0.5F, -1.25F, 9.75F}), ExposureSample(i, i)}),
                              static_cast<std::uint8_t>(i), 0)});
  }
  WriteFile(directory / "pairs", pairs);
}

Mp4Track Motion(std::uint32_t timescale) { return CameraTrack(Camera(timescale, 3)); }

void WriteContainerSeeds(const fs::path& directory) {
  fs::create_directories(directory);
  H264Options video_options;
  video_options.frames = 8;
  video_options.gop = 4;
  const EncodedStream video = EncodeH264(video_options);
  AacOptions audio_options;
  audio_options.milliseconds = 100;
  audio_options.channels = 1;
  const EncodedStream audio = EncodeAac(audio_options);

  Mp4Layout first;
  first.order = Mp4Order::kMoovFirst;
  Mp4Layout fragmented;
  fragmented.order = Mp4Order::kFragmented;
  fragmented.interleave_ms = 100;
  Mp4Track strange = Motion(1000000000);
  strange.media_duration = 0;
  strange.samples_without_time = 2;
  Mp4Track edited = Motion(1000);
  edited.edits = {{50, -1, 1}, {100, 40, 1}, {60, 0, 1}};
  const auto camera = [&](Mp4Track motion) {
    return std::vector<Mp4Track>{ToMp4Track(video, 90000), ToMp4Track(audio, 48000),
                                 std::move(motion)};
  };

  const fs::path plain_video = directory / "no_motion";
  MuxWithLibavformat(plain_video, "mp4", &video, &audio, nullptr);
  WriteCamera(directory / "camera", Camera(1000, 3), plain_video);
  WriteMp4(directory / "camera_moov_first", camera(Motion(90000)), first);
  WriteMp4(directory / "camera_fragmented", camera(Motion(1000)), fragmented);
  WriteCamera(directory / "motion", Camera(1000, 3));
  WriteMp4(directory / "motion_first", {Motion(48000), ToMp4Track(video, 90000)}, first);
  WriteMp4(directory / "nanoseconds", camera(std::move(strange)));
  WriteMp4(directory / "edit_list", {edited}, first);
  WriteMp4(directory / "timecode_too", {Mp4Track::Data("tmcd", "tmcd", 30000), Motion(1000)});
  MuxWithLibavformat(directory / "matroska", "matroska", &video, nullptr, nullptr);
  H264Options annex_b = video_options;
  annex_b.annex_b = true;
  annex_b.frames = 3;
  const EncodedStream broadcast = EncodeH264(annex_b);
  MuxWithLibavformat(directory / "transport_stream", "mpegts", &broadcast, nullptr, nullptr);

  // The last byte chooses how the target reads: one seed for each option.
  for (const int option : {1, 2, 4, 8, 8 + 16, 8 + 32, 2 + 8, 4 + 8, 1 + 2 + 4 + 8}) {
    const char* const base = option % 2 == 1 ? "camera_moov_first" : "camera";
    Bytes container = ReadFile(directory / (option % 4 == 0 ? "motion_first" : base));
    container.push_back(static_cast<std::uint8_t>(option));
    WriteFile(directory / ("option_" + std::to_string(option)), container);
  }
  for (const char* plain :
       {"camera", "camera_moov_first", "camera_fragmented", "motion", "motion_first", "nanoseconds",
        "edit_list", "no_motion", "timecode_too", "matroska", "transport_stream"}) {
    Bytes container = ReadFile(directory / plain);
    container.push_back(plain[0] == 'c' ? 0 : 64);
    WriteFile(directory / plain, container);
  }
}

// Inputs that FFmpeg must not be left alone with.
void WriteHostileSeeds(const fs::path& directory) {
  const auto write = [&directory](const char* name, const std::string& text) {
    WriteFile(directory / name, Bytes(text.begin(), text.end()));
  };
  write("playlist", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\ninput\n");
  write("live_playlist", "#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXTINF:9,\ninput\n");
  write("concat_script", "ffconcat version 1.0\nfile input\n");
  write("session_description", "v=0\nc=IN IP4 127.0.0.1\nm=video 5004 RTP/AVP 96\n");
  // A track without a header beside fragments.
  Mp4Layout fragmented;
  fragmented.order = Mp4Order::kFragmented;
  WriteMp4(directory / "unnumbered_track", {Motion(1000), Motion(1000)}, fragmented);
  Bytes content = ReadFile(directory / "unnumbered_track");
  const std::string header = "tkhd";
  std::search(content.begin(), content.end(), header.begin(), header.end())[0] = 'x';
  content.push_back(0);
  WriteFile(directory / "unnumbered_track", content);
}

// Files whose motion track is read by plan, or nearly so.
void WritePlanSeeds(const fs::path& directory) {
  fs::create_directories(directory);
  const auto motion = [](std::uint32_t duration) {
    Mp4Track track = Mp4Track::Camm(1000);
    for (int i = 0; i < 60; ++i) track.Add(GyroSample({}), duration);
    return track;
  };
  Mp4Layout first;
  first.order = Mp4Order::kMoovFirst;
  Mp4Layout chunks;
  chunks.interleave_ms = 10;
  Mp4Track edited = motion(10);
  edited.edits = {{50, -1, 1}, {100, 40, 1}, {60, 0, 1}};
  Mp4Track sizes = motion(10);
  for (std::size_t i = 0; i < 20; ++i) sizes.Add(Bytes(i * 7), 0);
  Mp4Track untimed = motion(10);
  untimed.samples_without_time = 3;
  const struct {
    const char* name;
    std::vector<Mp4Track> tracks;
    Mp4Layout layout;
  } seeds[] = {{"one_chunk", {motion(10)}, {}},  {"instants", {motion(0)}, first},
               {"chunks", {motion(10)}, chunks}, {"two_tracks", {motion(5), motion(10)}, chunks},
               {"edit_list", {edited}, first},   {"sizes", {sizes}, first},
               {"untimed", {untimed}, {}}};
  std::uint8_t choice = 0;
  for (const auto& seed : seeds) {
    WriteMp4(directory / seed.name, seed.tracks, seed.layout);
    Bytes content = ReadFile(directory / seed.name);
    content.push_back(choice++);
    WriteFile(directory / seed.name, content);
  }
}

// Bytes that the image engines' target draws its choices from: one input for each engine and form.
void WriteImageSeeds(const fs::path& directory) {
  fs::create_directories(directory);
  for (std::uint8_t engine = 0; engine < 3; ++engine) {
    for (std::uint8_t form = 0; form < 4; ++form) {
      Bytes input{engine};
      for (int i = 0; i < 600; ++i) {
        input.push_back(
            static_cast<std::uint8_t>(i < 24 ? 24 + form + 16 * (i % 3) : i * (form + 7)));
      }
      WriteFile(directory / ("engine_" + std::to_string(engine) + "_" + std::to_string(form)),
                input);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: make_fuzz_seeds DIR\n", stderr);
    return 2;
  }
  try {
    WriteDecoderSeeds(fs::path(argv[1]) / "camm_filter");
    WriteContainerSeeds(fs::path(argv[1]) / "extraction");
    WriteHostileSeeds(fs::path(argv[1]) / "extraction");
    WritePlanSeeds(fs::path(argv[1]) / "reading_plan");
    WriteImageSeeds(fs::path(argv[1]) / "image_engines");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_fuzz_seeds: %s\n", error.what());
    return 1;
  }
  return 0;
}
