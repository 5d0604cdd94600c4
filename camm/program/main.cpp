// camm VERB …: camera motion tracks of video files.

#include <malloc.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <sstream>
#include <string>

#include "camm/program/program.h"

namespace {

using namespace camm::program;  // NOLINT(google-build-using-namespace): this is its main()

int Main(int argc, char** argv) {
  CLI::App app(
      "Looks at the camera motion (CAMM) track of video files, and writes it in other formats.",
      "camm");
  app.set_version_flag("--version", "camm " CAMM_VERSION);
  app.require_subcommand(1);
  app.footer(
      "'camm VERB --help' explains a verb. Exit codes: 0 whole, 1 partial or damaged,\n"
      "2 wrong command line, 3 cannot open or write, 4 no camm track, 5 no samples.");
  Run run;
  AddInfo(app, run);
  AddExport(app, run);
  AddInject(app, run);
  AddCopy(app, run);
  AddCheck(app, run);
  AddReport(app, run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& request) {  // help or version
    return app.exit(request);
  } catch (const CLI::ParseError& error) {
    Message(error.what());
    const auto verbs = app.get_subcommands();
    Message("try 'camm " + (verbs.empty() ? "" : verbs.front()->get_name() + " ") + "--help'");
    return kExitUsage;
  }
  return run();
}

}  // namespace

int main(int argc, char** argv) {
#ifdef M_MXFAST
  // Every packet's buffer is a short-lived allocation of FFmpeg's at the heap's top: with glibc's
  // fast bins each such free consolidates the heap, which costs as much as the reading.
  mallopt(M_MXFAST, 0);  // NOLINT(concurrency-mt-unsafe): before any thread
#endif
  camm::SilenceMessages();        // what went wrong is in the results, and in our words
  std::signal(SIGXFSZ, SIG_IGN);  // a file size limit is an error of writing, not the end
  try {
    return Main(argc, argv);
  } catch (const UsageError& error) {
    Message(error.what());
    return kExitUsage;
  } catch (const OutputError& error) {
    Message(error.what());
  } catch (const std::bad_alloc&) {
    Message("out of memory");
  } catch (const std::exception& error) {
    Message(error.what());
  }
  return kExitCannot;
}
