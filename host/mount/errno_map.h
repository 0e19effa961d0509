// The one table from the plug-in's codes to the errors that programs on the mount see.
#pragma once

#include <exception>

#include "plugin/aerror.h"

namespace host::mount {

/// A positive errno value; 0 for SUCCESS. Codes without a better match are EIO.
int ErrnoOf(AERROR code);

/// What programs are told of a failure of the local disk or of the tables on it: ENOSPC when it is
/// full, EROFS when it takes no writes, else EIO.
int ErrnoOf(const std::exception& failure);

}  // namespace host::mount
