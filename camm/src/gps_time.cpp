#include "camm/gps_time.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <iterator>

namespace camm {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kDay = 86400;

// Unix times at which a leap second had just been inserted, since the GPS epoch.
constexpr std::array<std::int64_t, 18> kLeaps{
    362793600,   // 1981-07-01
    394329600,   // 1982-07-01
    425865600,   // 1983-07-01
    489024000,   // 1985-07-01
    567993600,   // 1988-01-01
    631152000,   // 1990-01-01
    662688000,   // 1991-01-01
    709948800,   // 1992-07-01
    741484800,   // 1993-07-01
    773020800,   // 1994-07-01
    820454400,   // 1996-01-01
    867715200,   // 1997-07-01
    915148800,   // 1999-01-01
    1136073600,  // 2006-01-01
    1230768000,  // 2009-01-01
    1341100800,  // 2012-07-01
    1435708800,  // 2015-07-01
    1483228800,  // 2017-01-01
};

// Days since 1970-01-01 and back, in the Gregorian calendar; by counting in eras of 400 years that
// begin in March (https://howardhinnant.github.io/date_algorithms.html).
std::int64_t DaysFromDate(std::int64_t year, int month, int day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t year_of_era = year - era * 400;
  const std::int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  return era * 146097 + year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year -
         719468;
}

struct Date {
  std::int64_t year;
  int month, day;
};

Date DateFromDays(std::int64_t days) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t day_of_era = days - era * 146097;
  const std::int64_t year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const std::int64_t day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int shifted_month = static_cast<int>((5 * day_of_year + 2) / 153);  // 0: March
  const int day = static_cast<int>(day_of_year - (153 * shifted_month + 2) / 5 + 1);
  const int month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
  return {year_of_era + era * 400 + (month <= 2), month, day};
}

std::int64_t FloorDivide(std::int64_t value, std::int64_t by) {
  return value / by - (value % by < 0);
}

// Takes exactly `digits` digits, or nothing.
bool Take(std::string_view& text, std::size_t digits, int& value) {
  if (text.size() < digits || text[0] == '-') return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + digits, value);
  if (error != std::errc() || end != text.data() + digits) return false;
  text.remove_prefix(digits);
  return true;
}

bool Take(std::string_view& text, char character) {
  if (text.empty() || text[0] != character) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

int LeapSeconds(double gps_seconds) {
  const auto* const after =
      std::find_if(kLeaps.begin(), kLeaps.end(), [&](const std::int64_t& leap) {
        return gps_seconds <
               static_cast<double>(leap - kGpsEpochUnixSeconds + (&leap - kLeaps.data()));
      });
  return static_cast<int>(after - kLeaps.begin());
}

std::optional<std::int64_t> UtcFromGps(double gps_seconds, std::optional<int> leap_seconds) {
  constexpr double kEnd = 8.9e9;  // nanoseconds since 1970 still fit
  if (!(gps_seconds > 0 && gps_seconds < kEnd)) return std::nullopt;
  const double whole = std::floor(gps_seconds);
  return (static_cast<std::int64_t>(whole) + kGpsEpochUnixSeconds -
          leap_seconds.value_or(LeapSeconds(gps_seconds))) *
             kSecond +
         std::llround((gps_seconds - whole) * 1e9);
}

double GpsFromUtc(std::int64_t unix_ns, std::optional<int> leap_seconds) {
  const std::int64_t seconds = FloorDivide(unix_ns, kSecond);
  const auto table = [seconds] {
    return static_cast<int>(std::upper_bound(kLeaps.begin(), kLeaps.end(), seconds) -
                            kLeaps.begin());
  };
  return static_cast<double>(seconds - kGpsEpochUnixSeconds +
                             (leap_seconds ? *leap_seconds : table())) +
         static_cast<double>(unix_ns - seconds * kSecond) * 1e-9;
}

std::string FormatUtc(std::int64_t unix_ns) {
  const std::int64_t ms =
      FloorDivide(unix_ns, 1'000'000) + (unix_ns % 1'000'000 + 1'000'000) % 1'000'000 / 500'000;
  const std::int64_t seconds = FloorDivide(ms, 1000);
  const std::int64_t days = FloorDivide(seconds, kDay);
  const Date date = DateFromDays(days);
  const auto second_of_day = static_cast<int>(seconds - days * kDay);
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                static_cast<int>(date.year), date.month, date.day, second_of_day / 3600,
                second_of_day / 60 % 60, second_of_day % 60, static_cast<int>(ms - seconds * 1000));
  return text.data();
}

std::optional<std::int64_t> ParseUtc(std::string_view text) {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (!Take(text, 4, year) || !Take(text, '-') || !Take(text, 2, month) || !Take(text, '-') ||
      !Take(text, 2, day) || !(Take(text, 'T') || Take(text, ' ')) || !Take(text, 2, hour) ||
      !Take(text, ':') || !Take(text, 2, minute) || !Take(text, ':') || !Take(text, 2, second)) {
    return std::nullopt;
  }
  std::int64_t fraction = 0;
  if (Take(text, '.')) {
    const std::size_t places = std::min(text.find_first_not_of("0123456789"), text.size());
    if (places < 1 || places > 9) return std::nullopt;
    std::from_chars(text.data(), text.data() + places, fraction);
    for (std::size_t i = places; i < 9; ++i) fraction *= 10;
    text.remove_prefix(places);
  }
  int offset = 0;  // minutes
  if (!Take(text, 'Z') && !text.empty()) {
    const int sign = text[0] == '-' ? -1 : 1;
    int hours = 0;
    if (!(Take(text, '+') || Take(text, '-')) || !Take(text, 2, hours)) return std::nullopt;
    Take(text, ':');
    if (!Take(text, 2, offset) || offset > 59 || hours > 23) return std::nullopt;
    offset = sign * (hours * 60 + offset);
  }
  const std::int64_t days = DaysFromDate(year, month, day);
  const Date date = DateFromDays(days);
  if (!text.empty() || year < 1678 || year > 2261 || month < 1 || month > 12 ||
      date.month != month || date.day != day || hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  const std::int64_t minutes = std::int64_t{hour} * 60 + minute - offset;
  return (days * kDay + minutes * 60 + second) * kSecond + fraction;
}

}  // namespace camm
