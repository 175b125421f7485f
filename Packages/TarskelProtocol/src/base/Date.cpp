#include "tarskel/protocol/base/Date.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace tarskel {
namespace {

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2 ? 1 : 0;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
  std::int64_t year;
  unsigned month;
  unsigned day;
};

Civil civilFromDays(std::int64_t z) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  return {static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2 ? 1 : 0), m, d};
}

bool isLeap(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(std::int64_t y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

// Reads exactly `n` ASCII digits.
bool readDigits(std::string_view text, std::size_t at, std::size_t n, unsigned& out) {
  out = 0;
  for (std::size_t i = at; i < at + n; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    out = out * 10 + static_cast<unsigned>(text[i] - '0');
  }
  return true;
}

}  // namespace

Date Date::now() {
  using namespace std::chrono;
  const auto since = duration_cast<duration<double>>(system_clock::now().time_since_epoch());
  return fromUnixTime(since.count());
}

UTCTime utcTime(Date date) {
  constexpr double kLimit = 1e15;
  double unix = std::floor(date.unixTime());
  if (std::isnan(unix)) unix = 0;
  unix = std::clamp(unix, -kLimit, kLimit);
  const auto seconds = static_cast<std::int64_t>(unix);
  std::int64_t days = seconds / 86400;
  std::int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    days -= 1;
  }
  const Civil c = civilFromDays(days);
  return {c.year,
          c.month,
          c.day,
          static_cast<unsigned>(rest / 3600),
          static_cast<unsigned>(rest / 60 % 60),
          static_cast<unsigned>(rest % 60)};
}

std::string formatISO8601(Date date) {
  const UTCTime t = utcTime(date);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02u:%02u:%02uZ",
                static_cast<long long>(t.year), t.month, t.day, t.hour, t.minute, t.second);
  return buffer;
}

std::optional<Date> parseISO8601(std::string_view text) {
  // yyyy-MM-ddTHH:mm:ssZ
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text[19] != 'Z') {
    return std::nullopt;
  }
  unsigned year, month, day, hour, minute, second;
  if (!readDigits(text, 0, 4, year) || !readDigits(text, 5, 2, month) ||
      !readDigits(text, 8, 2, day) || !readDigits(text, 11, 2, hour) ||
      !readDigits(text, 14, 2, minute) || !readDigits(text, 17, 2, second)) {
    return std::nullopt;
  }
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
      minute > 59 || second > 59) {
    return std::nullopt;
  }
  const std::int64_t days = daysFromCivil(year, month, day);
  const double unix = static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second);
  return Date::fromUnixTime(unix);
}

}  // namespace tarskel
