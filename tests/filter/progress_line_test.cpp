#include "progress_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <memory>
#include <regex>
#include <string>

namespace lum::vela {
namespace {

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

}  // namespace
}  // namespace lum::vela
