// The kernel's requests, each translated into one call of the drive and answered once.
//
// The session's user data is a FuseContext. Requests arrive on many threads.
#pragma once

#include <fuse_lowlevel.h>

#include "host/mount/attributes.h"
#include "host/mount/drive.h"

namespace host::mount {

struct FuseContext {
  Drive& drive;
  Ownership ownership;
};

const fuse_lowlevel_ops& FuseOperations();

}  // namespace host::mount
