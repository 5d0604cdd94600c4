// GPS time and UTC.
//
// GPS time counts seconds since 1980-01-06 00:00:00 UTC without leap seconds, so it runs ahead of
// UTC by those inserted since (18 from 2017 on). The leap seconds are those of the IERS's Bulletin
// C: https://hpiers.obspm.fr/iers/bul/bulc/Leap_Second.dat
#ifndef CAMM_GPS_TIME_H_
#define CAMM_GPS_TIME_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace camm {

/// Unix time of the GPS epoch, seconds.
inline constexpr std::int64_t kGpsEpochUnixSeconds = 315964800;

/// Leap seconds between GPS time and UTC at a GPS time. During a leap second it is already counted:
/// UTC then shows 23:59:59 twice.
int LeapSeconds(double gps_seconds);

/// Unix time in nanoseconds, from seconds since the GPS epoch.
/// @param leap_seconds in place of the table's; unset: the table's.
/// @return nothing for what is not a recording's time: not above 0 (a receiver that does not know
///   the time yet says 0), not a number, or after the year 2261.
std::optional<std::int64_t> UtcFromGps(double gps_seconds,
                                       std::optional<int> leap_seconds = std::nullopt);

/// The inverse: seconds since the GPS epoch, as near as a double comes (0.2 microseconds).
double GpsFromUtc(std::int64_t unix_ns, std::optional<int> leap_seconds = std::nullopt);

/// `2026-01-02T10:11:12.345Z`: ISO 8601, rounded to milliseconds.
std::string FormatUtc(std::int64_t unix_ns);

/// Reads `2026-01-02T10:11:12`, with or without a fraction of up to nine places, and `Z` or an
/// offset as `+01:00` (none: UTC). Leap seconds (`:60`) count as the second after them.
/// @return nothing if it is not such a time, or outside 1678 to 2261.
std::optional<std::int64_t> ParseUtc(std::string_view text);

}  // namespace camm

#endif  // CAMM_GPS_TIME_H_
