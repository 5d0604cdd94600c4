#include "utils/progress_line.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kInterval{500};

}  // namespace

ProgressLine::ProgressLine(std::function<double()> fraction) : fraction_(std::move(fraction)) {
  if (isatty(STDERR_FILENO) == 1) thread_ = std::thread([this] { Draw(); });
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
  while (!wake_.wait_for(lock, kInterval, [this] { return over_; })) {
    const double percent = std::clamp(fraction_() * 100.0, 0.0, 100.0);
    std::fprintf(stderr, "\rmotrace: %3.0f %%", percent);
    std::fflush(stderr);
    drawn = true;
  }
  if (drawn) std::fputs("\r\033[K", stderr);
}
