#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarskel {

// A point in time: seconds since 2001-01-01T00:00:00Z, as a binary64.
struct Date {
  // Seconds between 1970-01-01 and 2001-01-01.
  static constexpr double kUnixEpochOffset = 978307200.0;

  double secondsSinceReferenceDate = 0;

  static Date now();
  static Date fromUnixTime(double seconds) { return Date{seconds - kUnixEpochOffset}; }
  double unixTime() const { return secondsSinceReferenceDate + kUnixEpochOffset; }

  friend auto operator<=>(const Date&, const Date&) = default;
};

// The calendar fields of a date in UTC, the fraction of a second dropped.
// Dates beyond about 30 million years are clamped there and NaN reads as the
// Unix epoch, so that every step stays inside 64-bit integers.
struct UTCTime {
  std::int64_t year;
  unsigned month, day, hour, minute, second;
};
UTCTime utcTime(Date date);

// "yyyy-MM-ddTHH:mm:ssZ" in UTC; the fraction of a second is dropped, not rounded.
std::string formatISO8601(Date date);

// Reads exactly the form formatISO8601 writes. A fraction of a second, an
// offset other than "Z", or any other deviation yields nothing.
std::optional<Date> parseISO8601(std::string_view text);

}  // namespace tarskel
