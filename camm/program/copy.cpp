// camm copy: carries a motion track over to another version of its video.

#include <fmt/format.h>

#include "camm/program/track_output.h"

namespace camm::program {
namespace {

struct CopyOptions {
  CommonOptions common;
  std::string from, to, output;
  std::string trim = ":", offset = "0";
  int stream = -1;
  bool replace = false, force = false;
};

int RunCopy(const CopyOptions& options) {
  const TimeRange range = ParseRange(options.trim);
  // The cut begins where the range does.
  const std::int64_t shift = Moved(ParseSeconds(options.offset), -range.start_ns.value_or(0));

  WriterOptions writing;
  writing.video = options.to;
  writing.overwrite = options.force;
  if (options.replace) writing.existing = ExistingTrack::kReplace;
  std::unique_ptr<TrackWriter> writer;
  ReadOptions reading;
  reading.stream_index = options.stream;
  reading.on_open = [&](const ReadResult& opened) {
    for (const Track& track : opened.tracks) {
      if (track.read && track.time_base_num == 1) {
        writing.time_scale = static_cast<std::uint32_t>(track.time_base_den);
      }
    }
    writer = std::make_unique<TrackWriter>(options.output, writing);
  };
  std::int64_t outside = 0;
  std::int64_t place = 0;  // where a packet without a time lies
  const ReadResult result =
      StreamPackets({options.from, nullptr}, reading, [&](const Packet& packet) {
        if (packet.time_ns != kNoTime) place = packet.time_ns;
        if (!range.Holds(place)) {
          ++outside;
        } else if (writer->ok()) {
          writer->AddPacket(Moved(place, shift), packet.data, packet.size);
        }
      });
  ReportReading(options.common, options.from, result);
  if (writer == nullptr) return static_cast<int>(result.status);
  if (outside > 0) {
    Note(options.common,
         fmt::format("{}: {} packets outside the range are left out", options.from, outside));
  }
  if (result.status == Status::kNoSamples) return static_cast<int>(result.status);
  const int code = FinishTrack(options.common, options.output, *writer);
  return code != kExitWhole ? code : static_cast<int>(result.status);
}

}  // namespace

void AddCopy(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CopyOptions>();
  CLI::App* verb =
      AddVerb(app, "copy", "Carry a motion track over to a cut or re-encoded video.",
              "camm copy --from ride.mp4 --to cut.mp4 -o out.mp4 --trim 12.5:60", options->common);
  verb->add_option("--from", options->from, "The video that holds the track")->required();
  verb->add_option("--to", options->to, "The video that is to hold it (none: the track alone)");
  verb->add_option("-o,--output", options->output, "The file to write")->required();
  verb->add_option("--trim", options->trim,
                   "START:END in seconds of the first video: what the second one shows of it");
  verb->add_option("--offset", options->offset, "Seconds to add to the times");
  verb->add_option("--stream", options->stream, "Index of the stream to read");
  verb->add_flag("--replace", options->replace, "Take the place of a track that is there");
  verb->add_flag("--force", options->force, "Replace an existing file");
  verb->callback([&run, options] { run = [options] { return RunCopy(*options); }; });
}

}  // namespace camm::program
