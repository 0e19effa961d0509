#include <algorithm>
#include <sstream>

#include "host/core/failure.h"
#include "host/mount/listing_merge.h"
#include "host/mount/name_map.h"
#include "host/mount/settler.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

RemoteItem RecordOf(const Item& item) {
  RemoteItem record;
  record.id = item.id;
  record.name = NameToSend(item);
  record.attributes = item.attributes;
  record.parent_id = item.remoteParent;
  record.parents.push_back(item.remoteParent);
  std::istringstream others(item.otherParents);
  for (std::string parent; others >> parent;) record.parents.push_back(parent);
  return record;
}

}  // namespace

/// Whether a folder of the service has an item; nothing when it cannot be listed.
std::optional<bool> Settler::IsListed(const std::string& folder, const std::string& id) {
  std::vector<RemoteItem> listed;
  if (remote.List(folder, listed) != AERROR::SUCCESS) return std::nullopt;
  return std::any_of(listed.begin(), listed.end(),
                     [&](const RemoteItem& item) { return item.id == id; });
}

/// Whether the service has the item: where it was last seen, or where an answer that was lost may
/// have put it. Nothing when that cannot be known now; only a certain no may lead to anything.
std::optional<bool> Settler::Exists(const Work& work) {
  RemoteItem record;
  if (remote.Info(work.item.id, record) == AERROR::SUCCESS) return true;
  for (const std::string& folder : {work.item.remoteParent, work.parent.id}) {
    if (folder.empty()) continue;
    const std::optional<bool> listed = IsListed(folder, work.item.id);
    if (!listed || *listed) return listed;
  }
  return false;
}

Verdict Settler::Relocate(const Work& work) {
  const bool moves = work.parent.id != work.item.remoteParent;
  // A folder is moved before what goes into it, so that no two ever contain each other.
  if (moves && work.parentOwed) return {.kind = Verdict::kBlocked, .on = work.parent.ino};
  const std::string name = NameToSend(work.item);
  RemoteItem record = RecordOf(work.item);
  const AERROR code = moves ? remote.Move(work.item.remoteParent, work.parent.id, record)
                            : remote.Rename(work.item.id, name, record);
  if (ConfirmPlace(work, name, work.parent.id)) return {.kind = Verdict::kProgress};
  if (code != AERROR::SUCCESS) {
    const std::optional<bool> exists = Exists(work);
    if (exists && !*exists) return Vanished(work);
  }
  return {.kind = Verdict::kFailed, .error = "not renamed or moved: " + Meaning(code)};
}

/// Reads the item back: what the service says about it counts, not the answer to the request.
bool Settler::ConfirmPlace(const Work& work, const std::string& name, const std::string& parentId) {
  RemoteItem record;
  if (remote.Info(work.item.id, record) != AERROR::SUCCESS) return false;
  const bool document = (record.attributes & kFsInlineContent) != 0;
  const bool named =
      document ? DocumentName(record.name) == Trimmed(name) : record.name == Trimmed(name);
  // A document's record does not tell its parents.
  const bool placed = document || std::find(record.parents.begin(), record.parents.end(),
                                            parentId) != record.parents.end();
  if (!named || !placed) return false;
  std::lock_guard lock(state.mutex);
  std::optional<Item> item = state.items.Find(work.item.ino);
  if (!item || item->id != work.item.id) return true;
  item->remoteName = Trimmed(work.item.driveName);
  item->remoteParent = parentId;
  item->stamp = state.NextStamp();
  state.items.Update(*item);
  return true;
}

/// Deleted by somebody else while it was to be renamed here: there is nothing to rename.
Verdict Settler::Vanished(const Work& work) {
  Notices notices;
  {
    std::lock_guard lock(state.mutex);
    const std::optional<Item> item = state.items.Find(work.item.ino);
    if (item && item->id == work.item.id)
      state.Change([&] { GoneAtService(state, store, *item, notices); });
  }
  folders.Tell(notices);
  return {.kind = Verdict::kProgress};
}

Verdict Settler::SetTimes(const Work& work) {
  const std::string time = ToRfc3339(work.item.mtime);
  {
    std::lock_guard lock(state.mutex);
    std::optional<JournalRow> row = state.journal.Find(work.item.ino);
    if (!row) return {.kind = Verdict::kProgress};
    row->attemptTime = time;
    state.journal.Put(*row);
  }
  RemoteItem record;
  const AERROR code = remote.SetModified(work.item.id, time, record);
  if (code != AERROR::SUCCESS || !Remote::Confirmed(record)) {
    const std::optional<bool> exists = Exists(work);
    if (exists && !*exists) return Vanished(work);
    return {.kind = Verdict::kFailed, .error = "its time was not set: " + Meaning(code)};
  }
  std::lock_guard lock(state.mutex);
  std::optional<Item> item = state.items.Find(work.item.ino);
  std::optional<JournalRow> row = state.journal.Find(work.item.ino);
  if (!item || !row || item->id != work.item.id) return {.kind = Verdict::kProgress};
  state.Change([&] {
    std::optional<ContentRow> bytes = state.contents.Find(item->content);
    // The bytes are the same, their version has a new name.
    if (bytes && !bytes->dirty && bytes->time == item->remoteTime && bytes->size == record.size) {
      bytes->time = record.time3;
      state.contents.Update(*bytes);
    }
    if (row->hasBase && row->baseTime == item->remoteTime) row->baseTime = record.time3;
    item->remoteTime = record.time3;
    item->stamp = state.NextStamp();
    state.items.Update(*item);
    if (item->mtime == work.item.mtime) row->times = false;
    state.journal.Put(*row);
  });
  return {.kind = Verdict::kProgress};
}

Verdict Settler::Delete(const Work& work) {
  if (work.item.id.empty()) {
    if (work.row.attempted) return LookForLostCreate(work);
    Done(work);
    return {};
  }
  return work.item.IsFolder() ? DeleteFolder(work) : DeleteAtService(work);
}

/// A folder of the service goes with all that is in it, so it has to be empty first: what programs
/// took out of it must be out, and what others put into it must not be lost.
Verdict Settler::DeleteFolder(const Work& work) {
  int64_t begun = 0;
  {
    std::lock_guard lock(state.mutex);
    for (const Item& item : state.items.HeldIn(work.item.id))
      if (item.ino != work.item.ino && state.journal.Has(item.ino))
        return {.kind = Verdict::kBlocked, .on = item.ino};
    begun = state.Stamp();
  }
  std::vector<RemoteItem> listed;
  const AERROR code = remote.List(work.item.id, listed);
  if (code == AERROR::SUCCESS && !listed.empty()) return Restore(work, listed, begun);
  if (code == AERROR::SUCCESS) return DeleteAtService(work);
  const std::optional<bool> exists = Exists(work);
  if (exists && !*exists) {
    Done(work);
    return {};
  }
  return {.kind = Verdict::kFailed, .error = "its folder cannot be listed: " + Meaning(code)};
}

/// Somebody else has put something into a folder that was removed here.
Verdict Settler::Restore(const Work& work, const std::vector<RemoteItem>& listed, int64_t begun) {
  Notices notices;
  {
    std::lock_guard lock(state.mutex);
    std::optional<Item> item = state.items.Find(work.item.ino);
    if (!item) return {};
    state.Change([&] {
      item->deleted = false;
      item->name = state.FreeName(item->parent, *item);
      state.items.Update(*item);
      state.journal.Erase(item->ino);
      state.AddEvent("the folder \"" + item->name +
                     "\" is back: something was put into it elsewhere");
      notices = ListingMerge(state, store, settings, begun).Apply(item->ino, listed);
    });
    notices.push_back({Notice::kEntry, item->parent, item->name});
  }
  folders.Tell(notices);
  return {};
}

Verdict Settler::DeleteAtService(const Work& work) {
  const AERROR code = remote.Delete(RecordOf(work.item));
  if (code != AERROR::SUCCESS) {
    const std::optional<bool> exists = Exists(work);
    if (!exists || *exists)
      return {.kind = Verdict::kFailed, .error = "not deleted: " + Meaning(code)};
  }
  Done(work);
  return {};
}

void Settler::Done(const Work& work) {
  std::lock_guard lock(state.mutex);
  const std::optional<Item> item = state.items.Find(work.item.ino);
  state.Change([&] {
    if (!work.item.id.empty()) state.buried[work.item.id] = state.NextStamp();
    state.journal.Erase(work.item.ino);
    if (item) Forget(state, store, *item);
  });
}

}  // namespace host::mount
