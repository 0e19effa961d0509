// Times as the service writes them (RFC 3339) and as users type and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace host {

/// Milliseconds since 1970 of "2026-01-31T12:30:00.250Z" (or with an offset such as "+02:00").
std::optional<int64_t> ParseRfc3339(const std::string& text);
/// The same, back, in UTC with milliseconds.
std::string FormatRfc3339(int64_t milliseconds);
/// "2026-01-31 12:30" in local time; the text itself when it is no RFC 3339 time.
std::string ShortTime(const std::string& rfc3339);
/// What a user may type: RFC 3339, "YYYY-MM-DD", "YYYY-MM-DD HH:MM[:SS]" in local time, "now",
/// "@SECONDS". Milliseconds since 1970; throws Failure for anything else.
int64_t ParseUserTime(const std::string& text);
/// Milliseconds since 1970, now.
int64_t NowMilliseconds();

}  // namespace host
