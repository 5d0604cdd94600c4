// camm export: a recording in the formats that other tools read.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <regex>

#include "av_toolbox/address.h"
#include "camm/gps_time.h"
#include "camm/program/formats/formats.h"
#include "camm/program/program.h"
#include "camm/program/track_output.h"

namespace camm::program {
namespace {

namespace fs = std::filesystem;
using formats::Format;
using formats::Report;
using nlohmann::ordered_json;

constexpr unsigned kAllTypes = (1U << kTypeCount) - 1;

struct ExportOptions {
  CommonOptions common;
  std::vector<std::string> files;
  std::string format_names;
  std::string type_names;
  std::string output;
  std::string start_time;
  std::string epoch_offset;
  double gap_s = 10;
  double tolerance_ms = -1;
  int leap_seconds = 0;
  bool force = false;
  int jobs = 1;
  ReadOptions reading;
  formats::Options settings;

  // What the names stand for.
  std::vector<const Format*> formats;
  unsigned types = kAllTypes;
  bool to_standard_output = false;
};

/// What became of one input.
struct Outcome {
  int exit_code = kExitCannot;
  std::int64_t samples = 0;
  std::vector<std::string> written;
  std::vector<std::string> notes;
  std::string error;
};

std::vector<std::string> Split(const std::string& list) {
  std::vector<std::string> parts;
  for (std::size_t at = 0; at <= list.size();) {
    const std::size_t end = std::min(list.find(',', at), list.size());
    parts.push_back(list.substr(at, end - at));
    at = end + 1;
  }
  return parts;
}

std::string AllNames() {
  std::string names;
  for (const Format& format : formats::AllFormats()) {
    names += (names.empty() ? "" : ", ") + std::string(format.name);
  }
  return names;
}

/// Checks the options and fills in what their names stand for.
void Resolve(ExportOptions& options, bool leap_seconds_given) {
  for (const std::string& name : Split(options.format_names)) {
    const Format* format = formats::FindFormat(name);
    if (format == nullptr) {
      throw UsageError("there is no format '" + name + "'; there are " + AllNames());
    }
    if (std::find(options.formats.begin(), options.formats.end(), format) ==
        options.formats.end()) {
      options.formats.push_back(format);
    }
  }
  if (!options.type_names.empty()) {
    options.types = 0;
    for (const std::string& name : Split(options.type_names)) {
      std::size_t type = 0;
      while (type < kTypeCount && TypeName(type) != name) ++type;
      if (type == kTypeCount) throw UsageError("there is no sample type '" + name + "'");
      options.types |= 1U << type;
    }
  }
  formats::Options& settings = options.settings;
  if (leap_seconds_given) settings.track.leap_seconds = options.leap_seconds;
  if (!options.start_time.empty()) {
    settings.track.start_unix_ns = ParseUtc(options.start_time);
    if (!settings.track.start_unix_ns) {
      throw UsageError("'" + options.start_time + "' is no time like 2026-01-02T10:11:12Z");
    }
  }
  if (!options.epoch_offset.empty()) settings.epoch_offset_ns = ParseSeconds(options.epoch_offset);
  settings.track.gap_ns = std::llround(options.gap_s * 1e9);
  if (options.tolerance_ms >= 0) settings.tolerance_ns = std::llround(options.tolerance_ms * 1e6);
  static const std::regex kImages(R"([^%\s/]*%(0[1-9])?d[^%\s/]*)");
  if (!std::regex_match(settings.images, kImages)) {
    throw UsageError("--images must be a name with one number, like frame_%06d.jpg");
  }
  static const std::regex kOrientation("[XxYyZz]{3}");
  if (!std::regex_match(settings.orientation, kOrientation)) {
    throw UsageError("--orientation must be three of X, Y, Z, x, y, z");
  }
  options.to_standard_output = options.output == "-";
  if (options.to_standard_output &&
      (options.files.size() > 1 || options.formats.size() > 1 || options.common.json)) {
    throw UsageError("standard output takes one format of one file");
  }
}

/// A format's files in the input's folder.
class FolderFiles : public formats::Files {
 public:
  FolderFiles(OutputFiles& output, const ExportOptions& options, fs::path folder,
              const fs::path& video)
      : output_(output), options_(options), folder_(std::move(folder)), video_(video) {}

  formats::TextOut& Create(const std::string& name) override {
    if (options_.to_standard_output) {
      if (std::exchange(standard_output_used_, true)) {
        throw UsageError("standard output takes one file: choose with --types");
      }
      return output_.StandardOutput();
    }
    // The log of a stabiliser is looked for beside the video.
    const fs::path path(name);
    if (options_.output.empty() && path.extension() == ".gcsv") {
      return output_.Create(video_.parent_path() / path);
    }
    return output_.Create(folder_ / path);
  }

 private:
  OutputFiles& output_;
  const ExportOptions& options_;
  fs::path folder_;
  fs::path video_;
  bool standard_output_used_ = false;
};

/// Where a reading is, for the progress line. Written by one thread, read by another.
struct ReadingProgress {
  std::atomic<std::int64_t> total{0}, done{0};

  [[nodiscard]] std::string Text(const std::string& name) const {
    if (total <= 0) return fmt::format("{}: {} samples", name, done);
    return fmt::format("{}: {} %", name,
                       std::min<std::int64_t>(100, done * 100 / std::max<std::int64_t>(1, total)));
  }
};

/// The name without folder and extension, as output files carry it.
std::string Stem(const std::string& input) { return FolderNames({input}).front(); }

/// Reads into `recording` and counts the samples of the types asked for. Formats that take them as
/// they come write here; series are kept for the others.
std::int64_t ReadSamples(const ExportOptions& options, const std::string& input,
                         const formats::Options& settings, formats::Files& files,
                         ReadingProgress& progress, Recording& recording) {
  ReadOptions reading = options.reading;
  reading.on_open = [&](const ReadResult& result) {
    for (const Track& track : result.tracks) {
      if (track.read) progress.total = track.packets;
    }
  };
  std::vector<std::unique_ptr<formats::StreamWriter>> streams;
  unsigned kept = 0;
  for (const Format* format : options.formats) {
    if (format->stream != nullptr) streams.push_back(format->stream(settings, files));
    kept |= format->types;
  }
  kept &= options.types;
  std::int64_t taken = 0;
  recording.result = Stream({input, nullptr}, reading, [&](const TimedSample& sample) {
    progress.done.store(progress.done.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    const unsigned bit = 1U << sample.sample.index();
    if ((options.types & bit) == 0) return;
    ++taken;
    for (const auto& stream : streams) stream->Add(sample);
    if ((kept & bit) == 0) return;
    std::visit(
        [&](const auto& value) {
          using Type = std::decay_t<decltype(value)>;
          recording.Of<Type>().push_back({sample.time_ns, value});
        },
        sample.sample);
  });
  return taken;
}

/// Writes the formats that need the whole recording, notes what became of each, and returns how
/// many there was nothing for.
std::size_t WriteFormats(const std::vector<const Format*>& wanted, const formats::Source& source,
                         formats::Files& files, Outcome& outcome) {
  std::size_t missing = 0;
  for (const Format* format : wanted) {
    Report report;
    if (format->write != nullptr && outcome.samples > 0) {
      report = format->write(source, files);
    } else {
      report.written = outcome.samples > 0;
    }
    if (outcome.samples == 0) report.notes = {"no samples of the types asked for"};
    for (const std::string& note : report.notes) {
      outcome.notes.push_back(fmt::format("{}: {}", format->name, note));
    }
    if (!report.written) {
      ++missing;
      outcome.notes.push_back(fmt::format("{}: not written", format->name));
    }
  }
  return missing;
}

Outcome ExportOne(const ExportOptions& options, const std::string& input, const fs::path& folder,
                  ReadingProgress& progress) {
  Outcome outcome;
  OutputFiles output(options.force);
  const std::string shown = lum::ShownName(input);
  // Nothing can be written beside an address.
  FolderFiles files(output, options, folder,
                    lum::IsWebAddress(input) ? folder / "video" : fs::path(input));
  formats::Options settings = options.settings;
  settings.name = Stem(input);
  settings.video = fs::path(shown).filename().string();

  Recording recording;
  outcome.samples = ReadSamples(options, input, settings, files, progress, recording);
  const Status status = recording.result.status;
  ReportReading(options.common, input, recording.result);
  outcome.exit_code = static_cast<int>(status);
  outcome.error = recording.result.error;
  if (status != Status::kWhole && status != Status::kPartial) return outcome;

  FrameTimes frames;
  const bool need_frames = std::any_of(options.formats.begin(), options.formats.end(),
                                       [](const Format* format) { return format->frames; });
  if (need_frames) frames = ReadFrames({input, nullptr});
  const std::size_t missing =
      WriteFormats(options.formats, {recording, frames, settings}, files, outcome);
  for (const std::string& note : outcome.notes) {
    Note(options.common, fmt::format("{}: {}", shown, note));
  }
  if (missing == options.formats.size()) {
    outcome.exit_code = kExitNoSamples;
    return outcome;
  }
  if (missing > 0) outcome.exit_code = kExitPartial;
  for (const fs::path& path : output.Commit()) outcome.written.push_back(path.string());
  return outcome;
}

const char* Word(int exit_code) {
  constexpr std::array kWords{"whole", "partial", "wrong use", "failed", "no track", "no samples"};
  return kWords.at(static_cast<std::size_t>(exit_code));
}

void Summarise(const ExportOptions& options, const std::vector<Outcome>& outcomes) {
  OutputFiles output(/*force=*/false);
  formats::TextOut& out = output.StandardOutput();
  if (options.common.json) {
    ordered_json all = ordered_json::array();
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
      all.push_back({{"file", lum::ShownName(options.files[i])},
                     {"exit_code", outcomes[i].exit_code},
                     {"error", outcomes[i].error},
                     {"samples", outcomes[i].samples},
                     {"written", outcomes[i].written},
                     {"notes", outcomes[i].notes}});
    }
    const ordered_json& shown = all.size() == 1 ? all.front() : all;
    out << shown.dump(2, ' ', false, ordered_json::error_handler_t::replace) << '\n';
  } else if (outcomes.size() > 1 && !options.common.quiet) {
    out << fmt::format("{:<10} {:>9} {:>5}  {}\n", "result", "samples", "files", "input");
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
      out << fmt::format("{:<10} {:>9} {:>5}  {}\n", Word(outcomes[i].exit_code),
                         outcomes[i].samples, outcomes[i].written.size(),
                         Printable(lum::ShownName(options.files[i])));
    }
  }
  (void)output.Commit();
}

int RunExport(const ExportOptions& options) {
  const std::size_t count = options.files.size();
  const std::vector<std::string> folders = FolderNames(options.files);
  const fs::path base = options.output.empty() ? fs::path() : fs::path(options.output);
  std::vector<Outcome> outcomes(count);
  std::vector<ReadingProgress> progress(count);
  std::atomic<std::size_t> finished{0};
  {
    const Progress line(options.common, [&] {
      return count == 1 ? progress[0].Text(lum::ShownName(options.files[0]))
                        : fmt::format("{} of {} files", finished, count);
    });
    ForEach(count, options.jobs, [&](std::size_t i) {
      const std::string& input = options.files[i];
      const auto failed = [&](int exit_code, const char* error) {
        outcomes[i].exit_code = exit_code;
        outcomes[i].error = error;
        Message(error);
      };
      try {
        outcomes[i] = ExportOne(options, input, count == 1 ? base : base / folders[i], progress[i]);
      } catch (const UsageError& error) {
        failed(kExitUsage, error.what());
      } catch (const std::bad_alloc&) {
        failed(kExitCannot, "out of memory");
      } catch (const std::exception& error) {
        failed(kExitCannot, error.what());
      }
      ++finished;
    });
  }
  Summarise(options, outcomes);
  if (count == 1) return outcomes.front().exit_code;
  const bool good = std::all_of(outcomes.begin(), outcomes.end(), [](const Outcome& outcome) {
    return outcome.exit_code == kExitWhole;
  });
  return good ? kExitWhole : kExitPartial;
}

}  // namespace

void AddExport(CLI::App& app, Run& run) {
  const auto options = std::make_shared<ExportOptions>();
  formats::Options& settings = options->settings;
  CLI::App* verb = AddVerb(app, "export", "Write a recording in the formats that other tools read.",
                           "camm export ride.mp4 --format csv,gpx -o ride", options->common);
  const auto add = [verb](const char* name, auto& value, const char* type, const char* text) {
    return verb->add_option(name, value, text)->type_name(type);
  };
  // The help shows what an option takes by name, not by range.
  const auto in = [](auto low, auto high) { return CLI::Range(low, high).description(""); };
  verb->add_option("FILE", options->files)->required();
  add("-f,--format", options->format_names, "F,...",
      "csv, jsonl, npz, gpx, geojson, kml, gcsv, euroc,\nkalibr, frames, odm, colmap")
      ->required();
  add("-o,--output", options->output, "DIR",
      "Folder, - for standard output (here, gcsv by its video)");
  verb->add_flag("--force", options->force, "Replace existing files");
  add("-j,--jobs", options->jobs, "N", "Files at once (1)")->check(in(1, 256));
  add("--types", options->type_names, "T,...", "Only these sample types, such as gyro,accel");
  add("--stream", options->reading.stream_index, "N", "Stream to read (the first camm track)");
  CLI::Option* leap = add("--leap-seconds", options->leap_seconds, "N",
                          "Maps: GPS time is ahead of UTC by (a table by date)")
                          ->check(in(-1000, 1000));
  add("--start-time", options->start_time, "UTC", "Maps: UTC of time 0, where GPS gives none");
  add("--rate", settings.track.rate_hz, "HZ", "Maps: at most this many points a second")
      ->check(in(1e-9, 1e9));
  add("--gap", options->gap_s, "S", "Maps: a longer gap starts a new segment (10)")
      ->check(in(0.0, 1e9));
  add("--orientation", settings.orientation, "XYZ", "gcsv: where the axes point (XYZ)");
  add("--epoch-offset", options->epoch_offset, "S",
      "euroc (0), kalibr (1000000000): added to all times");
  add("--tolerance", options->tolerance_ms, "MS", "frames: to the nearest exposure (half a frame)")
      ->check(in(0.0, 1e9));
  verb->add_flag("--interpolate", settings.interpolate,
                 "frames: position, orientation, rates at mid-exposure");
  add("--every-metres", settings.every_metres, "M",
      "frames, odm, colmap: only frames that far apart")
      ->check(in(1e-9, 1e9));
  add("--images", settings.images, "NAME", "odm, colmap: image names (frame_%06d.jpg)");
  verb->callback([&run, options, leap] {
    Resolve(*options, leap->count() > 0);
    run = [options] { return RunExport(*options); };
  });
}

}  // namespace camm::program
