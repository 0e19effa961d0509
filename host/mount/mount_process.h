// The process that serves a mount.
#pragma once

#include <sys/types.h>

#include <filesystem>

#include "host/cli/context.h"
#include "host/mount/settings.h"

namespace host::mount {

struct MountOptions {
  std::filesystem::path folder;
  bool foreground = false;
  bool push = true;
  Settings settings;
};

/// Where a profile's mount listens.
std::filesystem::path SocketOf(const ProfilePaths& paths);

/// What a user whose changes are not all on the service is told at the end of a mount; nothing
/// when all are.
void SayWhatIsLeft(int64_t changes);

/// The process that serves the profile's mount, or has served the last one.
struct Server {
  pid_t process = 0;
  std::filesystem::path folder;
};
Server ServedBy(const ProfilePaths& paths);

/// Waits until the host of the profile's mount has ended.
void AwaitEnd(const ProfilePaths& paths);
/// The same for one whose mount was taken away: when it does not end by itself, it is killed.
void MakeEnd(const ProfilePaths& paths);

/// Mounts and serves until unmounted. In the background it returns once the folder can be used,
/// and the mount lives on in a process of its own. Throws Failure.
void RunMount(Context& context, const MountOptions& options);

}  // namespace host::mount
