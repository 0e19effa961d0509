#include "util/time_convert.h"

#include <sys/time.h>

#include <cstdio>

namespace {

tm Utc(time_t time) {
  tm fields{};
  gmtime_r(&time, &fields);
  return fields;
}

tm Local(time_t time) {
  tm fields{};
  localtime_r(&time, &fields);
  return fields;
}

/// Seconds by which local time is ahead of UTC at an instant.
time_t ZoneOffset(time_t time) {
  tm fields = Utc(time);
  return static_cast<time_t>(difftime(time, mktime(&fields)));
}

std::string FormatUtc(time_t time) {
  tm fields = Utc(time);
  return TMToRFC3339(&fields);
}

tm ReadFields(const std::string& text) {
  tm fields{};
  // Nine digits always fit an int; a hostile text must not overflow the arithmetic below.
  sscanf(text.c_str(), "%9d-%9d-%9dT%9d:%9d:%9d", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
         &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
  fields.tm_year -= 1900;
  fields.tm_mon -= 1;
  return fields;
}

}  // namespace

std::string TMToRFC3339(tm* time) {
  char text[128];
  snprintf(text, sizeof(text), "%04lld-%02lld-%02dT%02d:%02d:%02d.000Z", time->tm_year + 1900LL,
           time->tm_mon + 1LL, time->tm_mday, time->tm_hour, time->tm_min, time->tm_sec);
  return text;
}

std::string TMToUTCRFC3339(tm* time) { return FormatUtc(mktime(time)); }

std::string TimeToRFC3339(time_t time) {
  tm fields = Local(time);
  return FormatUtc(mktime(&fields));
}

std::string TimeToUTCRFC3339(time_t time) { return TimeToRFC3339(time); }

std::string NoAdjustOffsetForServerTime(time_t time) { return TimeToRFC3339(time); }

time_t RFC3339ToTM(const std::string& text) {
  tm fields = ReadFields(text);
  return mktime(&fields);
}

time_t RFC3339ToLocalTM(const std::string& text) {
  const time_t time = RFC3339ToTM(text);
  return time + ZoneOffset(time);
}

std::string AdjustServerTimeOffset(const std::string& text) {
  tm fields = ReadFields(text);
  fields.tm_isdst = -1;
  return TimeToRFC3339(RFC3339ToTM(text) - ZoneOffset(mktime(&fields)));
}

std::string NoAdjustServerTimeOffset(const std::string& text) { return text; }

std::string AdjustOffsetForServerTime(time_t time) {
  tm reference{};
  reference.tm_year = 2015 - 1900;
  reference.tm_mon = 9;
  reference.tm_mday = 3;
  reference.tm_isdst = -1;
  return TimeToRFC3339(time + ZoneOffset(mktime(&reference)));
}

std::string GetSystemTimeRfc3339() {
  timeval now{};
  gettimeofday(&now, nullptr);
  const tm fields = Utc(now.tv_sec);
  char text[128];
  snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03d", fields.tm_year + 1900,
           fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
           static_cast<int>(now.tv_usec / 1000));
  return text;
}
