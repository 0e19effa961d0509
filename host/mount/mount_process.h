// The process that serves a mount.
#pragma once

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

/// Mounts and serves until unmounted. In the background it returns once the folder can be used,
/// and the mount lives on in a process of its own. Throws Failure.
void RunMount(Context& context, const MountOptions& options);

}  // namespace host::mount
