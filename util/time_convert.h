// Conversions between RFC 3339 texts, broken-down time and seconds since the epoch.
//
// Exported for the host. Stateless and thread-safe; results depend on the process's time zone. The
// readers take the six numbers of date and time and ignore fraction and zone.
#pragma once

#include <ctime>
#include <string>

#include "plugin/aerror.h"

/// The fields as they are, with ".000Z".
VORMLANE_EXPORT std::string TMToRFC3339(tm* time);
/// `*time` is local time; it is normalised in place.
VORMLANE_EXPORT std::string TMToUTCRFC3339(tm* time);
/// The instant in UTC. The other two names are kept for hosts that ask by them.
VORMLANE_EXPORT std::string TimeToRFC3339(time_t time);
VORMLANE_EXPORT std::string TimeToUTCRFC3339(time_t time);
VORMLANE_EXPORT std::string NoAdjustOffsetForServerTime(time_t time);

/// The text's wall-clock time taken as local time (no daylight saving).
VORMLANE_EXPORT time_t RFC3339ToTM(const std::string& text);
/// The text's wall-clock time taken as UTC.
VORMLANE_EXPORT time_t RFC3339ToLocalTM(const std::string& text);

/// The text moved back by the local zone's offset, twice: once by reading it as local time and once
/// more by the offset at that time.
VORMLANE_EXPORT std::string AdjustServerTimeOffset(const std::string& text);
VORMLANE_EXPORT std::string NoAdjustServerTimeOffset(const std::string& text);
/// The instant moved by the zone's offset on a fixed autumn day, so that it does not follow
/// daylight saving.
VORMLANE_EXPORT std::string AdjustOffsetForServerTime(time_t time);

/// Now, in UTC with milliseconds and without a zone designator.
VORMLANE_EXPORT std::string GetSystemTimeRfc3339();
