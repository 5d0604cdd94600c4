// motrace source_path save_dir: extracts a video file's camera motion metadata.

#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "av_toolbox/address.h"
#include "av_toolbox/ffmpeg_util.h"
#include "base/log_sites.h"
#include "camm_processed_filter.h"
#include "editor/file_media_src.h"
#include "editor/media_pipe.h"
#include "extraction_report.h"
#include "process_guard.h"
#include "progress_line.h"
#include "utils/vela_util.h"

namespace {

using lum::vela::ExtractionReport;
using lum::vela::ProcessGuard;
using lum::vela::ProgressLine;
using lum::vela::Quoted;

constexpr std::chrono::milliseconds kProgressInterval{500};

// NOLINTNEXTLINE(performance-unnecessary-value-param): it owns both for the length of the run
bool ParseMotion(std::string source_path, std::string save_dir) {
  lum::InitFFmpeg();
  const auto source = std::make_shared<lum::FileMediaSrc>(source_path);
  const auto filter = std::make_shared<CammProcessedFilter>(std::move(save_dir));
  filter->Keep(source_path);
  source->SetDataConsumer(filter);
  const auto pipe = std::make_shared<lum::MediaPipe>();
  pipe->AddSrc(source);
  pipe->Prepare();  // a source that failed to prepare reports it when it is started
  std::cout << "Start to parse motion metadata..." << std::endl;

  // Also when something throws: a pipe that was started must not go unreleased.
  const auto release = [](lum::MediaPipe* p) { p->Release(); };
  const std::unique_ptr<lum::MediaPipe, decltype(release)> released_at_the_end(pipe.get(), release);

  int32_t result = 0;
  {
    const ProgressLine progress(ProgressLine::IfTerminal(stderr), kProgressInterval,
                                [&source] { return source->Progress(); });
    result = lum::vela::RunPipe(pipe, 1, 1.0F, -1);
  }
  for (const std::string& line : ExtractionReport(source_path, *source, *filter)) {
    std::cerr << "motrace: " << line << '\n';
  }
  return result == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    LUM_LOG_AT(kError, lum::site::kUsage) << "usage: motrace source_path save_dir";
    return -1;
  }
  try {
    const ProcessGuard guard("motrace: the extraction of " + Quoted(lum::ShownName(argv[1])) +
                             " was cut short: the files in " + Quoted(argv[2]) +
                             " are not whole\n");
    ParseMotion(argv[1], argv[2]);
  } catch (const std::exception& e) {  // out of memory or of threads
    std::cerr << "motrace: the extraction of " << Quoted(lum::ShownName(argv[1]))
              << " failed: " << e.what() << '\n';
  }
  return 0;
}
