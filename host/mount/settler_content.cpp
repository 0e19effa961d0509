#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "host/core/failure.h"
#include "host/mount/listing_merge.h"
#include "host/mount/name_map.h"
#include "host/mount/settler.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

/// A folder of up to so many items is listed to learn about one of them: one request either way,
/// and a listing also tells whether it is in the trash.
constexpr int64_t kSmallFolder = 200;

struct DigestFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

class Digest {
 public:
  Digest() : context(EVP_MD_CTX_new()) { EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr); }
  void Add(std::span<const char> bytes) {
    EVP_DigestUpdate(context.get(), bytes.data(), bytes.size());
  }
  std::string Text() {
    std::string text(EVP_MAX_MD_SIZE, '\0');
    unsigned length = 0;
    EVP_DigestFinal_ex(context.get(), reinterpret_cast<unsigned char*>(text.data()), &length);
    text.resize(length);
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, DigestFree> context;
};

std::string HostName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "host";
}

}  // namespace

ContentPtr Settler::OpenContent(int64_t number) {
  std::lock_guard lock(state.mutex);
  std::optional<ContentRow> row = state.contents.Find(number);
  if (!row) return nullptr;
  row->dirty = true;  // what is owed is never begun anew, whatever its row says
  return store.Open(*row);
}

bool Settler::Hash(const ContentPtr& content, uint64_t writes, std::string& hash) {
  Digest digest;
  std::vector<char> buffer(static_cast<size_t>(kBlockBytes));
  for (int64_t at = 0; at < content->Size();) {
    const ssize_t count = content->ReadUnchanged(buffer, at, writes);
    if (count <= 0) return false;
    digest.Add({buffer.data(), static_cast<size_t>(count)});
    at += count;
  }
  hash = digest.Text();
  return content->Writes() == writes;
}

/// The digest of what the service has; nothing when it could not be read whole.
std::optional<std::string> Settler::RemoteHash(const std::string& id, int64_t size) {
  Digest digest;
  int64_t reached = 0;
  const auto receive = [&](int64_t at, std::span<const char> bytes) {
    if (at == 0) {
      digest = Digest();
      reached = 0;
    }
    reached += static_cast<int64_t>(bytes.size());
    digest.Add(bytes);
  };
  if (size > 0 &&
      remote.Fetch(id, 0, size, std::make_shared<_FS_HANDLE>(), receive) != AERROR::SUCCESS)
    return std::nullopt;
  if (reached != size) return std::nullopt;
  return digest.Text();
}

/// Whether the service has the bytes of the attempt without an answer; nothing when it cannot be
/// known now.
std::optional<bool> Settler::HoldsAttempt(const JournalRow& row, const RemoteItem& record) {
  if (record.size != row.attemptSize) return false;
  const std::optional<std::string> hash = RemoteHash(record.id, record.size);
  if (!hash) return std::nullopt;
  return *hash == row.attemptHash;
}

AERROR Settler::Upload(const Work& work, const ContentPtr& content, uint64_t writes,
                       const std::string& parentId, Sending& sending, RemoteItem& record) {
  const auto read = [&](int64_t at, std::span<char> buffer) -> int64_t {
    const ssize_t count = content->ReadUnchanged(buffer, at, writes);
    sending.sent = at + std::max<ssize_t>(count, 0);
    return count;
  };
  record.id = work.item.id;
  sending.size = content->Size();
  const AERROR code = remote.Upload(parentId, sending.transfer, read, record);
  sending.size = 0;
  return code;
}

Verdict Settler::Send(const Work& work, Sending& sending) {
  if (work.row.attempted)
    if (std::optional<Verdict> wait = AwaitLostAnswer(work.row)) return *wait;
  RemoteItem record;
  switch (Compare(work, record)) {
    case Seen::kUnknown:
      return {.kind = Verdict::kFailed, .error = "the service cannot be asked about it"};
    case Seen::kGone: {
      if (std::optional<Verdict> verdict = RequireFolder(work.parent.id)) return *verdict;
      std::lock_guard lock(state.mutex);
      std::optional<Item> item = state.items.Find(work.item.ino);
      if (item && item->id == work.item.id) state.Change([&] { Detach(state, *item); });
      return {.kind = Verdict::kProgress};
    }
    case Seen::kElsewhere:
      return FollowMove(
          work, {.kind = Verdict::kFailed, .error = "the service cannot be asked about it"});
    case Seen::kChanged:
      return Reconsider(work, record);
    case Seen::kSame:
      break;
  }
  return SendOver(work, sending);
}

/// The service has another version than the one the edit began from: somebody's, or the effect of
/// a request of ours whose answer was lost.
Verdict Settler::Reconsider(const Work& work, const RemoteItem& record) {
  if (IsOwnTime(work, record)) {
    NoteSent(work, record, -1);
    return {.kind = Verdict::kProgress};
  }
  if (!work.row.attempted) return KeepBoth(work, record);
  const std::optional<bool> ours = HoldsAttempt(work.row, record);
  if (!ours) return {.kind = Verdict::kFailed, .error = "the service's version cannot be read"};
  if (!*ours) return KeepBoth(work, record);
  NoteSent(work, record, work.row.attemptGeneration);
  return {.kind = Verdict::kProgress};
}

/// Only the time differs, and it is one that this host has sent.
bool Settler::IsOwnTime(const Work& work, const RemoteItem& record) {
  return !work.row.attemptTime.empty() && record.time3 == work.row.attemptTime &&
         record.size == (work.row.hasBase ? work.row.baseSize : work.item.remoteSize);
}

/// Opens the bytes that are owed and notes that they are about to be sent; what else is to be done
/// when they are not the ones of a commit.
std::optional<Verdict> Settler::Prepare(const Work& work, const std::string& parentId,
                                        ContentPtr& content, uint64_t& writes) {
  content = OpenContent(work.row.content);
  if (!content) return Verdict{.kind = Verdict::kFailed, .error = "its bytes are missing"};
  writes = content->Writes();
  // The service's copy would never be as long as what is owed.
  if (const int64_t size = content->Size(); size != work.item.size) {
    if (IsOutdated(work)) return Verdict{.kind = Verdict::kProgress};
    return Verdict{.kind = Verdict::kFailed,
                   .error = "of its " + std::to_string(work.item.size) +
                            " bytes the local disk has " + std::to_string(size)};
  }
  std::string hash;
  if (!Hash(content, writes, hash))
    return Verdict{.kind = Verdict::kPause, .pause = settings.heldOpenDelay};
  if (!MarkAttempt(work, parentId, hash, content->Size()))
    return Verdict{.kind = Verdict::kProgress};
  return std::nullopt;
}

/// A program has written, or committed, since the step began.
bool Settler::IsOutdated(const Work& work) {
  std::lock_guard lock(state.mutex);
  const std::optional<JournalRow> row = state.journal.Find(work.item.ino);
  return !row || row->editing || row->generation != work.row.generation;
}

Verdict Settler::SendOver(const Work& work, Sending& sending) {
  ContentPtr content;
  uint64_t writes = 0;
  if (std::optional<Verdict> verdict = Prepare(work, "", content, writes)) return *verdict;
  RemoteItem record;
  record.name = NameToSend(work.item);
  const int64_t size = record.size = content->Size();
  const AERROR code = Upload(work, content, writes, work.item.remoteParent, sending, record);
  if (code != AERROR::SUCCESS || !Remote::Confirmed(record))
    return Lost(work, "not uploaded: " + Remote::Why(code));
  NoteSent(work, record, record.size == size ? work.row.generation : -1);
  sending.confirmed = true;
  return {.kind = Verdict::kProgress};
}

Settler::Seen Settler::Compare(const Work& work, RemoteItem& record) {
  int64_t siblings = 0;
  {
    std::lock_guard lock(state.mutex);
    const std::optional<Item> item = state.items.Find(work.item.ino);
    // A program has replaced the item meanwhile.
    if (!item || item->id != work.item.id) return Seen::kUnknown;
    siblings = state.items.CountChildren(work.item.parent);
  }
  Seen seen = siblings > kSmallFolder ? Seen::kGone : CompareByListing(work, record);
  if (seen == Seen::kUnknown) return seen;
  if (seen == Seen::kGone) {
    // Not where it was, or too many to look through: moved, in the trash, or deleted.
    if (remote.Info(work.item.id, record) != AERROR::SUCCESS) {
      const std::optional<bool> exists = Exists(work);
      return exists && !*exists ? Seen::kGone : Seen::kUnknown;
    }
    if (!HasParent(record, work.item.remoteParent)) return Seen::kElsewhere;
    if (siblings <= kSmallFolder) return Seen::kGone;
  }
  const std::string& time = work.row.hasBase ? work.row.baseTime : work.item.remoteTime;
  const int64_t size = work.row.hasBase ? work.row.baseSize : work.item.remoteSize;
  return record.time3 == time && record.size == size ? Seen::kSame : Seen::kChanged;
}

Settler::Seen Settler::CompareByListing(const Work& work, RemoteItem& record) {
  std::vector<RemoteItem> listed;
  if (remote.List(work.item.remoteParent, listed) != AERROR::SUCCESS) {
    const std::optional<bool> stands = Stands(work.item.remoteParent);
    return stands && !*stands ? Seen::kGone : Seen::kUnknown;
  }
  const auto at = std::find_if(listed.begin(), listed.end(), [&](const RemoteItem& candidate) {
    return candidate.id == work.item.id;
  });
  if (at == listed.end()) return Seen::kGone;
  record = *at;
  return Seen::kSame;
}

/// Somebody else changed the file since the local edit began. Theirs keeps its place; the local
/// bytes become a new file beside it.
Verdict Settler::KeepBoth(const Work& work, const RemoteItem& record) {
  Notices notices;
  {
    std::lock_guard lock(state.mutex);
    state.Change([&] { notices = KeepBothLocked(work, record); });
  }
  folders.Tell(notices);
  return {.kind = Verdict::kProgress};
}

Notices Settler::KeepBothLocked(const Work& work, const RemoteItem& record) {
  std::optional<Item> mine = state.items.Find(work.item.ino);
  if (!mine || mine->id != work.item.id || mine->deleted) return {};
  Item theirs = *mine;
  const std::string mark = " (conflict " + HostName() + " " + LocalStamp(NowNanoseconds()) + ")";
  mine->driveName = WithMark(mine->driveName, mark);
  mine->name = state.FreeName(mine->parent, *mine);
  Detach(state, *mine);
  theirs.content = 0;
  FillRemote(theirs, record, work.item.remoteParent);
  theirs.size = record.size;
  theirs.mtime = FromRfc3339(record.time3);
  theirs.stamp = state.NextStamp();
  state.items.Insert(theirs);
  if (Trimmed(theirs.driveName) != theirs.remoteName || work.parent.id != theirs.remoteParent) {
    state.journal.Put({.ino = theirs.ino, .since = NowSeconds()});
    state.newlyOwed.push_back(theirs.ino);
  }
  state.AddEvent("\"" + theirs.name + "\" was changed elsewhere too: your version is kept as \"" +
                 mine->name + "\"");
  return {{Notice::kEntry, mine->parent, mine->name}, {Notice::kEntry, mine->parent, theirs.name}};
}

void Settler::NoteSent(const Work& work, const RemoteItem& record, int64_t generation) {
  std::lock_guard lock(state.mutex);
  state.Change([&] { NoteSentLocked(work.item.ino, work.item.id, record, generation); });
}

void Settler::NoteSentLocked(Inode ino, const std::string& id, const RemoteItem& record,
                             int64_t generation) {
  std::optional<Item> item = state.items.Find(ino);
  std::optional<JournalRow> row = state.journal.Find(ino);
  if (!item || !row || item->id != id) return;
  item->remoteName = record.name;
  item->remoteTime = record.time3;
  item->remoteSize = record.size;
  item->stamp = state.NextStamp();
  state.items.Update(*item);
  row->attempted = false;
  row->hasBase = true;
  row->baseTime = record.time3;
  row->baseSize = record.size;
  row->tries = 0;
  row->error.clear();
  // Struck out only when the service holds as many bytes as the last commit had.
  if (row->generation == generation && row->content != 0 && record.size == item->size) {
    KeepAsCache(*item, *row);
    row->content = 0;
  }
  state.journal.Put(*row);
}

/// The bytes that were sent are the service's version now and need not be fetched again.
void Settler::KeepAsCache(const Item& item, const JournalRow& row) {
  if (item.content != row.content) return store.Remove(row.content);
  std::optional<ContentRow> bytes = state.contents.Find(row.content);
  if (!bytes || row.editing) return;
  PageMap all(item.remoteSize);
  all.SetAll(Page::kPresent);
  store.Open(*bytes)->MarkComplete();
  bytes->dirty = false;
  bytes->id = item.id;
  bytes->time = item.remoteTime;
  bytes->size = bytes->bytes = item.remoteSize;
  bytes->present = all.ToBits();
  bytes->used = NowSeconds();
  state.contents.Update(*bytes);
}

}  // namespace host::mount
