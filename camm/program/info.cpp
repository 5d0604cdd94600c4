// camm info: what a recording holds, on one screen.

#include <optional>

#include "av_toolbox/address.h"
#include "camm/program/program.h"
#include "camm/program/summary_text.h"

namespace camm::program {
namespace {

struct InfoOptions {
  CommonOptions common;
  std::vector<std::string> files;
  int stream = -1;
};

int RunInfo(const InfoOptions& options) {
  OutputFiles output(/*force=*/false);
  formats::TextOut& out = output.StandardOutput();
  std::string all;
  int worst = kExitWhole;
  ReadOptions reading;
  reading.stream_index = options.stream;
  std::optional<FilesProgress> progress(std::in_place, options.common, options.files);
  for (const std::string& path : options.files) {
    progress->Next();
    const std::string name = lum::ShownName(path);
    const Summary info = Summarize({path, nullptr}, reading);
    ReportReading(options.common, path, info.result);
    if (options.common.json) {
      all += (all.empty() ? "" : ",\n") + SummaryJson(name, info);
    } else if (info.result.status != Status::kCannotOpen) {
      out << SummaryText(name, info);
    }
    const int code = static_cast<int>(info.result.status);
    if (code != kExitWhole) worst = options.files.size() == 1 ? code : kExitPartial;
  }
  progress.reset();
  if (options.common.json) {
    out << (options.files.size() == 1 ? all : "[\n" + all + "\n]") << '\n';
  }
  (void)output.Commit();
  return worst;
}

}  // namespace

void AddInfo(CLI::App& app, Run& run) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* verb = AddVerb(app, "info", "Say what a recording holds, on one screen.",
                           "camm info ride.mp4", options->common);
  verb->add_option("FILE", options->files)->required();
  verb->add_option("--stream", options->stream, "Stream to read (the first camm track)")
      ->type_name("N");
  verb->callback([&run, options] { run = [options] { return RunInfo(*options); }; });
}

}  // namespace camm::program
