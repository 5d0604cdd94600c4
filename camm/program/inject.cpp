// camm inject: puts a log of motion samples into a video.

#include <fmt/format.h>

#include "camm/gps_time.h"
#include "camm/program/motion_log.h"
#include "camm/program/track_output.h"

namespace camm::program {
namespace {

struct InjectOptions {
  CommonOptions common;
  std::string video, log, output;
  std::string offset = "0", start_time;
  LogOptions reading;
  bool replace = false, force = false;
};

void Inject(const InjectOptions& options, TrackOutcome& outcome) {
  const std::int64_t offset = ParseSeconds(options.offset);
  LogOptions reading = options.reading;
  if (!options.start_time.empty()) {
    reading.start_unix_ns = ParseUtc(options.start_time);
    if (!reading.start_unix_ns) {
      throw UsageError(
          fmt::format("'{}' is no time such as 2026-01-02T10:11:12Z", options.start_time));
    }
  }
  WriterOptions writing;
  writing.video = options.video;
  writing.overwrite = options.force;
  if (options.replace) writing.existing = ExistingTrack::kReplace;
  TrackWriter writer(options.output, writing);
  std::int64_t without_time = 0;
  try {
    // What cannot be written need not be read.
    const auto remarks = !writer.ok()
                             ? std::vector<std::string>()
                             : ReadMotionLog(options.log, reading, [&](const TimedSample& sample) {
                                 without_time += sample.time_ns == kNoTime ? 1 : 0;
                                 writer.Add(Moved(sample.time_ns, offset), sample.sample);
                               });
    for (const std::string& remark : remarks) Note(options.common, remark);
  } catch (const LogError& error) {
    Message(error.what());
    outcome.error = error.what();
    return;
  }
  if (without_time > 0) {
    Note(options.common, fmt::format("{}: {} samples without a time get that of the one before",
                                     options.log, without_time));
  }
  FinishTrack(options.common, options.output, writer, outcome);
}

}  // namespace

void AddInject(CLI::App& app, Run& run) {
  const auto options = std::make_shared<InjectOptions>();
  CLI::App* verb =
      AddVerb(app, "inject",
              "Put motion samples into a copy of an MP4 or QuickTime video. INPUT is a\n"
              "folder of CSV files as camm export writes them, or one CSV, JSONL,\n"
              "EuRoC, Kalibr, .gcsv or GPX file.",
              "camm inject ride.mp4 ride.gpx -o out.mp4 --rate 10", options->common);
  verb->add_option("VIDEO", options->video)->required();
  verb->add_option("INPUT", options->log)->required();
  verb->add_option("-o,--output", options->output, "The file to write")
      ->type_name("OUT")
      ->required();
  verb->add_option("--offset", options->offset, "Added to the times")->type_name("S");
  verb->add_option("--rate", options->reading.rate_hz, "GPX: points a second, interpolated")
      ->type_name("HZ")
      ->check(CLI::PositiveNumber.description(""));
  verb->add_option("--start-time", options->start_time,
                   "GPX: UTC of the video's time 0 (the first point)")
      ->type_name("UTC");
  verb->add_option("--leap-seconds", options->reading.leap_seconds,
                   "GPX: GPS time is ahead of UTC by (a table by date)")
      ->type_name("N");
  verb->add_flag("--replace", options->replace, "Take the place of a track that is there");
  verb->add_flag("--force", options->force, "Replace an existing file");
  verb->callback([&run, options] {
    run = [options] {
      return RunTrackVerb(options->common, options->output,
                          [&](TrackOutcome& outcome) { Inject(*options, outcome); });
    };
  });
}

}  // namespace camm::program
