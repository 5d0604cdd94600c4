// What the single steps of a packet's road cost.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <array>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/packet_util.h"
#include "camm_processed_filter.h"
#include "eventloop/event_dispatcher.h"
#include "gps_json.h"
#include "output_file.h"

namespace {

using lum::vela::GpsJson;
using lum::vela::GpsRecord;
using lum::vela::OutputFile;

// A directory that goes away with the benchmark.
class ScratchDir {
 public:
  ScratchDir() {
    std::string name = (std::filesystem::temp_directory_path() / "motrace_bench_XXXXXX").string();
    if (mkdtemp(name.data()) != nullptr) path_ = name;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::shared_ptr<lum::QVXPacket> MotionPacket(uint16_t type) {
  std::array<uint8_t, 16> sample{};
  std::memcpy(sample.data() + 2, &type, sizeof(type));
  auto packet = lum::NewPacket();
  av_new_packet(packet.get(), sample.size());
  std::memcpy(packet->data, sample.data(), sample.size());
  packet->pts = packet->dts = 90000;
  return packet;
}

// Baseline of the decoder: the payloads are only added up.
void Decode_baseline(benchmark::State& state) {
  const std::array packets = {MotionPacket(2), MotionPacket(3)};
  size_t i = 0;
  uint64_t sum = 0;
  for (auto _ : state) {
    const auto& packet = packets[i++ % 2];
    uint64_t word = 0;
    std::memcpy(&word, packet->data + 4, sizeof(word));
    benchmark::DoNotOptimize(sum += word);
  }
  state.SetItemsProcessed(state.iterations());
}

void Decode_motion(benchmark::State& state) {
  const std::array packets = {MotionPacket(2), MotionPacket(3)};
  AVStream stream{};
  stream.time_base = {1, 90000};
  lum::MediaInfo info;
  info.stream = &stream;
  auto filter = std::make_unique<CammProcessedFilter>("");
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(filter->Filter(&info, packets[i++ % 2]));
    if (i % 1'000'000 == 0) {  // the records of an endless run must not fill the memory
      state.PauseTiming();
      filter = std::make_unique<CammProcessedFilter>("");
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(state.iterations());
}

// A handler that posts the next event from each one, as the file source does.
class Chain : public lum::EventHandler, public std::enable_shared_from_this<Chain> {
 public:
  void HandleEvent(const std::shared_ptr<lum::Event>& /*event*/) override {
    if (--left == 0) {
      done.set_value();
      return;
    }
    lum::MakeEvent(0, shared_from_this(), dispatcher.lock())->Post();
  }
  int64_t left = 0;
  std::promise<void> done;
  std::weak_ptr<lum::EventDispatcher> dispatcher;
};

constexpr int64_t kChainLength = 10000;

// Baseline of the event round trip: an allocation and a virtual call.
void Event_baseline(benchmark::State& state) {
  struct Receiver {
    virtual ~Receiver() = default;
    virtual void Handle(const std::shared_ptr<int64_t>& value) { sum += *value; }
    int64_t sum = 0;
  };
  const std::unique_ptr<Receiver> receiver = std::make_unique<Receiver>();
  benchmark::DoNotOptimize(receiver.get());
  for (auto _ : state) receiver->Handle(std::make_shared<int64_t>(1));
  state.SetItemsProcessed(state.iterations());
}

void Event_round_trip(benchmark::State& state) {
  const auto dispatcher = std::make_shared<lum::EventDispatcher>();
  dispatcher->Run();
  for (auto _ : state) {
    const auto chain = std::make_shared<Chain>();
    chain->left = kChainLength;
    chain->dispatcher = dispatcher;
    auto done = chain->done.get_future();
    lum::MakeEvent(0, chain, dispatcher)->Post();
    done.wait();
  }
  dispatcher->Stop();
  dispatcher->Release();
  state.SetItemsProcessed(state.iterations() * kChainLength);
}

GpsRecord SampleFix() {
  GpsRecord record{};
  record.time_gps_epoch = 1400000000.123;
  record.latitude = 48.137123456;
  record.longitude = 11.575123456;
  record.altitude = 519.5F;
  return record;
}

// Baseline of the JSON writer: printf of the same members.
void Json_baseline(benchmark::State& state) {
  const GpsRecord r = SampleFix();
  std::array<char, 1024> text{};
  for (auto _ : state) {
    std::snprintf(text.data(), text.size(),
                  R"({"altitude":%.15g,"dts":%lld,"gps_fix_type":%d,"horizontal_accuracy":%.15g,)"
                  R"("latitude":%.15g,"longitude":%.15g,"pts":%lld,"speed_accuracy":%.15g,)"
                  R"("time_gps_epoch":%.15g,"velocity_east":%.15g,"velocity_north":%.15g,)"
                  R"("velocity_up":%.15g,"vertical_accuracy":%.15g})",
                  double{r.altitude}, static_cast<long long>(r.dts_ms), r.gps_fix_type,
                  double{r.horizontal_accuracy}, r.latitude, r.longitude,
                  static_cast<long long>(r.pts_ms), double{r.speed_accuracy}, r.time_gps_epoch,
                  double{r.velocity_east}, double{r.velocity_north}, double{r.velocity_up},
                  double{r.vertical_accuracy});
    benchmark::DoNotOptimize(text);
  }
  state.SetItemsProcessed(state.iterations());
}

void Json_gps(benchmark::State& state) {
  constexpr size_t kRecords = 1000;
  const std::deque<GpsRecord> records(kRecords, SampleFix());
  for (auto _ : state) benchmark::DoNotOptimize(GpsJson(records));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kRecords));
}

constexpr int64_t kBinaryRecords = 100'000;
constexpr size_t kBinaryRecordSize = 56;

// Baseline of the binary writer: the whole file in one write.
void Binary_baseline(benchmark::State& state) {
  const ScratchDir dir;
  const std::vector<char> data(kBinaryRecords * kBinaryRecordSize, 'x');
  for (auto _ : state) {
    std::FILE* file = std::fopen((dir.path() + "/f").c_str(), "wb");
    std::fwrite(data.data(), 1, data.size(), file);
    std::fclose(file);
  }
  state.SetItemsProcessed(state.iterations() * kBinaryRecords);
}

void Binary_records(benchmark::State& state) {
  const ScratchDir dir;
  const std::array<char, kBinaryRecordSize> record{};
  for (auto _ : state) {
    OutputFile file;
    file.Open(dir.path() + "/f");
    for (int64_t i = 0; i < kBinaryRecords; ++i) file.Write(record.data(), record.size());
    file.Close();
  }
  state.SetItemsProcessed(state.iterations() * kBinaryRecords);
}

// The thread's CPU time would leave out what the loop thread does.
BENCHMARK(Decode_baseline)->Name("Decode/baseline");
BENCHMARK(Decode_motion)->Name("Decode/motion_sample");
BENCHMARK(Event_baseline)->Name("Event/baseline");
BENCHMARK(Event_round_trip)->Name("Event/round_trip")->UseRealTime();
BENCHMARK(Json_baseline)->Name("Json/baseline");
BENCHMARK(Json_gps)->Name("Json/gps_record");
BENCHMARK(Binary_baseline)->Name("Binary/baseline");
BENCHMARK(Binary_records)->Name("Binary/motion_records");

}  // namespace

BENCHMARK_MAIN();
