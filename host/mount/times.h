// RFC 3339 texts of the service and nanoseconds of the file system. Pure functions.
#pragma once

#include <cstdint>
#include <string>

namespace host::mount {

/// Nanoseconds since 1970; times that they cannot tell become the nearest that they can, of 1677 or
/// 2262.
int64_t ToNanoseconds(int64_t seconds, int64_t nanoseconds);
/// The same of a text; 0 when the text is not such a time.
int64_t FromRfc3339(const std::string& text);
/// UTC with milliseconds, the resolution of the service: "2026-01-31T08:15:00.250Z".
std::string ToRfc3339(int64_t nanoseconds);
/// Local time for people and for file names: "2026-01-31 081500".
std::string LocalStamp(int64_t nanoseconds);

}  // namespace host::mount
