// What a killed host left behind, put in order before anything else runs.
#pragma once

#include "host/mount/content_store.h"
#include "host/mount/state.h"

namespace host::mount {

/// Decides about edits that no close or fsync had returned for:
/// - a new file is owed with the bytes it got;
/// - a file being rewritten from nothing is as it was before;
/// - a file being changed in place keeps the service's bytes, and the changed ones become
///   "NAME (recovered DATE).EXT" beside it; where bytes were already owed, the changes join them.
/// Also drops files and rows that nothing refers to, and marks every listing as outdated.
void Recover(State& state, ContentStore& store);

}  // namespace host::mount
