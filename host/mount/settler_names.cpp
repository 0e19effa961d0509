#include <algorithm>
#include <sstream>

#include "host/core/failure.h"
#include "host/mount/forget.h"
#include "host/mount/listing_merge.h"
#include "host/mount/name_map.h"
#include "host/mount/settler.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

/// Folders above each other; what is known of them may be out of date and go round in circles.
constexpr int kDeepest = 200;

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

/// Whether a folder of the service has an item; nothing when that cannot be known now. A folder
/// that is gone has none.
std::optional<bool> Settler::IsListed(const std::string& folder, const std::string& id, int depth) {
  std::vector<RemoteItem> listed;
  if (remote.List(folder, listed) == AERROR::SUCCESS)
    return std::any_of(listed.begin(), listed.end(),
                       [&](const RemoteItem& item) { return item.id == id; });
  const std::optional<bool> stands = Stands(folder, depth);
  return stands && !*stands ? stands : std::nullopt;
}

/// Whether a folder can be reached from the drive's top: it, or one above it, may have been deleted
/// or put into the trash, where the service takes new items without a word. Nothing when that
/// cannot be known now. What is found to be gone is gone from the tables afterwards.
std::optional<bool> Settler::Stands(const std::string& id, int depth) {
  if (depth > kDeepest) return std::nullopt;
  std::string above;
  Inode aboveIno = 0;
  int64_t begun = 0;
  const int64_t asked = NowNanoseconds();
  {
    std::lock_guard lock(state.mutex);
    begun = state.Stamp();
    if (WasSeenStanding(id)) return true;
    const std::vector<Item> known = state.items.WithId(id);
    if (!known.empty()) above = known[0].remoteParent;
    if (!known.empty() && (above.empty() || known[0].parent == kRootInode)) return true;
    for (const Item& item : state.items.WithId(above)) aboveIno = item.ino;
  }
  RemoteItem record;
  if (above.empty()) {
    if (remote.Info(id, record) != AERROR::SUCCESS) return NothingWhileAway();
    if (record.parents.empty()) return true;  // the top of a drive
    above = record.parents[0];
  }
  std::optional<bool> stands = IsListed(above, id, depth + 1);
  if (stands && !*stands) {
    if (aboveIno != 0) folders.RefreshNow(aboveIno);
    // Moved meanwhile: by somebody, or by this host, which may still wait for the answer.
    if (remote.Info(id, record) != AERROR::SUCCESS) return NothingWhileAway();
    if (!record.parents.empty() && !HasParent(record, above)) {
      above = record.parents[0];
      stands = IsListed(above, id, depth + 1);
    }
  }
  if (stands && *stands) stands = Stands(above, depth + 1);
  std::lock_guard lock(state.mutex);
  if (stands && *stands && begun >= state.failedAt) state.standing[id] = asked;
  return stands;
}

/// State held.
bool Settler::WasSeenStanding(const std::string& id) {
  const auto at = state.standing.find(id);
  if (at == state.standing.end()) return false;
  const int64_t age = NowNanoseconds() - at->second;
  // The clock may have been set back.
  return age >= 0 && age < std::chrono::nanoseconds(settings.standingAge).count();
}

/// A no, when the service answers at all.
std::optional<bool> Settler::NothingWhileAway() {
  return folders.ServiceAnswers() ? std::optional(false) : std::nullopt;
}

/// Whether the service has the item: where it was last seen, or where an answer that was lost may
/// have put it. Nothing when that cannot be known now; only a certain no may lead to anything.
std::optional<bool> Settler::Exists(const Work& work) {
  for (const std::string& folder : {work.item.remoteParent, work.parent.id}) {
    if (folder.empty()) continue;
    const std::optional<bool> listed = IsListed(folder, work.item.id);
    if (!listed || *listed) return listed;
  }
  // Last: by now the service has answered, so no answer about the item means that there is none.
  RemoteItem record;
  return remote.Info(work.item.id, record) == AERROR::SUCCESS;
}

/// What is to be done instead of putting something into a folder that is not there.
std::optional<Verdict> Settler::RequireFolder(const std::string& id) {
  const std::optional<bool> stands = Stands(id);
  if (!stands) return Verdict{.kind = Verdict::kFailed, .error = "its folder cannot be found"};
  if (*stands) return std::nullopt;
  return Verdict{.kind = Verdict::kFailed, .error = "its folder is gone"};
}

Verdict Settler::Relocate(const Work& work) {
  const bool moves = work.parent.id != work.item.remoteParent;
  // A folder is moved before what goes into it, so that no two ever contain each other.
  if (moves && work.parentOwed) return {.kind = Verdict::kBlocked, .on = work.parent.ino};
  if (std::optional<Verdict> verdict = PrepareMove(work, moves)) return *verdict;
  const std::string name = NameToSend(work.item);
  RemoteItem record = RecordOf(work.item);
  const AERROR code = moves ? remote.Move(work.item.remoteParent, work.parent.id, record)
                            : remote.Rename(work.item.id, name, record);
  if (ConfirmPlace(work, name, work.parent.id)) return {.kind = Verdict::kProgress};
  if (code != AERROR::SUCCESS) {
    const std::optional<bool> exists = Exists(work);
    if (exists && !*exists) return Vanished(work);
  }
  return FollowMove(
      work, {.kind = Verdict::kFailed, .error = "not renamed or moved: " + Remote::Why(code)});
}

/// Notes where the item is to go: when the answer is lost and a program has moved it on, or back,
/// the service has another idea of its place and name than the tables.
std::optional<Verdict> Settler::PrepareMove(const Work& work, bool moves) {
  if (moves)
    if (std::optional<Verdict> verdict = RequireFolder(work.parent.id)) return verdict;
  {
    std::lock_guard lock(state.mutex);
    std::optional<JournalRow> row = state.journal.Find(work.item.ino);
    const std::optional<Item> item = state.items.Find(work.item.ino);
    if (!row || !item || item->id != work.item.id) return Verdict{.kind = Verdict::kProgress};
    row->movedTo = work.parent.id;
    state.journal.Put(*row);
  }
  if (!state.Sync()) return Verdict{.kind = Verdict::kFailed, .error = "the local disk refuses"};
  return std::nullopt;
}

Verdict Settler::LookForLostMove(const Work& work) {
  RemoteItem record;
  if (remote.Info(work.item.id, record) != AERROR::SUCCESS) {
    const std::optional<bool> exists = Exists(work);
    if (exists && !*exists) return Vanished(work);
    return {.kind = Verdict::kFailed, .error = "the service cannot be asked about it"};
  }
  const bool moved = HasParent(record, work.row.movedTo);
  std::lock_guard lock(state.mutex);
  std::optional<JournalRow> row = state.journal.Find(work.item.ino);
  std::optional<Item> item = state.items.Find(work.item.ino);
  if (!row || !item || item->id != work.item.id) return {.kind = Verdict::kProgress};
  state.Change([&] {
    row->movedTo.clear();
    state.journal.Put(*row);
    if (moved) item->remoteParent = work.row.movedTo;
    item->remoteName = record.name;
    item->stamp = state.NextStamp();
    state.items.Update(*item);
  });
  return {.kind = Verdict::kProgress};
}

/// The service has moved it to where this host asked for, though the answer was lost.
bool Settler::IsOwnMove(const Work& work, const RemoteItem& record) {
  std::lock_guard lock(state.mutex);
  const std::optional<JournalRow> row = state.journal.Find(work.item.ino);
  return row && !row->movedTo.empty() && HasParent(record, row->movedTo);
}

/// Somebody else may have moved it out of the folder that it was known in; `otherwise` if not.
Verdict Settler::FollowMove(const Work& work, Verdict otherwise) {
  RemoteItem record;
  if (remote.Info(work.item.id, record) != AERROR::SUCCESS || record.parents.empty() ||
      HasParent(record, work.item.remoteParent))
    return otherwise;
  if (IsOwnMove(work, record)) return {.kind = Verdict::kProgress};
  const std::optional<bool> stands = Stands(record.parents[0]);
  if (!stands) return otherwise;
  if (!*stands) return Vanished(work);
  folders.MakeKnown(record.parents[0]);
  Notices notices;
  {
    std::lock_guard lock(state.mutex);
    const std::optional<Item> item = state.items.Find(work.item.ino);
    if (item && item->id == work.item.id && item->remoteParent == work.item.remoteParent)
      state.Change([&] {
        notices = ListingMerge(state, store, settings, state.Stamp()).FollowMove(*item, record);
      });
  }
  folders.Tell(notices);
  return {.kind = Verdict::kProgress};
}

/// Reads the item back: what the service says about it counts, not the answer to the request.
bool Settler::ConfirmPlace(const Work& work, const std::string& name, const std::string& parentId) {
  RemoteItem record;
  if (remote.Info(work.item.id, record) != AERROR::SUCCESS) return false;
  const bool document = (record.attributes & kFsInlineContent) != 0;
  const bool named =
      document ? DocumentName(record.name) == Trimmed(name) : record.name == Trimmed(name);
  // A document's record does not tell its parents.
  const bool placed = document || HasParent(record, parentId);
  if (!named || !placed) return false;
  std::lock_guard lock(state.mutex);
  std::optional<Item> item = state.items.Find(work.item.ino);
  if (!item || item->id != work.item.id) return true;
  item->remoteName = Trimmed(work.item.driveName);
  item->remoteParent = parentId;
  // Moved elsewhere by somebody else meanwhile, it stands there too now, and is taken out again.
  for (const std::string& parent : record.parents)
    if (parent != parentId && parent != work.item.remoteParent &&
        work.item.remoteParent != parentId &&
        work.item.otherParents.find(parent) == std::string::npos)
      item->remoteParent = parent;
  if (!record.parents.empty()) item->otherParents = OtherParents(record, item->remoteParent);
  item->stamp = state.NextStamp();
  std::optional<JournalRow> row = state.journal.Find(work.item.ino);
  state.Change([&] {
    state.items.Update(*item);
    if (row) row->movedTo.clear();
    if (row) state.journal.Put(*row);
  });
  return true;
}

/// Deleted by somebody else while it was to be renamed here: there is nothing to rename.
Verdict Settler::Vanished(const Work& work) {
  folders.TakeAway(work.item);
  return {.kind = Verdict::kProgress};
}

/// Whether the service still has the version that is known here: setting its time would pass
/// somebody else's bytes off as it.
std::optional<Verdict> Settler::RequireVersion(const Work& work) {
  RemoteItem record;
  if (remote.Info(work.item.id, record) != AERROR::SUCCESS) {
    const std::optional<bool> exists = Exists(work);
    if (exists && !*exists) return Vanished(work);
    return Verdict{.kind = Verdict::kFailed, .error = "the service cannot be asked about it"};
  }
  const bool same = record.time3 == work.item.remoteTime && record.size == work.item.remoteSize;
  if (same || work.item.IsFolder() || work.item.IsMadeUp() || IsOwnTime(work, record))
    return std::nullopt;
  {
    std::lock_guard lock(state.mutex);
    if (std::optional<JournalRow> row = state.journal.Find(work.item.ino)) {
      row->times = false;
      state.journal.Put(*row);
    }
  }
  folders.ReportChange(work.item.remoteParent);
  return Verdict{.kind = Verdict::kProgress};
}

Verdict Settler::SetTimes(const Work& work, const Sending& sending) {
  if (!sending.confirmed)
    if (std::optional<Verdict> verdict = RequireVersion(work)) return *verdict;
  const std::string time = ToRfc3339(work.item.mtime);
  {
    std::lock_guard lock(state.mutex);
    std::optional<JournalRow> row = state.journal.Find(work.item.ino);
    const std::optional<Item> item = state.items.Find(work.item.ino);
    // A program may have renamed another file over it, which has its Drive id since.
    if (!row || !item || item->id != work.item.id) return {.kind = Verdict::kProgress};
    row->attemptTime = time;
    state.journal.Put(*row);
  }
  RemoteItem record;
  const AERROR code = remote.SetModified(work.item.id, time, record);
  if (code != AERROR::SUCCESS || !Remote::Confirmed(record)) {
    const std::optional<bool> exists = Exists(work);
    if (exists && !*exists) return Vanished(work);
    return {.kind = Verdict::kFailed, .error = "its time was not set: " + Remote::Why(code)};
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
  return work.item.IsFolder() ? DeleteFolder(work) : DeleteFile(work);
}

/// Only the version that was known here is deleted: what somebody else has written since is
/// nobody's to throw away.
Verdict Settler::DeleteFile(const Work& work) {
  if (work.row.attempted)
    if (std::optional<Verdict> wait = AwaitLostAnswer(work.row)) return *wait;
  RemoteItem record;
  if (remote.Info(work.item.id, record) != AERROR::SUCCESS) {
    const std::optional<bool> exists = Exists(work);
    if (!exists || *exists)
      return {.kind = Verdict::kFailed,
              .error = "not deleted: the service cannot be asked about it"};
    Done(work);
    return {};
  }
  const std::string& time = work.row.hasBase ? work.row.baseTime : work.item.remoteTime;
  const int64_t size = work.row.hasBase ? work.row.baseSize : work.item.remoteSize;
  const bool same = record.time3 == time && (work.item.IsMadeUp() || record.size == size);
  if (same || IsOwnTime(work, record)) return DeleteAtService(work, record);
  if (!work.row.attempted) return LeaveToOthers(work, "it was changed elsewhere");
  const std::optional<bool> ours = HoldsAttempt(work.row, record);
  if (!ours) return {.kind = Verdict::kFailed, .error = "the service's version cannot be read"};
  return *ours ? DeleteAtService(work, record) : LeaveToOthers(work, "it was changed elsewhere");
}

/// What was deleted here shows up again as what it is at the service.
Verdict Settler::LeaveToOthers(const Work& work, const std::string& why) {
  std::vector<Item> above;
  {
    std::lock_guard lock(state.mutex);
    std::optional<Item> item = state.items.Find(work.item.ino);
    if (!item || item->id != work.item.id) return {.kind = Verdict::kProgress};
    state.Change([&] {
      item->id.clear();
      state.items.Update(*item);
      state.journal.Erase(item->ino);
      Forget(state, store, *item);
      state.AddEvent("\"" + work.item.remoteName + "\" was not deleted at the service: " + why);
    });
    above = state.items.WithId(work.item.remoteParent);
  }
  for (const Item& folder : above)
    if (folder.IsFolder() && !folder.deleted && folder.listedAt != 0)
      folders.RefreshNow(folder.ino);
  return {};
}

/// A folder of the service goes with all that is in it, so it has to be empty first: what programs
/// took out of it must be out, and what others put into it must not be lost.
Verdict Settler::DeleteFolder(const Work& work) {
  {
    std::lock_guard lock(state.mutex);
    for (const Item& item : state.items.HeldIn(work.item.id))
      if (item.ino != work.item.ino && state.journal.Has(item.ino))
        return {.kind = Verdict::kBlocked, .on = item.ino};
    if (const Inode other = state.journal.PerhapsIn(work.item.id))
      return {.kind = Verdict::kBlocked, .on = other};
  }
  std::vector<RemoteItem> listed;
  const AERROR code = remote.List(work.item.id, listed);
  if (code == AERROR::SUCCESS && !listed.empty())
    return LeaveToOthers(work, "something was put into it elsewhere");
  if (code == AERROR::SUCCESS) return DeleteAtService(work, RecordOf(work.item));
  const std::optional<bool> exists = Exists(work);
  if (exists && !*exists) {
    Done(work);
    return {};
  }
  return {.kind = Verdict::kFailed, .error = "its folder cannot be listed: " + Remote::Why(code)};
}

/// `record`: what the service says of it. What stands in several folders is only taken out of the
/// one that it was deleted from here.
Verdict Settler::DeleteAtService(const Work& work, RemoteItem record) {
  if (record.parents.empty()) record = RecordOf(work.item);  // a document's does not tell them
  record.parent_id = work.item.remoteParent;
  if (!HasParent(record, record.parent_id))
    record.parent_id =
        HasParent(record, work.row.movedTo) ? work.row.movedTo : record.parents.front();
  const AERROR code = remote.Delete(record);
  if (code != AERROR::SUCCESS) {
    const std::optional<bool> exists = Exists(work);
    if (!exists || *exists)
      return {.kind = Verdict::kFailed, .error = "not deleted: " + Remote::Why(code)};
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
