#include "host/mount/times.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <limits>

namespace host::mount {
namespace {

constexpr int64_t kSecond = 1'000'000'000;

/// Nanoseconds of a fraction like ".25", and where it ends.
int64_t Fraction(const char*& at) {
  int64_t value = 0;
  if (*at != '.') return 0;
  int64_t unit = kSecond / 10;
  for (++at; *at >= '0' && *at <= '9'; ++at, unit /= 10) value += (*at - '0') * unit;
  return value;
}

}  // namespace

int64_t ToNanoseconds(int64_t seconds, int64_t nanoseconds) {
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max() / kSecond - 1;
  return std::clamp(seconds, -kMost, kMost) * kSecond + nanoseconds;
}

int64_t FromRfc3339(const std::string& text) {
  std::tm parts{};
  int length = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &parts.tm_year, &parts.tm_mon,
                  &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &length) != 6)
    return 0;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  const char* at = text.c_str() + length;
  const int64_t fraction = Fraction(at);
  int hours = 0;
  int minutes = 0;
  char sign = 0;
  int64_t offset = 0;
  if (std::sscanf(at, "%c%2d:%2d", &sign, &hours, &minutes) == 3)
    offset = (sign == '-' ? -1 : 1) * (hours * 3600 + minutes * 60);
  return ToNanoseconds(timegm(&parts) - offset, fraction);
}

std::string ToRfc3339(int64_t nanoseconds) {
  const int64_t milliseconds = nanoseconds / 1'000'000 - (nanoseconds % 1'000'000 < 0);
  std::time_t seconds = milliseconds / 1000 - (milliseconds % 1000 < 0);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  const int rest = static_cast<int>(milliseconds - seconds * 1000);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", rest);
  return text;
}

std::string LocalStamp(int64_t nanoseconds) {
  const std::time_t seconds = nanoseconds / kSecond;
  std::tm parts{};
  localtime_r(&seconds, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H%M%S", &parts);
  return text;
}

}  // namespace host::mount
