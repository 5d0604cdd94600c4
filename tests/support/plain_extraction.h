#ifndef MOTRACE_TESTS_SUPPORT_PLAIN_EXTRACTION_H_
#define MOTRACE_TESTS_SUPPORT_PLAIN_EXTRACTION_H_

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/samples.h"

/// A second, deliberately plain statement of what an extraction must write, to compare the tool
/// and the motion filter with. It shares no code with either and uses no JSON library.
namespace motrace::testing {

/// One packet of the data stream as the motion filter gets it.
struct TimedPayload {
  std::int64_t pts_ms = 0;
  std::int64_t dts_ms = 0;
  Bytes payload;
};

/// What the packets of one data stream become: the eight files by name.
std::map<std::string, Bytes> ExtractPlainly(const std::vector<TimedPayload>& packets);

/// A double as gps.json shows it: 15 significant digits, ".0" after what would look like an
/// integer, null for what JSON has no number for.
std::string JsonNumber(double value);

/// The packets of the file's data stream (FFmpeg's choice), read with plain libavformat calls.
/// Time stamps are relative to the first packet of any stream, in milliseconds. Empty optional:
/// the file has no data stream. Throws std::runtime_error when it can't be opened.
std::optional<std::vector<TimedPayload>> ReadDataStream(const std::filesystem::path& path);

}  // namespace motrace::testing

#endif  // MOTRACE_TESTS_SUPPORT_PLAIN_EXTRACTION_H_
