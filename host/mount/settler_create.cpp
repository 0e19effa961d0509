#include <algorithm>

#include "host/core/failure.h"
#include "host/mount/forget.h"
#include "host/mount/name_map.h"
#include "host/mount/settler.h"

namespace host::mount {

Verdict Settler::Create(const Work& work, Sending& sending) {
  if (work.row.attempted) return LookForLostCreate(work);
  {
    // What an earlier attempt of that name may have made must not be taken for this one's.
    std::lock_guard lock(state.mutex);
    const Inode other =
        state.journal.OtherAttempt(work.item.ino, work.parent.id, Trimmed(NameToSend(work.item)));
    if (other != 0) return {.kind = Verdict::kBlocked, .on = other};
  }
  if (!work.item.IsFolder() && work.row.content == 0) return {.kind = Verdict::kWaiting};
  if (std::optional<Verdict> verdict = RequireFolder(work.parent.id)) return *verdict;
  if (work.item.IsFolder()) return CreateFolder(work);
  return CreateFile(work, sending);
}

/// False when a program has made the item another one since the step began.
bool Settler::MarkAttempt(const Work& work, const std::string& parentId, const std::string& hash,
                          int64_t size) {
  {
    std::lock_guard lock(state.mutex);
    std::optional<JournalRow> row = state.journal.Find(work.item.ino);
    const std::optional<Item> item = state.items.Find(work.item.ino);
    if (!row || !item || item->deleted || item->id != work.item.id) return false;
    row->attempted = true;
    row->attemptParent = parentId;
    row->attemptName = parentId.empty() ? "" : Trimmed(NameToSend(work.item));
    row->attemptHash = hash;
    row->attemptSize = size;
    row->attemptGeneration = work.row.generation;
    state.journal.Put(*row);
  }
  return state.Sync();
}

Verdict Settler::CreateFolder(const Work& work) {
  if (!MarkAttempt(work, work.parent.id, "", -1)) return {.kind = Verdict::kProgress};
  RemoteItem record;
  record.name = NameToSend(work.item);
  const AERROR code = remote.MakeFolder(work.parent.id, record);
  if (code != AERROR::SUCCESS || record.id.empty())
    return Lost(work, "the folder was not made: " + Remote::Why(code));
  Adopt(work, record, work.parent.id, work.row.generation);
  return {.kind = Verdict::kProgress};
}

Verdict Settler::CreateFile(const Work& work, Sending& sending) {
  ContentPtr content;
  uint64_t writes = 0;
  if (std::optional<Verdict> verdict = Prepare(work, work.parent.id, content, writes))
    return *verdict;
  RemoteItem record;
  record.name = NameToSend(work.item);
  const int64_t size = record.size = content->Size();
  const AERROR code = Upload(work, content, writes, work.parent.id, sending, record);
  if (code != AERROR::SUCCESS || !Remote::Confirmed(record))
    return Lost(work, "not uploaded: " + Remote::Why(code));
  Adopt(work, record, work.parent.id, record.size == size ? work.row.generation : -1);
  sending.confirmed = true;
  return {.kind = Verdict::kProgress};
}

Verdict Settler::Lost(const Work& work, const std::string& error) {
  {
    std::lock_guard lock(state.mutex);
    std::optional<JournalRow> row = state.journal.Find(work.item.ino);
    // From now on, not from the beginning of a long upload, the service may still be busy with it.
    if (row) row->since = NowSeconds();
    if (row) state.journal.Put(*row);
  }
  return {.kind = Verdict::kFailed, .error = error};
}

/// The service may still be applying what it was sent last.
std::optional<Verdict> Settler::AwaitLostAnswer(const JournalRow& row) {
  const int64_t since = std::max(row.since * 1'000'000'000, started);
  const int64_t left = since / 1'000'000 + settings.settle.count() - NowNanoseconds() / 1'000'000;
  if (left <= 0) return std::nullopt;
  return Verdict{.kind = Verdict::kPause, .pause = Milliseconds(left + 1)};
}

/// Looks for what an attempt without an answer may have made: an item of that name, and of those
/// bytes, that nobody here knows.
Verdict Settler::LookForLostCreate(const Work& work) {
  if (std::optional<Verdict> wait = AwaitLostAnswer(work.row)) return *wait;
  std::vector<RemoteItem> listed;
  const AERROR code = remote.List(work.row.attemptParent, listed);
  if (code != AERROR::SUCCESS) {
    // What was made in a folder that is gone is gone with it.
    const std::optional<bool> stands = Stands(work.row.attemptParent);
    if (!stands || *stands)
      return {.kind = Verdict::kFailed,
              .error = "its folder cannot be listed: " + Remote::Why(code)};
  }
  for (const RemoteItem& record : listed) {
    if (record.name != work.row.attemptName ||
        ((record.attributes & kFsFolder) != 0) != work.item.IsFolder())
      continue;
    {
      std::lock_guard lock(state.mutex);
      if (!state.items.WithId(record.id).empty()) continue;
    }
    const std::optional<bool> ours = work.item.IsFolder() ? true : HoldsAttempt(work.row, record);
    if (!ours) return {.kind = Verdict::kFailed, .error = "the service's copy cannot be read"};
    if (!*ours) continue;
    Adopt(work, record, work.row.attemptParent, work.row.attemptGeneration);
    return {.kind = Verdict::kProgress};
  }
  std::lock_guard lock(state.mutex);
  std::optional<JournalRow> row = state.journal.Find(work.item.ino);
  if (row) row->attempted = false;
  if (row) state.journal.Put(*row);
  return {.kind = Verdict::kProgress};
}

/// The item exists at the service now. `generationSent` is the commit whose bytes it has, -1 when
/// it has others.
void Settler::Adopt(const Work& work, const RemoteItem& record, const std::string& parentId,
                    int64_t generationSent) {
  std::lock_guard lock(state.mutex);
  state.Change([&] {
    std::optional<Item> item = state.items.Find(work.item.ino);
    if (!item) return;
    // A listing that took it for somebody else's must give way.
    for (const Item& twin : state.items.WithId(record.id))
      if (twin.ino != item->ino && twin.parent == item->parent) Forget(state, store, twin);
    item->id = record.id;
    item->remoteParent = parentId;
    state.items.Update(*item);
    if (item->IsFolder()) state.standing[item->id] = NowNanoseconds();
    NoteSentLocked(item->ino, item->id, record, generationSent);
  });
}

}  // namespace host::mount
