// The real file source and motion filter, over a small file, many times in one process.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "av_toolbox/ffmpeg_util.h"
#include "camm_processed_filter.h"
#include "editor/file_media_src.h"
#include "editor/media_pipe.h"
#include "eventloop/loop_testing.h"
#include "stress/stress_testing.h"
#include "support/hang_guard.h"
#include "support/plain_extraction.h"
#include "support/samples.h"
#include "support/temp_dir.h"
#include "utils/vela_util.h"

namespace motrace::testing {
namespace {

constexpr int kSamples = 24;

std::string MakeInput(const TempDir& dir) {
  Mp4Track camm = Mp4Track::Camm(1000);
  for (int i = 0; i < kSamples / 2; ++i) {
    const auto value = static_cast<float>(i);
    camm.Add(GyroSample({value, 1, 2}), 0);
    camm.Add(AccelSample({value, 3, 4}), 10);
  }
  const std::filesystem::path path = dir / "input.mp4";
  WriteMp4(path, {camm});
  lum::InitFFmpeg();
  return path.string();
}

size_t EntriesOf(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// An ended thread may be listed for a moment after it was joined.
void ExpectEntries(const char* directory, size_t expected) {
  const auto limit = std::chrono::steady_clock::now() + kHang;
  while (EntriesOf(directory) != expected && std::chrono::steady_clock::now() < limit) {
    std::this_thread::yield();
  }
  EXPECT_EQ(EntriesOf(directory), expected) << directory;
}

void Extract(const std::string& input, const std::filesystem::path& directory) {
  const auto source = std::make_shared<lum::FileMediaSrc>(input);
  source->SetDataConsumer(std::make_shared<CammProcessedFilter>(directory.string()));
  const auto pipe = std::make_shared<lum::MediaPipe>();
  pipe->AddSrc(source);
  ASSERT_TRUE(pipe->Prepare());
  EXPECT_EQ(lum::vela::RunPipe(pipe, 1, 1.0F, -1), 0);
  pipe->Release();
}

TEST(ExtractionStress, AThousandRunsLeaveNoDescriptorAndNoThread) {
  const HangGuard guard("a thousand extractions", HangLimit());
  const TempDir dir;
  const std::string input = MakeInput(dir);
  std::filesystem::create_directory(dir / "out");
  Extract(input, dir / "out");  // whatever libraries keep is open from here on
  const auto written = ReadDirectory(dir / "out");
  EXPECT_EQ(written.size(), 8U);
  const size_t descriptors = EntriesOf("/proc/self/fd");
  const size_t threads = EntriesOf("/proc/self/task");
  for (int run = 0; run < Rounds(1000); ++run) {
    Extract(input, dir / "out");
    if (HasFailure()) return;
  }
  ExpectEntries("/proc/self/fd", descriptors);
  ExpectEntries("/proc/self/task", threads);
  EXPECT_EQ(ReadDirectory(dir / "out"), written);
}

TEST(ExtractionStress, PipesAtOnceInOneProcessWriteTheSame) {
  const HangGuard guard("pipes at once", HangLimit());
  const TempDir dir;
  const std::string input = MakeInput(dir);
  const auto packets = ReadDataStream(input);
  ASSERT_TRUE(packets.has_value());
  const std::map<std::string, Bytes> expected = ExtractPlainly(*packets).Files();
  std::vector<std::thread> workers;
  for (const char* name : {"a", "b", "c"}) {
    std::filesystem::create_directory(dir / name);
    workers.emplace_back([&, name] {
      for (int run = 0; run < Rounds(40); ++run) Extract(input, dir / name);
    });
  }
  for (std::thread& worker : workers) worker.join();
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(ReadDirectory(dir / name), expected);
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
    if (message.code == lum::kMediaMessageEnd) {
      EXPECT_FALSE(ended_.exchange(true));
      if (on_end) on_end();
    }
    return true;
  }
  bool Filter(lum::MediaInfo* /*info*/, const std::shared_ptr<lum::QVXPacket>& packet) override {
    EXPECT_NE(packet, nullptr);
    EXPECT_EQ(calls_, kOpen) << "a packet after Close";
    EXPECT_FALSE(ended_) << "a packet after the end";
    ++packets;
    if (on_packet) on_packet();
    return !refuse;
  }
  bool Close(lum::MediaInfo* /*info*/) override {
    EXPECT_EQ(calls_.exchange(kClosed), kOpen);
    if (on_close) on_close();
    return true;
  }
  void Interrupt(lum::MediaInfo* /*info*/) override {
    if (on_interrupt) on_interrupt();
  }

  std::function<void()> on_packet;
  std::function<void()> on_end;
  std::function<void()> on_close;
  std::function<void()> on_interrupt;
  std::atomic<int> packets{0};
  bool refuse = false;

 private:
  enum Calls { kNew, kOpen, kClosed };
  std::atomic<Calls> calls_{kNew};
  std::atomic<bool> ended_{false};
};

// A file source and its pipe, which counts the pipe's callbacks.
struct FileRun {
  explicit FileRun(const std::string& input)
      : source(std::make_shared<lum::FileMediaSrc>(input)),
        consumer(std::make_shared<StrictConsumer>()),
        pipe(std::make_shared<lum::MediaPipe>()) {
    source->SetDataConsumer(consumer);
    pipe->AddSrc(source);
  }

  std::shared_ptr<lum::FileMediaSrc> source;
  std::shared_ptr<StrictConsumer> consumer;
  std::shared_ptr<lum::MediaPipe> pipe;
};

TEST(ExtractionStress, CanceledAtRandomMomentsReportsOnceAndReadsNoMore) {
  const HangGuard guard("cancelling extractions", HangLimit());
  const TempDir dir;
  const std::string input = MakeInput(dir);
  SCOPED_TRACE(Seed());
  Chance chance(Seed());
  std::array<int, 4> outcomes{};  // end, cancel, error, none
  for (int round = 0; round < Rounds(1000); ++round) {
    FileRun run(input);
    std::atomic<int> callbacks{0};
    std::atomic<size_t> outcome{3};
    std::promise<void> reported;
    const auto report = [&](size_t what) {
      outcome = what;
      if (++callbacks == 1) reported.set_value();
    };
    run.pipe->SetEndCallback([&] { report(0); });
    run.pipe->SetCancelCallback([&] { report(1); });
    run.pipe->SetErrorCallback([&](int /*code*/) { report(2); });
    // At most one of: a cancel from the source's own thread, a refused packet.
    const auto at_packet = static_cast<int>(chance.Below(2 * kSamples));
    const bool refuse = chance.Below(3) == 0;
    run.consumer->on_packet = [&run, at_packet, refuse] {
      if (run.consumer->packets != at_packet) return;
      if (refuse) {
        run.consumer->refuse = true;
      } else {
        run.pipe->Cancel();
      }
    };
    ASSERT_TRUE(run.pipe->Prepare());
    run.pipe->Start();
    std::thread canceller([&run, seed = chance.Next()] {
      Chance mine(seed);
      for (uint32_t i = mine.Below(4); i > 0; --i) mine.Dawdle();
      if (mine.Below(3) > 0) run.pipe->Cancel();
    });
    const bool wait_for_report = chance.Below(4) > 0;
    if (wait_for_report) {
      reported.get_future().wait();
    } else {
      chance.Dawdle();
    }
    run.pipe->Release();
    canceller.join();
    ASSERT_LE(callbacks, 1);
    ASSERT_TRUE(callbacks == 1 || !wait_for_report);
    ASSERT_LE(run.consumer->packets, kSamples);
    ++outcomes.at(outcome);
    ASSERT_FALSE(HasFailure());
  }
  for (const int count : outcomes) EXPECT_GT(count, 0) << "every outcome is to be met";
}

// The runner's limit passes while the consumer holds the source's thread.
TEST(ExtractionStress, TheTimeLimitMayPassInAnyStepOfTheSource) {
  const HangGuard guard("a time limit during reading, end and close", HangLimit());
  const TempDir dir;
  const std::string input = MakeInput(dir);

  struct Step {
    std::function<void()> StrictConsumer::*held;
    std::chrono::milliseconds at_most;
    int32_t result;
    int packets;
  };
  std::vector<std::thread> runs;  // at once
  for (const Step& step :
       {Step{&StrictConsumer::on_packet, kHang, 1, 1},
        Step{&StrictConsumer::on_end, kHang, 0, kSamples},
        // The pipe's thread waits for the close, so that no interrupt comes
        // before it is over.
        Step{&StrictConsumer::on_close, std::chrono::milliseconds(1700), 0, kSamples}}) {
    runs.emplace_back([&input, step] {
      FileRun run(input);
      std::promise<void> interrupted;
      std::atomic<int> interrupts{0};
      run.consumer->on_interrupt = [&] {
        if (++interrupts == 1) interrupted.set_value();
      };
      run.consumer.get()->*step.held = [&, limit = interrupted.get_future().share()] {
        limit.wait_for(step.at_most);
      };
      ASSERT_TRUE(run.pipe->Prepare());
      EXPECT_EQ(lum::vela::RunPipe(run.pipe, 1, 1.0F, /*timeout_seconds=*/1), step.result);
      run.pipe->Release();
      EXPECT_EQ(run.consumer->packets, step.packets);
    });
  }
  for (std::thread& run : runs) run.join();
}

}  // namespace
}  // namespace motrace::testing
