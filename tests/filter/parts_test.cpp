// The parts around the motion filter, one by one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "base/log_message.h"
#include "output_file.h"
#include "pair_times.h"
#include "process_guard.h"
#include "progress_line.h"
#include "support/temp_dir.h"

namespace lum::vela {
namespace {

using motrace::testing::Bytes;
using motrace::testing::ReadFile;
using motrace::testing::TempDir;
using motrace::testing::WriteFile;
namespace fs = std::filesystem;

// Pieces smaller than the buffer, as large, and larger.
TEST(OutputFileTest, PiecesOfAnySizeComeOutInTheirOrder) {
  const TempDir dir;
  std::mt19937 random(1);
  WriteFile(dir / "file", Bytes(3'000'000, 'x'));
  OutputFile file;
  ASSERT_TRUE(file.Open(dir / "file"));
  EXPECT_EQ(fs::file_size(dir / "file"), 0U);
  Bytes whole;
  for (const size_t size : {1, 65535, 65536, 1, 0, 65537, 40000, 25536, 200000, 7, 2000000}) {
    Bytes piece(size);
    for (auto& byte : piece) byte = static_cast<uint8_t>(random());
    file.Write(piece.data(), piece.size());
    whole.insert(whole.end(), piece.begin(), piece.end());
  }
  EXPECT_TRUE(file.Close());
  EXPECT_TRUE(ReadFile(dir / "file") == whole);
}

TEST(OutputFileTest, TheFirstFailureStays) {
  const TempDir dir;
  fs::create_directory(dir / "folder");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  WriteFile(dir / "kept", {1, 2, 3});
  fs::create_symlink("kept", dir / "link");
  fs::create_hard_link(dir / "kept", dir / "same");
  OutputFile file;
  const struct {
    fs::path path;
    int error;
  } cases[] = {{dir / "folder", EISDIR},
               {dir / "missing" / "file", ENOENT},
               {dir / "pipe", ENXIO},  // without a reader
               {dir / "link", OutputFile::kIsKept},
               {dir / "same", OutputFile::kIsKept}};
  for (const auto& c : cases) {
    EXPECT_FALSE(file.Open(c.path, FileId::Of(dir / "kept")));
    EXPECT_FALSE(file.is_open());
    EXPECT_FALSE(file.Close());
    EXPECT_EQ(file.error(), c.error) << c.path;
  }
  EXPECT_EQ(ReadFile(dir / "kept"), (Bytes{1, 2, 3}));
  // A full disk, noticed when the buffer is full, and when it is closed.
  const Bytes much(100'000);
  for (const size_t size : {much.size(), size_t{1}}) {
    ASSERT_TRUE(file.Open("/dev/full", FileId::Of(dir / "missing")));
    file.Write(much.data(), size);
    EXPECT_EQ(file.error(), size > 1 ? ENOSPC : 0);
    EXPECT_FALSE(file.Close());
    EXPECT_EQ(file.error(), ENOSPC);
  }
}

// Opened without waiting, written with: the reader takes its time.
TEST(OutputFileTest, APipeThatIsReadGetsTheWhole) {
  const TempDir dir;
  const Bytes whole(1'000'000, 'x');
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  const int held = open((dir / "pipe").c_str(), O_RDONLY | O_NONBLOCK);
  std::thread reader([&] { EXPECT_TRUE(ReadFile(dir / "pipe") == whole); });
  OutputFile file;
  ASSERT_TRUE(file.Open(dir / "pipe"));
  file.Write(whole.data(), whole.size());
  EXPECT_TRUE(file.Close());
  reader.join();
  close(held);
}

constexpr int64_t kNone = AV_NOPTS_VALUE;

TEST(PairTimesTest, SamplesOfTheSameNumberAreCompared) {
  const struct {
    const char* name;
    std::vector<std::pair<char, int64_t>> samples;  // gyroscope or accelerometer, and its time
    double gap;
    double interval;
  } cases[] = {
      {"gyroscope ahead", {{'g', 0}, {'g', 1}, {'g', 2}, {'a', 0}, {'a', 4}, {'a', 8}}, 6, 4},
      {"accelerometer ahead", {{'a', 0}, {'a', 4}, {'a', 8}, {'g', 0}, {'g', 1}}, 3, 4},
      {"several samples a time", {{'a', 0}, {'a', 0}, {'a', 6}, {'a', 6}, {'a', 12}}, 0, 6},
      {"the largest of several", {{'g', 9}, {'a', 2}, {'g', 3}, {'a', 4}}, 7, 2},
      {"without a time",
       {{'g', kNone}, {'a', 5}, {'g', 7}, {'a', kNone}, {'g', 6}, {'a', 6}},
       0,
       1},
      {"as far as can be",
       {{'g', std::numeric_limits<int64_t>::max()}, {'a', std::numeric_limits<int64_t>::min() + 1}},
       18446744073709551614.0,
       0}};
  for (const auto& c : cases) {
    PairTimes times;
    for (const auto& [kind, time] : c.samples) {
      kind == 'g' ? times.AddGyro(time) : times.AddAccelerate(time);
    }
    EXPECT_EQ(times.largest_gap(), c.gap) << c.name;
    EXPECT_EQ(times.interval(), c.interval) << c.name;
  }
}

// What a line draws while `fraction` is asked twice, or while nothing waits for it.
std::string Drawn(std::chrono::milliseconds interval, double fraction, bool wait) {
  char* text = nullptr;
  size_t size = 0;
  std::FILE* const out = open_memstream(&text, &size);
  {
    int asked = 0;
    std::promise<void> twice;
    const ProgressLine line(out, interval, [&] {
      if (++asked == 2) twice.set_value();
      return fraction;
    });
    if (wait) twice.get_future().wait();
  }
  std::fclose(out);
  const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
  return {text, size};
}

TEST(ProgressLineTest, ShowsAPercentageAndErasesItself) {
  using std::chrono::hours;
  using std::chrono::milliseconds;
  const auto matches = [](const std::string& text, const char* pattern) {
    return std::regex_match(text, std::regex(pattern)) ? "" : text;
  };
  EXPECT_EQ(matches(Drawn(milliseconds(1), 0.416, true), "(\rmotrace:  42 %){2,}\r\033\\[K"), "");
  EXPECT_EQ(matches(Drawn(milliseconds(1), -3, true), "(\rmotrace:   0 %){2,}\r\033\\[K"), "");
  EXPECT_EQ(matches(Drawn(milliseconds(1), 3, true), "(\rmotrace: 100 %){2,}\r\033\\[K"), "");
  EXPECT_EQ(Drawn(hours(1), 0.5, false), "") << "a short run draws nothing, and does not wait";
  const ProgressLine nowhere(nullptr, milliseconds(1), [] { return 0.5; });
}

TEST(ProgressLineTest, IsForTerminals) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  for (const bool is_terminal : {true, false}) {
    std::FILE* const stream = is_terminal ? fdopen(terminal, "w") : std::tmpfile();
    EXPECT_EQ(ProgressLine::IfTerminal(stream), is_terminal ? stream : nullptr);
    std::fclose(stream);
  }
}

constexpr const char* kWords = "the files are not whole";

// An exception that leaves a thread cannot be caught.
template <typename Exception>
void LeaveAThreadWith(const Exception& e) {
  const ProcessGuard guard(kWords);
  std::thread([&] { throw e; }).join();
}

TEST(ProcessGuardDeathTest, AProcessThatEndsEarlySaysSo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto failed = testing::ExitedWithCode(1);
  EXPECT_EXIT(LeaveAThreadWith(std::bad_alloc()), failed, kWords);
  EXPECT_EXIT(
      LeaveAThreadWith(std::system_error(std::make_error_code(std::errc::not_enough_memory))),
      failed, kWords);
  EXPECT_EXIT(
      {
        const ProcessGuard guard(kWords);
        LUM_CHECK(kWords == nullptr);
      },
      failed, kWords);
  // A fault of the program keeps its signal and its name.
  EXPECT_EXIT(LeaveAThreadWith(std::logic_error("fault")), testing::KilledBySignal(SIGABRT),
              std::string(kWords) + ".*what.*fault");
  EXPECT_EXIT(
      {
        { const ProcessGuard guard(kWords); }
        std::exit(0);  // NOLINT(concurrency-mt-unsafe)
      },
      testing::ExitedWithCode(0), "^$");
}

// Sanitizers map more addresses than such a limit leaves, and have a heap of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(ProcessGuardDeathTest, UnderALimitOnAddressesAllThreadsShareOneHeap) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const rlim_t limit : {rlim_t{1} << 40, RLIM_INFINITY}) {
    const rlimit addresses{limit, RLIM_INFINITY};
    EXPECT_EXIT(
        {
          setrlimit(RLIMIT_AS, &addresses);
          const ProcessGuard guard(kWords);
          bool shared = false;
          std::thread([&] { shared = std::make_unique<char>().get() < sbrk(0); }).join();
          std::_Exit(shared ? 1 : 2);
        },
        testing::ExitedWithCode(limit == RLIM_INFINITY ? 2 : 1), "");
  }
}
#endif

// The new-handler stands in for an allocation that fails.
TEST(ProcessGuardTest, TheReserveIsGivenUpOnceAndKnown) {
  {
    const ProcessGuard guard(kWords);
    EXPECT_FALSE(ProcessGuard::OutOfMemory());
    const std::new_handler handler = std::get_new_handler();
    ASSERT_NE(handler, nullptr);
    handler();
    EXPECT_TRUE(ProcessGuard::OutOfMemory());
    EXPECT_THROW(handler(), std::bad_alloc);
  }
  EXPECT_EQ(std::get_new_handler(), nullptr);
  { const ProcessGuard again(kWords); }
  EXPECT_FALSE(ProcessGuard::OutOfMemory());
}

}  // namespace
}  // namespace lum::vela
