// camm copy: carries a motion track over to another version of its video.

#include <fmt/format.h>

#include "av_toolbox/address.h"
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

void Copy(const CopyOptions& options, TrackOutcome& outcome) {
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
  std::int64_t place = 0;  // where a packet without a time lies
  const ReadResult result =
      StreamPackets({options.from, nullptr}, reading, [&](const Packet& packet) {
        if (packet.time_ns != kNoTime) place = packet.time_ns;
        if (!range.Holds(place)) {
          ++outcome.left_out;
        } else if (writer->ok()) {
          writer->AddPacket(Moved(place, shift), packet.data, packet.size);
        }
      });
  ReportReading(options.common, options.from, result);
  outcome.error = result.error;
  outcome.exit_code = static_cast<int>(result.status);
  if (outcome.left_out > 0) {
    Note(options.common, fmt::format("{}: {} packets outside the range are left out",
                                     lum::ShownName(options.from), outcome.left_out));
  }
  if (writer == nullptr || result.status == Status::kNoSamples) return;
  FinishTrack(options.common, options.output, *writer, outcome);
  if (outcome.exit_code == kExitWhole) outcome.exit_code = static_cast<int>(result.status);
}

}  // namespace

void AddCopy(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CopyOptions>();
  CLI::App* verb =
      AddVerb(app, "copy", "Carry a motion track over to a cut or re-encoded video.",
              "camm copy --from ride.mp4 --to cut.mp4 -o out.mp4 --trim 12.5:60", options->common);
  const auto add = [verb](const char* name, auto& value, const char* type, const char* text) {
    return verb->add_option(name, value, text)->type_name(type);
  };
  add("--from", options->from, "A", "The video that holds the track")->required();
  add("--to", options->to, "B", "The video that is to hold it (none: the track alone)");
  add("-o,--output", options->output, "C", "The file to write")->required();
  add("--trim", options->trim, "START:END", "Seconds of A that B shows");
  add("--offset", options->offset, "S", "Added to the times");
  add("--stream", options->stream, "N", "Stream to read (the first camm track)");
  verb->add_flag("--replace", options->replace, "Take the place of a track that is there");
  verb->add_flag("--force", options->force, "Replace an existing file");
  verb->callback([&run, options] {
    run = [options] {
      return RunTrackVerb(options->common, options->output,
                          [&](TrackOutcome& outcome) { Copy(*options, outcome); });
    };
  });
}

}  // namespace camm::program
