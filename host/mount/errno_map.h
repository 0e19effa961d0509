// The one table from the plug-in's codes to the errors that programs on the mount see.
#pragma once

#include "plugin/aerror.h"

namespace host::mount {

/// A positive errno value; 0 for SUCCESS. Codes without a better match are EIO.
int ErrnoOf(AERROR code);

}  // namespace host::mount
