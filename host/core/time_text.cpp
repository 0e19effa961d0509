#include "host/core/time_text.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "host/core/failure.h"

namespace host {
namespace {

std::optional<int64_t> Integer(const std::string& digits) {
  int64_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

/// Days that do not exist ("02-30") come back from the calendar as another day.
bool Exists(const tm& asked, const tm& normal) {
  return asked.tm_mday == normal.tm_mday && asked.tm_mon == normal.tm_mon &&
         asked.tm_hour == normal.tm_hour && asked.tm_min == normal.tm_min && asked.tm_sec < 61;
}

/// Reads ".250" as 250; leaves the rest of the text in `rest`.
int64_t Fraction(const char*& rest) {
  if (*rest != '.') return 0;
  int64_t milliseconds = 0;
  int64_t weight = 100;
  for (++rest; *rest >= '0' && *rest <= '9'; ++rest, weight /= 10)
    milliseconds += weight * (*rest - '0');
  return milliseconds;
}

/// Seconds east of UTC of "Z" or "+02:00".
std::optional<int64_t> Offset(const char* text) {
  if ((text[0] == 'Z' || text[0] == 'z') && text[1] == '\0') return 0;
  int hours = 0;
  int minutes = 0;
  int length = 0;
  if ((text[0] != '+' && text[0] != '-') ||
      std::sscanf(text + 1, "%2d:%2d%n", &hours, &minutes, &length) != 2 ||
      text[1 + length] != '\0' || hours > 23 || minutes > 59)
    return std::nullopt;
  const int64_t seconds = hours * 3600 + minutes * 60;
  return text[0] == '-' ? -seconds : seconds;
}

std::optional<int64_t> ParseLocal(const std::string& text) {
  for (const char* format :
       {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d"}) {
    tm asked{};
    const char* rest = strptime(text.c_str(), format, &asked);
    if (rest == nullptr || *rest != '\0') continue;
    tm normal = asked;
    normal.tm_isdst = -1;
    const time_t seconds = mktime(&normal);
    if (!Exists(asked, normal)) return std::nullopt;
    return int64_t{seconds} * 1000;
  }
  return std::nullopt;
}

}  // namespace

std::optional<int64_t> ParseRfc3339(const std::string& text) {
  tm asked{};
  const char* rest = strptime(text.c_str(), "%Y-%m-%d", &asked);
  if (rest == nullptr || (*rest != 'T' && *rest != 't')) return std::nullopt;
  rest = strptime(rest + 1, "%H:%M:%S", &asked);
  if (rest == nullptr) return std::nullopt;
  const int64_t milliseconds = Fraction(rest);
  const auto offset = Offset(rest);
  tm normal = asked;
  const time_t seconds = timegm(&normal);
  if (!offset || !Exists(asked, normal)) return std::nullopt;
  return (int64_t{seconds} - *offset) * 1000 + milliseconds;
}

std::string FormatRfc3339(int64_t milliseconds) {
  time_t seconds = milliseconds / 1000;
  int64_t rest = milliseconds % 1000;
  if (rest < 0) {
    rest += 1000;
    --seconds;
  }
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(rest));
  return text;
}

std::string ShortTime(const std::string& rfc3339) {
  const auto milliseconds = ParseRfc3339(rfc3339);
  if (!milliseconds) return rfc3339;
  const time_t seconds = *milliseconds / 1000;
  tm parts{};
  localtime_r(&seconds, &parts);
  char text[64];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
  return text;
}

int64_t ParseUserTime(const std::string& text) {
  if (text == "now") return NowMilliseconds();
  if (!text.empty() && text[0] == '@') {
    if (const auto seconds = Integer(text.substr(1))) return *seconds * 1000;
  }
  if (const auto exact = ParseRfc3339(text)) return *exact;
  if (const auto local = ParseLocal(text)) return *local;
  throw Failure("\"" + text + "\" is no time",
                "say \"YYYY-MM-DD HH:MM\", an RFC 3339 time, @SECONDS or now");
}

int64_t NowMilliseconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace host
