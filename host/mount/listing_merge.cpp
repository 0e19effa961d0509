#include "host/mount/listing_merge.h"

#include <algorithm>

#include "host/mount/name_map.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

/// The address in a web-location file.
std::string AddressIn(const std::string& content) {
  const size_t from = content.find("<string>");
  const size_t to = content.find("</string>");
  if (from == std::string::npos || to == std::string::npos || to < from + 8) return "";
  return content.substr(from + 8, to - from - 8);
}

std::string DesktopLink(const std::string& name, const std::string& address) {
  return "[Desktop Entry]\nType=Link\nName=" + name + "\nURL=" + address + "\nIcon=text-html\n";
}

/// The record as this mount shows it.
RemoteItem Shown(RemoteItem record, const Settings& settings) {
  constexpr std::string_view kSuffix = ".webloc";
  const bool document = (record.attributes & kFsInlineContent) != 0;
  if (document && settings.desktopLinks && record.name.ends_with(kSuffix)) {
    record.name.resize(record.name.size() - kSuffix.size());
    record.content = DesktopLink(record.name, AddressIn(record.content));
    record.name += ".desktop";
    record.size = static_cast<int64_t>(record.content.size());
  }
  return record;
}

}  // namespace

bool HasParent(const RemoteItem& record, const std::string& id) {
  return std::find(record.parents.begin(), record.parents.end(), id) != record.parents.end();
}

std::string OtherParents(const RemoteItem& record, const std::string& parentId) {
  std::string others;
  for (const std::string& parent : record.parents)
    if (parent != parentId) others += (others.empty() ? "" : " ") + parent;
  return others;
}

void FillRemote(Item& item, const RemoteItem& record, const std::string& parentId) {
  item.id = record.id;
  item.remoteName = record.name;
  item.remoteParent = parentId;
  item.remoteTime = record.time3;
  item.remoteSize = record.size;
  item.otherParents = OtherParents(record, parentId);
}

std::set<Inode> ListingMerge::Missing(Inode folder, const std::vector<RemoteItem>& listed) {
  std::set<std::string> there;
  for (const RemoteItem& record : listed) there.insert(record.id);
  const std::optional<Item> above = state.items.Find(folder);
  std::set<Inode> missing;
  for (const Item& item : state.items.Children(folder))
    if (above && item.remoteParent == above->id && there.count(item.id) == 0 && !item.id.empty())
      missing.insert(item.ino);
  return missing;
}

std::vector<Suspect> ListingMerge::WithWork(const std::set<Inode>& tops) {
  std::vector<Suspect> suspects;
  if (tops.empty()) return suspects;
  for (const JournalRow& row : state.journal.All()) AddWay(row.ino, tops, suspects);
  return suspects;
}

std::vector<Suspect> ListingMerge::Above(const std::string& folderId, const std::set<Inode>& tops) {
  std::vector<Suspect> suspects;
  for (const Item& item : state.items.WithId(folderId)) AddWay(item.ino, tops, suspects);
  return suspects;
}

/// From the top down.
void ListingMerge::AddWay(Inode from, const std::set<Inode>& tops, std::vector<Suspect>& suspects) {
  std::vector<Item> way;
  std::optional<Item> item = state.items.Find(from);
  while (item && item->ino != kRootInode) {
    way.push_back(*item);
    if (tops.count(item->ino) != 0) break;
    item = state.items.Find(item->parent);
  }
  if (!item || tops.count(item->ino) == 0) return;
  std::string knownIn = item->remoteParent;
  for (auto at = way.rbegin(); at != way.rend(); ++at) {
    // What a program has made here, or moved here, stands elsewhere at the service or nowhere.
    if (at->id.empty() || at->deleted || at->remoteParent != knownIn) return;
    suspects.push_back({at->id, knownIn});
    knownIn = at->id;
  }
}

Notices ListingMerge::Apply(Inode ino, const std::vector<RemoteItem>& listed,
                            const Records& elsewhere) {
  state.Change([&] {
    std::optional<Item> folder = state.items.Find(ino);
    if (!folder || folder->deleted) return;
    const std::vector<std::string> names = state.journal.AttemptedIn(folder->id);
    attempted.insert(names.begin(), names.end());
    for (const RemoteItem& record : listed)
      if (!record.id.empty()) Take(*folder, Shown(record, settings));
    RemoveMissing(*folder, elsewhere);
    folder = state.items.Find(ino);
    if (!folder) return;
    folder->listedAt = NowSeconds();
    folder->stale = uncertain;
    state.items.Update(*folder);
  });
  return std::move(notices);
}

Notices ListingMerge::ApplyOne(const std::string& folderId, const RemoteItem& record) {
  state.Change([&] {
    for (Item folder : state.items.WithId(folderId)) {
      if (folder.deleted) continue;
      Take(folder, Shown(record, settings));
      folder.stale = true;  // there may be more
      state.items.Update(folder);
      return;
    }
  });
  return std::move(notices);
}

void ListingMerge::Take(const Item& folder, const RemoteItem& record) {
  if (!seen.insert(record.id).second) return;
  if ((record.attributes & kFsFolder) != 0 && begun >= state.failedAt)
    state.standing[record.id] = NowNanoseconds();
  const auto buried = state.buried.find(record.id);
  if (buried != state.buried.end() && buried->second > begun) return;
  const std::vector<Item> holders = state.items.WithId(record.id);
  for (const Item& item : holders) {
    if (item.deleted && state.journal.Has(item.ino)) return;
    // Known here, or known here by the service and already elsewhere on the mount.
    if (item.remoteParent == folder.id || item.parent == folder.ino) {
      if (item.deleted) return;
      if (item.stamp <= begun) return Refresh(item, record);
      // Outdated or newer than what this host did since: a later listing tells.
      uncertain = uncertain || record.time3 != item.remoteTime || record.name != item.remoteName;
      return;
    }
  }
  if (attempted.count(record.name) != 0) {
    uncertain = true;
    return;
  }
  if (!AdoptMoved(folder, record, holders)) Add(folder, record);
}

/// Or renamed, by this host, and it is not known yet whether the service has done it: not somebody
/// else's doing.
bool ListingMerge::IsBeingMoved(const Item& item) {
  const std::optional<JournalRow> row = state.journal.Find(item.ino);
  if (!row || row->movedTo.empty()) return false;
  uncertain = true;
  return true;
}

bool ListingMerge::AdoptMoved(const Item& folder, const RemoteItem& record,
                              const std::vector<Item>& holders) {
  if (folder.IsVirtualFolder()) return false;
  for (Item item : holders) {
    const std::optional<Item> old = state.items.Find(item.parent);
    if (item.stamp > begun) return true;  // this host has moved it since
    if (IsBeingMoved(item)) return true;
    if (item.deleted || item.remoteParent.empty() || HasParent(record, item.remoteParent) ||
        (old && old->IsVirtualFolder()))
      continue;
    const bool movedHereToo = old && old->id != item.remoteParent;
    item.remoteParent = folder.id;
    if (!movedHereToo) {
      notices.push_back({Notice::kEntry, item.parent, item.name});
      item.parent = folder.ino;
      item.name = state.FreeName(folder.ino, item);
      notices.push_back({Notice::kEntry, item.parent, item.name});
    }
    state.items.Update(item);
    Refresh(item, record);
    return true;
  }
  return false;
}

void ListingMerge::Add(const Item& folder, const RemoteItem& record) {
  Item item;
  item.parent = folder.ino;
  item.driveName = record.name;
  item.attributes = record.attributes;
  item.size = record.size;
  item.mtime = FromRfc3339(record.time3);
  item.inlineContent = record.content;
  FillRemote(item, record, folder.id);
  item.name = state.FreeName(folder.ino, item);
  state.items.Insert(item);
  if (state.IsPinned(folder.ino)) state.Pin(item.ino, true);
  notices.push_back({Notice::kEntry, folder.ino, item.name});
}

void ListingMerge::Refresh(Item item, const RemoteItem& record) {
  const Item before = item;
  TakeName(item, record);
  TakeVersion(item, record);
  // Without that parent it is where this host has just moved it to, and not in two folders.
  if (HasParent(record, item.remoteParent))
    item.otherParents = OtherParents(record, item.remoteParent);
  state.items.Update(item);
  if (before.name != item.name) {
    notices.push_back({Notice::kEntry, item.parent, before.name});
    notices.push_back({Notice::kEntry, item.parent, item.name});
  }
}

void ListingMerge::TakeName(Item& item, const RemoteItem& record) {
  if (record.name == item.remoteName || IsBeingMoved(item)) return;
  const bool renamedHere = Trimmed(item.driveName) != item.remoteName;
  item.remoteName = record.name;
  if (renamedHere) return;
  item.driveName = record.name;
  item.name = state.FreeName(item.parent, item);
}

void ListingMerge::TakeVersion(Item& item, const RemoteItem& record) {
  if (record.time3 == item.remoteTime && record.size == item.remoteSize &&
      record.content == item.inlineContent)
    return;
  const std::optional<JournalRow> row = state.journal.Find(item.ino);
  // Local bytes on their way: the upload finds the difference and keeps both.
  if (row && (row->content != 0 || row->editing)) return;
  item.remoteTime = record.time3;
  item.remoteSize = record.size;
  item.size = record.size;
  item.inlineContent = record.content;
  if (!row || !row->times) item.mtime = FromRfc3339(record.time3);
  notices.push_back({Notice::kVersion, item.ino, ""});
}

void ListingMerge::RemoveMissing(const Item& folder, const Records& elsewhere) {
  for (const Item& item : state.items.Children(folder.ino)) {
    if (item.id.empty() || seen.count(item.id) != 0 || item.stamp > begun) continue;
    // Moved here by a program; the service has yet to follow.
    if (item.remoteParent != folder.id || IsBeingMoved(item)) continue;
    Remove(item, elsewhere);
  }
}

/// What others took out of it before it went is out of it here too.
void ListingMerge::Remove(const Item& item, const Records& elsewhere) {
  for (const auto& [id, record] : elsewhere)
    for (const Item& moved : state.items.WithId(id))
      if (!moved.deleted && IsBelow(moved, item.ino)) Follow(moved, record);
  if (elsewhere.count(item.id) == 0) GoneAtService(state, store, item, notices);
}

/// Or the item itself.
bool ListingMerge::IsBelow(Item item, Inode above) {
  while (item.ino != above && item.ino != kRootInode) {
    const std::optional<Item> parent = state.items.Find(item.parent);
    if (!parent) return false;
    item = *parent;
  }
  return item.ino == above;
}

Notices ListingMerge::Gone(const Item& item, const Records& elsewhere) {
  Remove(item, elsewhere);
  return std::move(notices);
}

Notices ListingMerge::FollowMove(const Item& item, const RemoteItem& record) {
  Follow(item, record);
  return std::move(notices);
}

void ListingMerge::Follow(Item item, const RemoteItem& record) {
  const std::optional<Item> old = state.items.Find(item.parent);
  const bool movedHereToo = old && old->id != item.remoteParent;
  item.remoteParent = record.parents[0];
  Inode target = 0;
  for (const Item& folder : state.items.WithId(item.remoteParent))
    if (!folder.deleted && folder.IsFolder()) target = folder.ino;
  if (target != 0 && !movedHereToo) {
    notices.push_back({Notice::kEntry, item.parent, item.name});
    item.parent = target;
    item.name = state.FreeName(target, item);
    notices.push_back({Notice::kEntry, item.parent, item.name});
  }
  state.items.Update(item);
  Refresh(item, record);
  if (target == 0 || movedHereToo) {
    state.journal.Put(state.RowFor(item));
    state.newlyOwed.push_back(item.ino);
  }
}

}  // namespace host::mount
