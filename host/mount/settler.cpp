#include "host/mount/settler.h"

#include "host/mount/name_map.h"

namespace host::mount {

std::string NameToSend(const Item& item) {
  return item.IsMadeUp() && !item.IsFolder() ? DocumentName(item.driveName) : item.driveName;
}

std::optional<Verdict> Settler::Read(Inode ino, Work& work) {
  std::lock_guard lock(state.mutex);
  const std::optional<JournalRow> row = state.journal.Find(ino);
  if (!row) return Verdict{};
  const std::optional<Item> item = state.items.Find(ino);
  if (!item) {
    state.journal.Erase(ino);
    return Verdict{};
  }
  // What a lost answer may have made is looked for first: the other one may wait for that.
  const bool unknown = row->attempted && item->id.empty();
  if (!unknown && row->after != 0 && state.journal.Has(row->after))
    return Verdict{.kind = Verdict::kBlocked, .on = row->after};
  work.item = *item;
  work.row = *row;
  const std::optional<Item> parent = state.items.Find(item->parent);
  if (parent) work.parent = *parent;
  if (item->deleted) return std::nullopt;
  if (row->editing) return Verdict{.kind = Verdict::kWaiting};
  if (!parent) return Verdict{.kind = Verdict::kFailed, .error = "its folder is gone"};
  work.parentOwed = parent->driveName != parent->remoteName && state.journal.Has(parent->ino);
  if (parent->id.empty()) return Verdict{.kind = Verdict::kBlocked, .on = parent->ino};
  if (const std::optional<Item> above = state.items.Find(parent->parent))
    work.parentOwed =
        work.parentOwed || (!parent->remoteParent.empty() && above->id != parent->remoteParent &&
                            state.journal.Has(parent->ino));
  return std::nullopt;
}

Verdict Settler::Step(Inode ino, Sending& sending) {
  Work work;
  if (std::optional<Verdict> verdict = Read(ino, work)) return *verdict;
  if (work.item.deleted) return Delete(work);
  if (work.item.id.empty()) return Create(work, sending);
  if (!work.row.movedTo.empty()) return LookForLostMove(work);
  if (work.row.content != 0) return Send(work, sending);
  if (Trimmed(work.item.driveName) != work.item.remoteName ||
      work.parent.id != work.item.remoteParent)
    return Relocate(work);
  if (work.row.times) return SetTimes(work, sending);
  return Finish(work);
}

Verdict Settler::Finish(const Work& work) {
  std::lock_guard lock(state.mutex);
  const std::optional<JournalRow> row = state.journal.Find(work.item.ino);
  const std::optional<Item> item = state.items.Find(work.item.ino);
  // Only what was looked at may be struck out.
  const bool same = row && item && !row->editing && row->content == 0 && !row->times &&
                    row->movedTo.empty() && item->deleted == work.item.deleted &&
                    item->id == work.item.id && item->driveName == work.item.driveName &&
                    item->parent == work.item.parent;
  if (!same) return {.kind = Verdict::kProgress};
  state.journal.Erase(work.item.ino);
  return {};
}

void Settler::NoteFailure(Inode ino, const std::string& error) {
  std::lock_guard lock(state.mutex);
  state.standing.clear();
  state.failedAt = state.NextStamp();
  std::optional<JournalRow> row = state.journal.Find(ino);
  if (!row) return;
  if (row->error != error) {
    const std::optional<Item> item = state.items.Find(ino);
    state.AddEvent("\"" + (item ? item->name : std::to_string(ino)) + "\": " + error);
  }
  ++row->tries;
  row->error = error;
  state.journal.Put(*row);
}

}  // namespace host::mount
