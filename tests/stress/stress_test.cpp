// Races, leaks and hangs: many rounds at random moments. MOTRACE_STRESS_FACTOR multiplies the
// rounds, MOTRACE_STRESS_SEED sets the moments.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "av_toolbox/ffmpeg_util.h"
#include "camm_processed_filter.h"
#include "editor/file_media_src.h"
#include "editor/media_pipe.h"
#include "eventloop/event.h"
#include "eventloop/event_dispatcher.h"
#include "eventloop/loop_testing.h"
#include "support/plain_extraction.h"
#include "support/samples.h"
#include "support/temp_dir.h"
#include "utils/vela_util.h"

namespace motrace::testing {
namespace {

uint32_t FromEnvironment(const char* name, uint32_t otherwise) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): it is never set here
  return value == nullptr ? otherwise : static_cast<uint32_t>(std::stoul(value));
}

/// `rounds`, times MOTRACE_STRESS_FACTOR.
int Rounds(int rounds) {
  return rounds * static_cast<int>(FromEnvironment("MOTRACE_STRESS_FACTOR", 1));
}

/// 0 to `limit` - 1.
uint32_t Below(std::mt19937& chance, uint32_t limit) {
  return static_cast<uint32_t>(chance()) % limit;
}

/// Lets a little time pass: mostly well below 100 microseconds, at times nothing at all.
void Dawdle(std::mt19937& chance) {
  std::atomic<uint32_t> turns{Below(chance, 4) == 0 ? 0 : Below(chance, 30'000)};
  while (turns > 0) --turns;
}

class StressTest : public ::testing::Test {
 protected:
  uint32_t seed_ = FromEnvironment("MOTRACE_STRESS_SEED", 20240229);
  std::mt19937 chance_{seed_};
  ::testing::ScopedTrace trace_{__FILE__, __LINE__, seed_};
};

// Several threads post, with and without delays, while another one, or a handler, stops the loop
// and the owner releases it.
TEST_F(StressTest, PostingWhileALoopStopsLosesNoMemoryAndDoesNotHang) {
  constexpr int32_t kStop = 1;
  for (int round = 0; round < Rounds(300); ++round) {
    const auto dispatcher = std::make_shared<lum::EventDispatcher>();
    std::atomic<int> handled{0};
    const auto handler = std::make_shared<FunctionHandler>([&](const lum::Event& event) {
      ++handled;
      if (event.what() == kStop) dispatcher->Stop();
    });
    const auto value = std::make_shared<int>(round);
    std::atomic<int> posted{0};
    dispatcher->Run();
    std::vector<std::thread> threads;
    threads.reserve(5);
    for (int p = 0; p < 3; ++p) {
      threads.emplace_back([&, mine = std::mt19937(chance_())]() mutable {
        for (int i = 0; i < 60; ++i) {
          lum::MakeEvent(0, handler, dispatcher)
              ->SetData("value", value)
              ->PostWithDelay(static_cast<int32_t>(Below(mine, 4)));
          ++posted;
        }
      });
    }
    for (int s = 0; s < 2; ++s) {
      threads.emplace_back([&, mine = std::mt19937(chance_())]() mutable {
        Dawdle(mine);
        if (Below(mine, 2) == 0) lum::MakeEvent(kStop, handler, dispatcher)->Post();
        dispatcher->Stop();
      });
    }
    Dawdle(chance_);
    dispatcher->Stop();
    dispatcher->Release();  // while the others still post and stop
    for (std::thread& thread : threads) thread.join();
    EXPECT_LE(handled, posted + 2);
    EXPECT_EQ(value.use_count(), 1) << "an event outlived its dispatcher";
  }
}

// ---- the real file source and motion filter, over a small file, many times in one process

constexpr int kSamples = 2 * 10 + 2 + 2;

class ExtractionStressTest : public StressTest {
 protected:
  ExtractionStressTest() {
    constexpr CameraOptions kTenthOfASecond{1000, 10, 100, 20, 20, 0};
    WriteMp4(input_, {CameraTrack(kTenthOfASecond)});
    lum::InitFFmpeg();
  }

  void Extract(const std::filesystem::path& directory) const {
    std::filesystem::create_directory(directory);
    const auto source = std::make_shared<lum::FileMediaSrc>(input_);
    source->SetDataConsumer(std::make_shared<CammProcessedFilter>(directory.string()));
    const auto pipe = std::make_shared<lum::MediaPipe>();
    pipe->AddSrc(source);
    EXPECT_TRUE(pipe->Prepare());
    EXPECT_EQ(lum::vela::RunPipe(pipe, 1, 1.0F, -1), 0);
    pipe->Release();
  }

  TempDir dir_;
  std::string input_ = dir_ / "input.mp4";
};

size_t EntriesOf(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

TEST_F(ExtractionStressTest, RunsAtOnceWriteTheSameAndLeaveNoDescriptorAndNoThread) {
  Extract(dir_ / "a");  // whatever libraries keep is open from here on
  const size_t descriptors = EntriesOf("/proc/self/fd");
  const size_t threads = EntriesOf("/proc/self/task");
  std::vector<std::thread> workers;
  for (const char* name : {"a", "b", "c"}) {
    workers.emplace_back([this, name] {
      for (int run = 0; run < Rounds(200); ++run) Extract(dir_ / name);
    });
  }
  for (std::thread& worker : workers) worker.join();
  const auto expected = ExtractPlainly(ReadDataStream(input_).value());
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(ReadDirectory(dir_ / name), expected);
  EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
  // An ended thread may be listed for a moment after it was joined.
  const auto limit = std::chrono::steady_clock::now() + kHang;
  while (EntriesOf("/proc/self/task") != threads && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  EXPECT_EQ(EntriesOf("/proc/self/task"), threads);
}

// Checks the order of a consumer's calls, and lets the test come between them.
class StrictConsumer : public lum::PacketConsumer {
 public:
  bool Open(lum::MediaInfo* /*info*/) override {
    EXPECT_EQ(calls_.exchange(kOpen), kNew);
    return true;
  }
  bool Notify(lum::MediaInfo* /*info*/, const lum::MediaMessage& message) override {
    EXPECT_EQ(calls_, kOpen);
    if (message.code == lum::kMediaMessageEnd) calls_ = kEnded;
    return true;
  }
  bool Filter(lum::MediaInfo* /*info*/, const std::shared_ptr<lum::QVXPacket>& packet) override {
    EXPECT_NE(packet, nullptr);
    EXPECT_EQ(calls_, kOpen) << "a packet after the end or Close";
    return on_packet(++packets);
  }
  bool Close(lum::MediaInfo* /*info*/) override {
    EXPECT_LE(calls_.exchange(kClosed), kEnded);
    return true;
  }
  void Interrupt(lum::MediaInfo* /*info*/) override { EXPECT_NE(calls_, kClosed); }

  std::function<bool(int packets)> on_packet;
  std::atomic<int> packets{0};

 private:
  enum Calls { kNew, kOpen, kEnded, kClosed };
  std::atomic<Calls> calls_{kNew};
};

// Pipes of one to three sources, cancelled at random moments by several threads, released at
// another one.
TEST_F(ExtractionStressTest, CanceledAtRandomMomentsAPipeReportsOnceAndReadsNoMore) {
  std::array<int, 4> met{};  // end, cancel, error, none
  for (int round = 0; round < Rounds(1000); ++round) {
    const auto pipe = std::make_shared<lum::MediaPipe>();
    std::vector<std::shared_ptr<StrictConsumer>> consumers(1 + Below(chance_, 3));
    for (auto& consumer : consumers) {
      consumer = std::make_shared<StrictConsumer>();
      // At most one of: a cancel from the source's own thread, a refused packet.
      consumer->on_packet = [&pipe, at_packet = static_cast<int>(Below(chance_, 4 * kSamples)),
                             refuse = Below(chance_, 3) == 0](int packets) {
        if (packets != at_packet) return true;
        if (!refuse) pipe->Cancel();
        return !refuse;
      };
      const auto source = std::make_shared<lum::FileMediaSrc>(input_);
      source->SetDataConsumer(consumer);
      pipe->AddSrc(source);
    }
    std::atomic<int> callbacks{0};
    std::atomic<size_t> outcome{3};
    std::promise<void> reported;
    const auto report = [&](size_t which) {
      outcome = which;
      if (++callbacks == 1) reported.set_value();
    };
    pipe->SetEndCallback([&] { report(0); });
    pipe->SetCancelCallback([&] { report(1); });
    pipe->SetErrorCallback([&](int /*code*/) { report(2); });
    ASSERT_TRUE(pipe->Prepare());
    pipe->Start();
    std::vector<std::thread> cancellers;
    cancellers.reserve(2);
    for (int c = 0; c < 2; ++c) {
      cancellers.emplace_back([&pipe, mine = std::mt19937(chance_())]() mutable {
        for (uint32_t i = Below(mine, 4); i > 0; --i) Dawdle(mine);
        if (Below(mine, 2) > 0) pipe->Cancel();
      });
    }
    const bool wait_for_report = Below(chance_, 4) > 0;
    if (wait_for_report) {
      reported.get_future().wait();
    } else {
      Dawdle(chance_);
    }
    pipe->Release();
    for (std::thread& canceller : cancellers) canceller.join();
    ASSERT_EQ(pipe->state(), lum::MediaPipe::kMediaPipeReleased);
    ASSERT_LE(callbacks, 1);
    ASSERT_TRUE(callbacks == 1 || !wait_for_report);
    for (const auto& consumer : consumers) ASSERT_LE(consumer->packets, kSamples);
    ++met.at(outcome);
    ASSERT_FALSE(HasFailure());
  }
  for (const int count : met) EXPECT_GT(count, 0) << "every outcome is to be met";
}

}  // namespace
}  // namespace motrace::testing
