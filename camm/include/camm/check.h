// What is wrong with a motion track, or will trouble those who use it.
#ifndef CAMM_CHECK_H_
#define CAMM_CHECK_H_

#include <cstdint>
#include <string>
#include <vector>

#include "camm/recording.h"

namespace camm {

enum class Severity {
  kNote,     ///< unusual; most uses don't mind
  kWarning,  ///< some uses will go wrong
  kError,    ///< data are missing or wrong
};

/// One kind of finding; where it occurs many times, the first.
struct Finding {
  std::string code;  ///< stable, as `gps-jump`; with a profile that has a name for it, its name
  Severity severity = Severity::kWarning;
  std::int64_t time_ns = kNoTime;  ///< where it is or begins; `kNoTime`: the whole file
  std::string detail;              ///< a plain sentence without full stop, for people
};

/// Whose rules apply.
enum class Profile {
  kGeneral,
  /// The publishing interface of street-level imagery: findings carry the names of its failure
  /// reasons (`ProcessingFailureReason` in
  /// https://developers.google.com/streetview/publish/reference) where it has one, and what it
  /// needs and the file lacks is a finding too.
  kStreetView,
};

struct CheckOptions {
  int stream_index = -1;  ///< as in ReadOptions
  Profile profile = Profile::kGeneral;
};

struct CheckResult {
  ReadResult reading;  ///< nothing was checked unless its status is `kWhole` or `kPartial`
  std::vector<Finding> findings;

  /// Whether anything is worse than a note.
  [[nodiscard]] bool Wrong() const;
};

/// Reads the file's track into memory and looks at it. Threads: as `Stream`.
CheckResult Check(const std::string& path, const CheckOptions& options = {});
/// The same of a recording that was read before.
CheckResult Check(const std::string& path, const Recording& recording,
                  const CheckOptions& options = {});

}  // namespace camm

#endif  // CAMM_CHECK_H_
