#include "emulator/times.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace emulator {

namespace {

/// Reads decimal digits from the front of `text`.
std::optional<int> TakeNumber(std::string_view& text, size_t digits) {
  if (text.size() < digits) return std::nullopt;
  int number = 0;
  for (size_t i = 0; i < digits; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    number = number * 10 + (text[i] - '0');
  }
  text.remove_prefix(digits);
  return number;
}

bool TakeChar(std::string_view& text, char wanted) {
  if (text.empty() || text.front() != wanted) return false;
  text.remove_prefix(1);
  return true;
}

std::optional<int64_t> TakeDate(std::string_view& text) {
  using namespace std::chrono;
  const auto y = TakeNumber(text, 4);
  if (!y || !TakeChar(text, '-')) return std::nullopt;
  const auto m = TakeNumber(text, 2);
  if (!m || !TakeChar(text, '-')) return std::nullopt;
  const auto d = TakeNumber(text, 2);
  if (!d) return std::nullopt;
  const year_month_day date{year{*y}, month{static_cast<unsigned>(*m)},
                            day{static_cast<unsigned>(*d)}};
  if (!date.ok()) return std::nullopt;
  return duration_cast<milliseconds>(sys_days{date}.time_since_epoch()).count();
}

std::optional<int64_t> TakeClock(std::string_view& text) {
  const auto hours = TakeNumber(text, 2);
  if (!hours || *hours > 24 || !TakeChar(text, ':')) return std::nullopt;
  const auto minutes = TakeNumber(text, 2);
  if (!minutes || *minutes > 59) return std::nullopt;
  int seconds = 0, thousandths = 0;
  if (TakeChar(text, ':')) {
    const auto read = TakeNumber(text, 2);
    if (!read || *read > 60) return std::nullopt;
    seconds = *read;
  }
  if (TakeChar(text, '.')) {
    for (int weight = 100; !text.empty() && text[0] >= '0' && text[0] <= '9'; weight /= 10) {
      thousandths += (text[0] - '0') * weight;
      text.remove_prefix(1);
    }
  }
  return ((*hours * 60LL + *minutes) * 60 + seconds) * 1000 + thousandths;
}

std::optional<int64_t> TakeZone(std::string_view& text) {
  if (text.empty() || TakeChar(text, 'Z') || TakeChar(text, 'z')) return 0;
  const bool minus = TakeChar(text, '-');
  if (!minus && !TakeChar(text, '+')) return std::nullopt;
  const auto hours = TakeNumber(text, 2);
  TakeChar(text, ':');
  const auto minutes = TakeNumber(text, 2);
  if (!hours || !minutes) return std::nullopt;
  return (*hours * 60LL + *minutes) * 60'000 * (minus ? -1 : 1);
}

}  // namespace

int64_t NowMilliseconds() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string Rfc3339(int64_t milliseconds) {
  using namespace std::chrono;
  const sys_time<std::chrono::milliseconds> time{std::chrono::milliseconds{milliseconds}};
  const auto day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss clock{time - day};
  char text[80];
  const int length = std::snprintf(
      text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return std::string(text, static_cast<size_t>(length));
}

std::optional<int64_t> ParseRfc3339(std::string_view text) {
  const auto date = TakeDate(text);
  if (!date) return std::nullopt;
  if (text.empty()) return date;
  if (!TakeChar(text, 'T') && !TakeChar(text, 't')) return std::nullopt;
  const auto clock = TakeClock(text);
  if (!clock) return std::nullopt;
  const auto zone = TakeZone(text);
  if (!zone || !text.empty()) return std::nullopt;
  return *date + *clock - *zone;
}

std::string HttpDate(int64_t milliseconds) {
  const time_t seconds = static_cast<time_t>(milliseconds / 1000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  return std::string(text, strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts));
}

}  // namespace emulator
