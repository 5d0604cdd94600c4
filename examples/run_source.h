// What every example here does with its source.
#ifndef QVXMEDIA_EXAMPLES_RUN_SOURCE_H_
#define QVXMEDIA_EXAMPLES_RUN_SOURCE_H_

#include <cstdio>
#include <future>
#include <memory>

#include "av_toolbox/ffmpeg_util.h"
#include "base/log_message.h"
#include "editor/media_pipe.h"

// [run]
/// Runs one source until it ended or failed, and blocks meanwhile.
/// @return 0 when it ended, 1 when it was cancelled, else the error code.
inline int RunSource(const std::shared_ptr<lum::MediaSrc>& source) {
  lum::GetLogSink().use_stderr = true;  // standard output is for the example
  lum::InitFFmpeg();
  const auto pipe = std::make_shared<lum::MediaPipe>();
  pipe->AddSrc(source);
  pipe->Prepare();  // a failure is reported when the pipe is started
  std::promise<int> outcome;
  pipe->SetEndCallback([&outcome] { outcome.set_value(0); });
  pipe->SetCancelCallback([&outcome] { outcome.set_value(1); });
  pipe->SetErrorCallback([&outcome](int code) { outcome.set_value(code); });
  pipe->Start();
  const int result = outcome.get_future().get();
  pipe->Release();  // before the last reference goes
  return result;
}
// [run]

#endif  // QVXMEDIA_EXAMPLES_RUN_SOURCE_H_
