// camm report: pages that show recordings.

#include <fmt/format.h>

#include "av_toolbox/address.h"
#include "camm/program/program.h"
#include "camm/program/report/page.h"

namespace camm::program {
namespace {

namespace fs = std::filesystem;

struct ReportOptions {
  CommonOptions common;
  std::vector<std::string> files;
  std::string output = "report.html";
  bool force = false;
};

/// Writes the page of one file. @return its exit code; without a track there is no page.
int WritePage(const ReportOptions& options, const std::string& name, const fs::path& path) {
  const Recording recording = Read({name, nullptr});
  ReportReading(options.common, name, recording.result);
  const int code = static_cast<int>(recording.result.status);
  if (code == kExitCannot || code == kExitNoTrack) return code;
  OutputFiles output(options.force);
  output.Create(path) << report::Page(lum::ShownName(name), recording);
  (void)output.Commit();
  return code;
}

int RunReport(const ReportOptions& options) {
  const fs::path index = options.output;
  if (options.files.size() == 1) return WritePage(options, options.files.front(), index);

  const std::vector<std::string> names = FolderNames(options.files);
  int worst = kExitWhole;
  std::string list;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const fs::path page = fs::path(index.stem()) / (names[i] + ".html");
    const int code = WritePage(options, options.files[i], index.parent_path() / page);
    if (code != kExitWhole) worst = kExitPartial;
    const std::string title = Escaped(Printable(lum::ShownName(options.files[i])));
    list += code == kExitCannot || code == kExitNoTrack
                ? fmt::format("<li>{}: no report\n", title)
                : fmt::format("<li><a href=\"{}\">{}</a>{}\n", report::UrlPath(page.string()),
                              title, code == kExitPartial ? ": damaged" : "");
  }
  OutputFiles output(options.force);
  output.Create(index) << report::Index(list);
  (void)output.Commit();
  return worst;
}

}  // namespace

void AddReport(CLI::App& app, Run& run) {
  const auto options = std::make_shared<ReportOptions>();
  CLI::App* verb = AddVerb(app, "report", "Make a page that shows a recording.",
                           "camm report ride.mp4 -o ride.html", options->common);
  verb->add_option("FILE", options->files, "Video files")->required();
  verb->add_option("-o,--output", options->output,
                   "The page; several files' are listed there (report.html)")
      ->type_name("PAGE");
  verb->add_flag("--force", options->force, "Replace what exists");
  verb->remove_option(verb->get_option("--json"));  // the page is all there is to tell
  verb->callback([&run, options] { run = [options] { return RunReport(*options); }; });
}

}  // namespace camm::program
