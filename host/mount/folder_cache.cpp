#include "host/mount/folder_cache.h"

#include <algorithm>
#include <cerrno>

#include "host/mount/errno_map.h"

namespace host::mount {
namespace {

constexpr int kDepthAhead = 2;
/// Folders above each other; others may move them in a circle while they are asked about.
constexpr int kDeepest = 200;
/// Nobody goes soon through all that lies below a folder with more folders than this.
constexpr size_t kWide = 16;
/// A report of changes follows what announces it within this.
constexpr std::chrono::seconds kExpectation{5};
/// A folder is in use for so long after its names were read, if it is one of the last few.
constexpr std::chrono::seconds kInUse{60};
constexpr size_t kFew = 2;
/// What is listed by one request, or few.
constexpr int64_t kSmallFolder = 1000;
/// More waiting listings than this, and no further ones are begun ahead.
constexpr size_t kLongestBacklog = 1000;

}  // namespace

int FolderCache::Ensure(Inode folder, Use use) {
  const Standing standing = Look(folder);
  if (standing.error != 0 || !standing.atService) return standing.error;
  if (!standing.listed) {
    const int depth = use == Use::kAllNames ? kDepthAhead : 0;
    const int error = Wait(Start(folder, Urgency::kInteractive, depth));
    NoteLook(folder, use);
    return error;
  }
  if (standing.outdated) Start(folder, Urgency::kBackground, 0);
  if (NoteLook(folder, use)) ListAhead(folder, kDepthAhead);
  return 0;
}

FolderCache::Standing FolderCache::Look(Inode folder) {
  std::lock_guard lock(state.mutex);
  const std::optional<Item> item = state.items.Find(folder);
  if (!item || item->deleted) return {.error = ENOENT};
  if (!item->IsFolder()) return {.error = ENOTDIR};
  const Milliseconds age{(NowSeconds() - item->listedAt) * 1000};
  return {.atService = !item->id.empty(),
          .listed = item->listedAt > 0,
          .outdated = item->stale || age > settings.folderAge};
}

/// True when its names are read for the first time.
bool FolderCache::NoteLook(Inode folder, Use use) {
  std::lock_guard lock(mutex);
  lookedAt.insert(folder);
  if (use == Use::kAllNames) {
    std::erase_if(latest, [&](const Visit& visit) { return visit.folder == folder; });
    latest.push_front({folder, Clock::now()});
    if (latest.size() > kFew) latest.pop_back();
  }
  return use == Use::kAllNames && read.insert(folder).second;
}

int FolderCache::RefreshNow(Inode folder) {
  ListingPtr earlier;
  {
    std::lock_guard lock(mutex);
    if (const auto at = running.find(folder); at != running.end() && at->second->claimed)
      earlier = at->second;
    // It may not show what happened before this call.
    if (earlier) earlier->again = true;
  }
  if (earlier)
    if (const int error = Wait(earlier); error == ETIMEDOUT) return error;
  return Wait(Start(folder, Urgency::kInteractive, 0));
}

void FolderCache::ReportChange(const std::string& folderId) {
  for (const Inode folder : Listed(folderId))
    if (!IsFresh(folder)) Renew(folder);
}

std::vector<Inode> FolderCache::Listed(const std::string& folderId) {
  std::vector<Inode> listed;
  std::lock_guard lock(state.mutex);
  for (const Item& item : state.items.WithId(folderId))
    if (item.IsFolder() && item.listedAt != 0 && !item.deleted) listed.push_back(item.ino);
  return listed;
}

void FolderCache::Renew(Inode folder) {
  {
    std::lock_guard lock(state.mutex);
    std::optional<Item> item = state.items.Find(folder);
    if (!item) return;
    item->stale = true;
    state.items.Update(*item);
  }
  {
    std::lock_guard lock(mutex);
    if (const auto at = running.find(folder); at != running.end()) {
      if (at->second->claimed && Foreseen(at->second->expectation)) return;
      at->second->again = true;
    }
    // What nobody has looked at is renewed when somebody does.
    if (lookedAt.count(folder) == 0) return;
  }
  Start(folder, Urgency::kInteractive, 0);
}

/// Whether what began after an expectation shows all that is reported now.
bool FolderCache::Foreseen(uint64_t expectation) const {
  return expectation != 0 && expectation == expectations &&
         Clock::now() - expectedAt < kExpectation;
}

bool FolderCache::IsFresh(Inode folder) {
  std::lock_guard lock(mutex);
  const auto at = freshFor.find(folder);
  return at != freshFor.end() && Foreseen(at->second);
}

std::vector<Inode> FolderCache::InUse() {
  std::lock_guard lock(mutex);
  ++expectations;
  expectedAt = Clock::now();
  freshFor.clear();
  std::vector<Inode> folders;
  for (const Visit& visit : latest) {
    if (expectedAt - visit.at > kInUse) break;
    folders.push_back(visit.folder);
    if (const auto at = running.find(visit.folder); at != running.end()) at->second->again = true;
  }
  return folders;
}

void FolderCache::ExpectChanges() {
  for (const Inode folder : InUse()) {
    {
      std::lock_guard lock(state.mutex);
      const std::optional<Item> item = state.items.Find(folder);
      const bool worthwhile = item && item->listedAt != 0 && !item->deleted && !item->id.empty() &&
                              state.items.CountChildren(folder) <= kSmallFolder;
      if (!worthwhile) continue;
    }
    Start(folder, Urgency::kInteractive, 0);
  }
}

void FolderCache::Tell(const Notices& notices) {
  if (Observer* who = observer) who->Changed(notices);
}

FolderCache::ListingPtr FolderCache::Start(Inode folder, Urgency urgency, int depth) {
  ListingPtr listing;
  {
    std::lock_guard lock(mutex);
    ListingPtr& slot = running[folder];
    const bool known = slot != nullptr;
    if (!known) slot = std::make_shared<Listing>();
    listing = slot;
    listing->depth = std::max(listing->depth, depth);
    if (known && (urgency == Urgency::kBackground || listing->claimed)) return listing;
  }
  // One that waits in the background is queued again in front; the first to run claims it.
  if (!pool.Submit(urgency, [this, folder, listing] { Run(folder, listing); }))
    Finish(folder, listing, EIO);
  return listing;
}

void FolderCache::Run(Inode folder, const ListingPtr& listing) {
  if (listing->claimed.exchange(true)) return;
  {
    std::lock_guard lock(mutex);
    listing->expectation = expectations;
  }
  int error = EIO;
  try {
    error = ListAndMerge(folder);
  } catch (const std::exception& failure) {
    error = ErrnoOf(failure);  // the folder stays as it was
  }
  const int depth = Finish(folder, listing, error);
  try {
    if (error == 0) ListAhead(folder, depth);
  } catch (const std::exception&) {
    // They are listed when somebody looks.
  }
}

int FolderCache::Finish(Inode folder, const ListingPtr& listing, int error) {
  bool again = false;
  int depth = 0;
  {
    std::lock_guard lock(mutex);
    listing->error = error;
    listing->done = true;
    again = listing->again;
    depth = listing->depth;
    if (error == 0 && listing->expectation != 0) freshFor[folder] = listing->expectation;
    running.erase(folder);
  }
  listing->ended.notify_all();
  if (again) Start(folder, Urgency::kInteractive, 0);
  return depth;
}

int FolderCache::ListAndMerge(Inode folder) {
  std::string id;
  int64_t begun = 0;
  {
    std::lock_guard lock(state.mutex);
    const std::optional<Item> item = state.items.Find(folder);
    if (!item || item->deleted) return ENOENT;
    id = item->id;
    begun = state.Stamp();
  }
  if (id.empty()) return 0;
  std::vector<RemoteItem> listed;
  if (const AERROR code = remote.List(id, listed); code != AERROR::SUCCESS) return ErrnoOf(code);
  // The drive's top may hold a root folder that could not be read at the connection: its record is
  // neither file nor folder then, and is asked for again.
  for (RemoteItem& item : listed) {
    if (!item.id.empty() && (item.attributes & (kFsFile | kFsFolder)) != 0) continue;
    if (item.id.empty() || remote.Info(item.id, item) != AERROR::SUCCESS) return EIO;
  }
  ListingMerge merge(state, store, settings, begun);
  std::set<Inode> missing;
  {
    std::lock_guard lock(state.mutex);
    missing = merge.Missing(folder, listed);
  }
  const std::optional<Records> elsewhere = WhereMoved(merge, missing);
  if (!elsewhere) return EIO;
  Notices notices;
  {
    std::lock_guard lock(state.mutex);
    notices = merge.Apply(folder, listed, *elsewhere);
  }
  Tell(notices);
  return 0;
}

/// What the service says of those in or below `tops` that are in another folder now: of those with
/// work of programs, and of the folders that these went to. What is below one of them is there
/// with it. Nothing when it cannot be asked now.
std::optional<Records> FolderCache::WhereMoved(ListingMerge& merge, const std::set<Inode>& tops) {
  std::vector<Suspect> suspects;
  {
    std::lock_guard lock(state.mutex);
    suspects = merge.WithWork(tops);
  }
  Records elsewhere;
  std::set<std::string> asked, away;
  for (size_t i = 0; i < suspects.size(); ++i) {
    const Suspect suspect = suspects[i];
    if (!asked.insert(suspect.id).second) continue;
    if (away.count(suspect.knownIn) != 0) {
      away.insert(suspect.id);
      continue;
    }
    RemoteItem record;
    if (remote.Info(suspect.id, record) != AERROR::SUCCESS) {
      if (!ServiceAnswers()) return std::nullopt;
      continue;
    }
    if (record.parents.empty() || HasParent(record, suspect.knownIn)) continue;
    MakeKnown(record.parents[0]);
    away.insert(suspect.id);
    elsewhere.emplace(suspect.id, record);
    std::lock_guard lock(state.mutex);
    const std::vector<Suspect> more = merge.Above(record.parents[0], tops);
    suspects.insert(suspects.end(), more.begin(), more.end());
  }
  return elsewhere;
}

bool FolderCache::MakeKnown(const std::string& folderId, int depth) {
  int64_t begun = 0;
  {
    std::lock_guard lock(state.mutex);
    for (const Item& item : state.items.WithId(folderId))
      if (!item.deleted && item.IsFolder()) return true;
    begun = state.Stamp();
  }
  RemoteItem record;
  if (depth > kDeepest || remote.Info(folderId, record) != AERROR::SUCCESS ||
      record.parents.empty() || !MakeKnown(record.parents[0], depth + 1))
    return false;
  // The record says nothing of the trash; the listing does.
  std::vector<RemoteItem> listed;
  if (remote.List(record.parents[0], listed) != AERROR::SUCCESS) return false;
  const auto at = std::find_if(listed.begin(), listed.end(),
                               [&](const RemoteItem& item) { return item.id == folderId; });
  if (at == listed.end()) return false;
  Notices notices;
  {
    std::lock_guard lock(state.mutex);
    notices = ListingMerge(state, store, settings, begun).ApplyOne(record.parents[0], *at);
  }
  Tell(notices);
  return true;
}

bool FolderCache::ServiceAnswers() {
  std::string top;
  {
    std::lock_guard lock(state.mutex);
    if (const std::optional<Item> root = state.items.Find(kRootInode); !root->IsMadeUp())
      top = root->id;
    for (const Item& item : state.items.Children(kRootInode))
      if (top.empty() && !item.IsMadeUp()) top = item.id;
  }
  RemoteItem record;
  return remote.Info(top, record) == AERROR::SUCCESS;
}

void FolderCache::TakeAway(const Item& item) {
  int64_t begun = 0;
  {
    std::lock_guard lock(state.mutex);
    begun = state.Stamp();
  }
  ListingMerge merge(state, store, settings, begun);
  std::optional<Records> elsewhere = WhereMoved(merge, {item.ino});
  if (!elsewhere) return;
  elsewhere->erase(item.id);
  Notices notices;
  {
    std::lock_guard lock(state.mutex);
    const std::optional<Item> now = state.items.Find(item.ino);
    if (now && now->id == item.id) state.Change([&] { notices = merge.Gone(*now, *elsewhere); });
  }
  Tell(notices);
}

void FolderCache::ListAhead(Inode folder, int depth) {
  if (depth <= 0 || pool.Backlog() > kLongestBacklog) return;
  std::vector<Item> below;
  {
    std::lock_guard lock(state.mutex);
    below = state.items.ChildFolders(folder);
  }
  if (depth < kDepthAhead && below.size() > kWide) return;
  for (const Item& item : below) {
    if (item.id.empty()) continue;
    if (item.listedAt == 0)
      Start(item.ino, Urgency::kBackground, depth - 1);
    else
      ListAhead(item.ino, depth - 1);
  }
}

int FolderCache::Wait(const ListingPtr& listing) {
  std::unique_lock lock(mutex);
  Patience::Wait wait(patience);
  const int error = wait.Until(
      lock, listing->ended, [&] { return listing->done; }, [] { return 0; });
  if (error != 0) return error;
  return listing->error == 0 ? 0 : wait.InVain(listing->error);
}

}  // namespace host::mount
