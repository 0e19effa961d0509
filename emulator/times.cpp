#include "emulator/times.h"

#include <algorithm>
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
  // Digit by digit: a page of a listing holds thousands of times.
  std::string text = "0000-00-00T00:00:00.000Z";
  const auto write = [&text](size_t last, int64_t number) {
    for (; number > 0; number /= 10) text[last--] = static_cast<char>('0' + number % 10);
  };
  write(3, std::clamp(static_cast<int>(date.year()), 0, 9999));
  write(6, static_cast<unsigned>(date.month()));
  write(9, static_cast<unsigned>(date.day()));
  write(12, clock.hours().count());
  write(15, clock.minutes().count());
  write(18, clock.seconds().count());
  write(22, clock.subseconds().count());
  return text;
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
