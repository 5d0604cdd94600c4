// extract_all_streams FILE DIR: the tool's extraction, with every stream of the file read.

#include <memory>

#include "av_toolbox/ffmpeg_util.h"
#include "camm_processed_filter.h"
#include "editor/file_media_src.h"
#include "editor/media_pipe.h"
#include "process_guard.h"
#include "utils/vela_util.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const lum::vela::ProcessGuard guard("bench_extract_all_streams was cut short\n");
  lum::InitFFmpeg();
  const auto source = std::make_shared<lum::FileMediaSrc>(argv[1]);
  const auto filter = std::make_shared<CammProcessedFilter>(argv[2]);
  source->SetDataConsumer(filter);
  source->SetReadAllStreams(true);
  const auto pipe = std::make_shared<lum::MediaPipe>();
  pipe->AddSrc(source);
  pipe->Prepare();
  const int result = lum::vela::RunPipe(pipe, 1, 1.0F, -1);
  pipe->Release();
  return result;
}
