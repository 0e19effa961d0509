// A profile whose database cannot be read any more: a disk that failed, somebody's editor.
#pragma once

#include <filesystem>
#include <optional>

#include "host/core/paths.h"

namespace host::mount {

/// Moves a damaged database, and all local bytes with it, into a folder of their own beside it;
/// files that were not on the service yet get their names back there as far as they can be read.
/// The profile's values go over to a new database. That folder, or nothing when the database is
/// sound; it is read through only when the last host did not end in order. Throws Failure.
std::optional<std::filesystem::path> SetDamagedAside(const ProfilePaths& paths);

}  // namespace host::mount
