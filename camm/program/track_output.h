// What the verbs that write a track share.
#ifndef CAMM_PROGRAM_TRACK_OUTPUT_H_
#define CAMM_PROGRAM_TRACK_OUTPUT_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "camm/program/program.h"
#include "camm/track_writer.h"

namespace camm::program {

/// Nanoseconds of a decimal number of seconds, exactly as far as it has nine places.
/// @throws UsageError where it is none.
std::int64_t ParseSeconds(std::string_view text);

/// `START:END` in seconds; either may be left out.
struct TimeRange {
  std::optional<std::int64_t> start_ns, end_ns;
  /// The end is not included.
  [[nodiscard]] bool Holds(std::int64_t time_ns) const {
    return (!start_ns || time_ns >= *start_ns) && (!end_ns || time_ns < *end_ns);
  }
};
/// @throws UsageError
TimeRange ParseRange(std::string_view text);

/// A time moved by an offset; a missing one stays missing.
/// @throws UsageError where the result is out of range.
std::int64_t Moved(std::int64_t time_ns, std::int64_t by_ns);

/// What became of a file with a track.
struct TrackOutcome {
  int exit_code = kExitCannot;
  std::string error;
  WriteResult written;
  std::int64_t left_out = 0;  ///< packets of the source
};

/// Finishes the file, and says on standard error what was written or why not.
void FinishTrack(const CommonOptions& common, const std::string& path, TrackWriter& writer,
                 TrackOutcome& outcome);

/// Runs `work`, which writes `path`, and shows what became of it: progress on a terminal, JSON
/// where that is asked for.
/// @return the exit code.
int RunTrackVerb(const CommonOptions& common, const std::string& path,
                 const std::function<void(TrackOutcome&)>& work);

}  // namespace camm::program

#endif  // CAMM_PROGRAM_TRACK_OUTPUT_H_
