#include "progress_line.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace lum::vela {

std::FILE* ProgressLine::IfTerminal(std::FILE* stream) {
  return isatty(fileno(stream)) == 1 ? stream : nullptr;
}

ProgressLine::ProgressLine(std::FILE* out, std::chrono::milliseconds interval,
                           std::function<double()> fraction)
    : out_(out), interval_(interval), fraction_(std::move(fraction)) {
  if (out_ != nullptr) thread_ = std::thread([this] { Draw(); });
}

ProgressLine::~ProgressLine() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    over_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void ProgressLine::Draw() {
  bool drawn = false;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, interval_, [this] { return over_; })) {
    const double percent = std::clamp(fraction_() * 100.0, 0.0, 100.0);
    std::fprintf(out_, "\rmotrace: %3.0f %%", percent);
    std::fflush(out_);
    drawn = true;
  }
  if (drawn) std::fputs("\r\033[K", out_);
}

}  // namespace lum::vela
