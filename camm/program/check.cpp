// camm check: what is wrong with a motion track.

#include "camm/check.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "av_toolbox/address.h"
#include "camm/program/program.h"

namespace camm::program {
namespace {

struct CheckVerbOptions {
  CommonOptions common;
  std::vector<std::string> files;
  CheckOptions checking;
  std::string profile = "general";
};

const char* Word(Severity severity) {
  switch (severity) {
    case Severity::kNote:
      return "note";
    case Severity::kWarning:
      return "warning";
    case Severity::kError:
      return "error";
  }
  return "";
}

nlohmann::ordered_json ToJson(const std::string& name, const CheckResult& result) {
  nlohmann::ordered_json findings = nlohmann::ordered_json::array();
  for (const Finding& finding : result.findings) {
    findings.push_back(
        {{"code", finding.code},
         {"severity", Word(finding.severity)},
         {"time_ns", finding.time_ns == kNoTime ? nlohmann::ordered_json()
                                                : nlohmann::ordered_json(finding.time_ns)},
         {"detail", finding.detail}});
  }
  return {{"file", name},
          {"status", static_cast<int>(result.reading.status)},
          {"findings", std::move(findings)}};
}

int ExitCodeOf(const CheckResult& result) {
  const Status status = result.reading.status;
  if (status != Status::kWhole && status != Status::kPartial) return static_cast<int>(status);
  return result.Wrong() ? kExitPartial : kExitWhole;
}

int RunCheck(const CheckVerbOptions& options) {
  OutputFiles output(/*force=*/false);
  formats::TextOut& out = output.StandardOutput();
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  int worst = kExitWhole;
  std::optional<FilesProgress> progress(std::in_place, options.common, options.files);
  for (const std::string& path : options.files) {
    progress->Next();
    const std::string name = lum::ShownName(path);
    const CheckResult result = Check(path, options.checking);
    const int code = ExitCodeOf(result);
    if (code != kExitWhole) worst = options.files.size() == 1 ? code : kExitPartial;
    if (code > kExitPartial) ReportReading(options.common, path, result.reading);
    if (options.common.json) {
      all.push_back(ToJson(name, result));
      continue;
    }
    for (const Finding& finding : result.findings) {
      const std::string time =
          finding.time_ns == kNoTime
              ? ""
              : fmt::format(" at {:.3f} s", static_cast<double>(finding.time_ns) * 1e-9);
      out << Printable(fmt::format("{}: {}: {}{}: {}", name, Word(finding.severity), finding.code,
                                   time, finding.detail))
          << '\n';
    }
    if (result.findings.empty() && code == kExitWhole) {
      out << Printable(name) << ": nothing found\n";
    }
  }
  progress.reset();
  if (options.common.json) {
    // Names and texts may be anything: what is not UTF-8 is replaced.
    const auto& shown = options.files.size() == 1 ? all[0] : all;
    out << shown.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
  }
  (void)output.Commit();
  return worst;
}

}  // namespace

void AddCheck(CLI::App& app, Run& run) {
  const auto options = std::make_shared<CheckVerbOptions>();
  CLI::App* verb = AddVerb(app, "check", "Say what is wrong with a motion track.",
                           "camm check ride.mp4 --profile streetview", options->common);
  verb->add_option("FILE", options->files, "Video files")->required();
  verb->add_option("--profile", options->profile,
                   "Whose rules and names: general or streetview (general)")
      ->type_name("P")
      ->check(CLI::IsMember({"general", "streetview"}).description(""));
  verb->add_option("--stream", options->checking.stream_index,
                   "Stream to read (the first camm track)")
      ->type_name("N");
  verb->callback([&run, options] {
    if (options->profile == "streetview") options->checking.profile = Profile::kStreetView;
    run = [options] { return RunCheck(*options); };
  });
}

}  // namespace camm::program
