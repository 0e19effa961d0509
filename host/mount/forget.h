// Taking items out of the tables.
#pragma once

#include "host/mount/content_store.h"
#include "host/mount/observer.h"
#include "host/mount/state.h"

namespace host::mount {

/// State held. Erases an item that the journal knows nothing of, its local bytes included, unless
/// a program has it open: then it stays as deleted.
void Forget(State& state, ContentStore& store, const Item& item);

/// State held. The service no longer has this item: it goes, with what is below it. What programs
/// changed there and the service does not have yet stays and will be made anew at the service.
/// Returns true when something stayed.
bool GoneAtService(State& state, ContentStore& store, Item item, Notices& notices);

/// State held. Makes the item one that the service has yet to be given.
void Detach(State& state, Item& item);

}  // namespace host::mount
