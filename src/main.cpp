// motrace source_path save_dir: extracts a video file's camera motion metadata.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "av_toolbox/ffmpeg_util.h"
#include "base/log_sites.h"
#include "camm_processed_filter.h"
#include "editor/file_media_src.h"
#include "editor/media_pipe.h"
#include "extraction_report.h"
#include "utils/allocator.h"
#include "utils/last_words.h"
#include "utils/memory_reserve.h"
#include "utils/progress_line.h"
#include "utils/vela_util.h"

namespace {

// Room for the thread stacks' first pages, the log and the writing of what was collected.
constexpr size_t kReserve = size_t{4} * 1024 * 1024;

// With a standard stream closed, the next file opened would take its number, and log text would end
// up in an output file.
void OccupyStandardDescriptors() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd >= 0) close(fd);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): it owns both for the length of the run
bool ParseMotion(std::string source_path, std::string save_dir) {
  lum::InitFFmpeg();
  const auto source = std::make_shared<lum::FileMediaSrc>(source_path);
  const auto filter = std::make_shared<CammProcessedFilter>(std::move(save_dir));
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
    const ProgressLine progress([&source] { return source->Progress(); });
    result = lum::vela::RunPipe(pipe, 1, 1.0F, -1);
  }
  for (const std::string& line : ExtractionProblems(source_path, *source, *filter, result)) {
    std::cerr << "motrace: " << line << '\n';
  }
  return result == 0;
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardDescriptors();
  if (argc < 3) {
    LUM_LOG_AT(kError, lum::site::kUsage) << "usage: motrace source_path save_dir";
    return -1;
  }
  // A log that nobody reads any more, or a file size limit, must not cost the extraction.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  TuneAllocatorForPackets();
  const MemoryReserve reserve(kReserve);
  try {
    LastWords::Set("motrace: the extraction of '" + std::string(argv[1]) +
                   "' was cut short: the files in '" + argv[2] + "' are not whole\n");
    ParseMotion(argv[1], argv[2]);
  } catch (const std::exception& e) {  // out of memory or of threads
    std::cerr << "motrace: the extraction of '" << argv[1] << "' failed: " << e.what() << '\n';
  }
  LastWords::Clear();
  return 0;
}
