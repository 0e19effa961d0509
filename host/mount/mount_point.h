// The folder that a drive is mounted at, as the system sees it.
//
// Only where it says so is a mount asked for anything: one whose host is stuck may never answer.
#pragma once

#include <filesystem>
#include <string>

namespace host::mount {

/// Throws Failure, in words for the user, when nothing can be mounted at the folder: it is
/// missing, no folder, not empty, or busy. A mount left there by a host that was killed is taken
/// away first; true when there was one. Asks what is mounted there.
bool PrepareMountPoint(const std::filesystem::path& folder);

/// The path without symbolic links, as far as there are none that cannot be followed.
std::filesystem::path Resolved(const std::filesystem::path& path);

/// True when the host of the mount at the folder has gone. Asks the mount.
bool IsDead(const std::filesystem::path& folder);

/// True when one of this program's mounts is at the folder, alive or not.
bool IsOwnMount(const std::filesystem::path& folder);

/// Ends what programs wait for there, and takes the mount away, whatever its host does. For a
/// host that was killed while the kernel had it wait for a program that waited for the host: only
/// this frees them both. False when the system refuses.
bool TearDown(const std::filesystem::path& folder);

}  // namespace host::mount
