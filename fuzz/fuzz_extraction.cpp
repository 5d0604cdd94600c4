// A whole extraction: a container in memory through demuxer, file source, motion filter and output
// files, on the real threads.
//
// Input: the container. Its last byte, which containers ignore, chooses how it is read.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "av_toolbox/ffmpeg_util.h"
#include "camm_processed_filter.h"
#include "editor/file_media_src.h"
#include "editor/media_pipe.h"
#include "extraction_report.h"
#include "fuzz_support.h"
#include "support/memory_source.h"
#include "support/plain_extraction.h"
#include "utils/vela_util.h"

namespace {

using motrace::fuzz::Require;
using motrace::testing::Bytes;

constexpr size_t kMaxSize = size_t{1} << 20;
constexpr int kMaxPackets = 5000;  // of streams that only the fuzz target consumes
constexpr int32_t kTimeLimitSeconds = 5;

enum Option : uint8_t {
  kNotSeekable = 1,
  kRanges = 2,
  kSilentAudio = 4,
  kEveryStream = 8,  // consumers for video and audio too
  kCancel = 16,      // while reading
  kRefuse = 32,      // a consumer refuses a packet
  kReadAll = 64,     // also the streams without a consumer
};

/// Counts packets, and ends the run early where it is told to.
class CountingConsumer : public lum::PacketConsumer {
 public:
  CountingConsumer(uint8_t options, std::weak_ptr<lum::MediaPipe> pipe)
      : options_(options), pipe_(std::move(pipe)) {}

  bool Open(lum::MediaInfo* info) override { return info->stream != nullptr; }
  bool Filter(lum::MediaInfo* info, const std::shared_ptr<lum::QVXPacket>& packet) override {
    Require(!closed_, "no packet comes after the stream was closed");
    last_ = packet;  // keeping one is allowed
    ++count_;
    if (count_ == 3 && (options_ & kCancel) != 0) {
      if (const auto pipe = pipe_.lock()) pipe->Cancel();
    }
    info->error = 77;
    return count_ < kMaxPackets && !(count_ == 5 && (options_ & kRefuse) != 0);
  }
  bool Close(lum::MediaInfo* /*info*/) override {
    Require(!closed_.exchange(true), "a stream is closed once");
    return true;
  }

 private:
  uint8_t options_;
  std::weak_ptr<lum::MediaPipe> pipe_;
  std::shared_ptr<lum::QVXPacket> last_;
  int count_ = 0;
  std::atomic<bool> closed_{false};
};

const std::filesystem::path& Directory() {
  static const motrace::fuzz::ScratchDir directory;
  static const std::filesystem::path outputs = directory.path() / "out";
  std::filesystem::create_directory(outputs);
  return outputs;
}

Bytes ReadOutput(const std::string& name) {
  std::ifstream file(Directory() / name, std::ios::binary);
  Require(file.is_open(), (name + " is there").c_str());
  return {std::istreambuf_iterator<char>(file), {}};
}

// Compares with a plain reading of the same bytes. Where streams without a consumer are skipped,
// their damage stops nothing: then more may have been written, but it must begin in the same way.
void CompareWithPlainReading(const uint8_t* data, size_t size, bool skipped_streams) {
  const std::filesystem::path path = Directory().parent_path() / "input";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  const auto packets = motrace::testing::ReadDataStream(path);
  if (!packets) return;
  for (auto& [name, content] : motrace::testing::ExtractPlainly(*packets)) {
    const Bytes written = ReadOutput(name);
    if (!skipped_streams) {
      Require(written == content, name.c_str());
      continue;
    }
    Bytes beginning = content;
    if (name == "gps.json") {
      beginning.resize(content.size() > 4 ? content.size() - 2 : 0);  // up to "]}"; "null"
    }
    Require(written.size() >= beginning.size() &&
                std::equal(beginning.begin(), beginning.end(), written.begin()),
            (name + " begins as read plainly").c_str());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  motrace::fuzz::SilenceStandardOutput();
  lum::InitFFmpeg();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kMaxSize) return 0;
  const uint8_t options = data[size - 1];
  const auto has = [options](Option option) { return (options & option) != 0; };

  const auto source = std::make_shared<lum::FileMediaSrc>("memory");
  const auto filter = std::make_shared<CammProcessedFilter>(Directory());
  const auto pipe = std::make_shared<lum::MediaPipe>();
  source->SetIOSource(std::make_shared<motrace::testing::MemorySource>(Bytes(data, data + size),
                                                                       !has(kNotSeekable)));
  source->SetDataConsumer(filter);
  if (has(kEveryStream)) {
    source->SetVideoConsumer(std::make_shared<CountingConsumer>(options, pipe));
    source->SetAudioConsumer(std::make_shared<CountingConsumer>(options, pipe));
  }
  source->SetAddSilentAudio(has(kSilentAudio));
  source->SetReadAllStreams(has(kReadAll));
  if (has(kRanges)) source->SetRanges({{0, 100}, {300, 350}, {50, 1000}});

  pipe->AddSrc(source);
  const bool prepared = pipe->Prepare();
  const int32_t result = lum::vela::RunPipe(pipe, 1, 1.0F, kTimeLimitSeconds);
  const auto report = lum::vela::ExtractionReport("memory", *source, *filter);
  Require(result == 0 || source->outcome() == lum::RunOutcome::kCanceled || !report.empty(),
          "a failure is named");
  const bool decoded = source->demuxer() != nullptr && source->demuxer()->DataStream() != nullptr;
  pipe->Release();

  Require(prepared || result != 0, "what could not be prepared does not end well");
  if (!prepared || !decoded) return 0;
  Require(filter->problems().empty(), "every file is whole");
  Require(ReadOutput("gyro.dat").size() % 56 == 0, "gyro.dat holds whole records");
  const Bytes gps = ReadOutput("gps.json");
  Require(gps.size() >= 4, "gps.json was written");
  if ((options & ~kReadAll) == 0 && result == 0) {
    CompareWithPlainReading(data, size, !has(kReadAll));
  }
  return 0;
}
