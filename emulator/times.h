// Times in milliseconds since the Unix epoch, and their RFC 3339 texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace emulator {

int64_t NowMilliseconds();
/// "2024-03-01T12:00:00.000Z"
std::string Rfc3339(int64_t milliseconds);
/// Accepts fractions of any length, "Z", "+HH:MM" or no zone (UTC), and a date alone.
std::optional<int64_t> ParseRfc3339(std::string_view text);
/// "Fri, 01 Mar 2024 12:00:00 GMT"
std::string HttpDate(int64_t milliseconds);

}  // namespace emulator
