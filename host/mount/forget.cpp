#include "host/mount/forget.h"

namespace host::mount {

void Forget(State& state, ContentStore& store, const Item& item) {
  if (state.opened.count(item.ino) != 0) {
    if (item.deleted) return;
    Item kept = item;
    kept.deleted = true;
    state.items.Update(kept);
    return;
  }
  store.Remove(item.content);
  state.Pin(item.ino, false);
  state.items.Erase(item.ino);
}

void Detach(State& state, Item& item) {
  item.id.clear();
  item.remoteName.clear();
  item.remoteParent.clear();
  item.remoteTime.clear();
  item.otherParents.clear();
  item.remoteSize = 0;
  item.stamp = state.NextStamp();
  if (item.IsFolder()) item.listedAt = NowSeconds();
  state.items.Update(item);
  JournalRow row = state.journal.Find(item.ino).value_or(JournalRow{.ino = item.ino});
  row.hasBase = false;
  row.attempted = false;
  if (row.since == 0) row.since = NowSeconds();
  state.journal.Put(row);
  state.newlyOwed.push_back(item.ino);
}

bool GoneAtService(State& state, ContentStore& store, Item item, Notices& notices) {
  bool stayed = false;
  state.standing.erase(item.id);
  if (item.IsFolder())
    for (const Item& child : state.items.Children(item.ino, true)) {
      // The queue finds out whether somebody else has moved it out before.
      if (child.deleted && state.journal.Has(child.ino)) continue;
      // Put there by a program on the mount; at the service it is elsewhere, where nothing
      // happened.
      const bool movedIn = !child.id.empty() && child.remoteParent != item.id;
      const bool stays = movedIn ? !child.deleted : GoneAtService(state, store, child, notices);
      stayed = stays || stayed;
    }
  const std::optional<JournalRow> row = state.journal.Find(item.ino);
  const bool local = row && (row->content != 0 || row->editing || item.id.empty());
  if (!item.deleted && (stayed || local)) {
    Detach(state, item);
    return true;
  }
  if (row) state.journal.Erase(item.ino);
  if (!item.deleted) notices.push_back({Notice::kEntry, item.parent, item.name});
  Forget(state, store, item);
  return false;
}

}  // namespace host::mount
