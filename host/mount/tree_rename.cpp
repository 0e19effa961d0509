#include <sys/stat.h>

#include <cerrno>

#include "host/mount/name_map.h"
#include "host/mount/tree.h"

#ifndef RENAME_NOREPLACE
#define RENAME_NOREPLACE 1u
#endif

namespace host::mount {
namespace {

/// A clean file larger than this is rather renamed at the service than sent again.
constexpr int64_t kWorthSending = int64_t{64} << 20;

}  // namespace

int Tree::Rename(Inode from, const std::string& name, Inode to, const std::string& newName,
                 unsigned flags) {
  if ((flags & ~RENAME_NOREPLACE) != 0) return EINVAL;
  if (const int error = CheckPlace(from, name)) return error;
  if (const int error = CheckPlace(to, newName)) return error;
  Item target;
  if (Lookup(to, newName, target) == 0 && target.IsFolder())
    if (const int error = folders.Ensure(target.ino)) return error;
  std::vector<Inode> changed;
  {
    std::lock_guard lock(state.mutex);
    const std::optional<Item> source = state.items.FindChild(from, name);
    if (!source) return ENOENT;
    const std::optional<Item> replaced = state.items.FindChild(to, newName);
    if (replaced && (flags & RENAME_NOREPLACE) != 0) return EEXIST;
    if (replaced && replaced->ino == source->ino) return 0;
    if (source->IsFolder() && IsBelow(to, source->ino)) return EINVAL;
    if (const int error = CheckTarget(*source, replaced)) return error;
    int error = 0;
    state.Change([&] { error = RenameLocked(*source, replaced, to, newName, changed); });
    if (error != 0) return error;
  }
  for (const Inode ino : changed) owed(ino);
  return 0;
}

int Tree::CheckTarget(const Item& source, const std::optional<Item>& target) {
  if (source.IsVirtualFolder()) return EACCES;
  if (!target) return 0;
  if (target->IsVirtualFolder()) return EACCES;
  if (target->IsFolder() && !source.IsFolder()) return EISDIR;
  if (!target->IsFolder() && source.IsFolder()) return ENOTDIR;
  return target->IsFolder() && state.items.CountChildren(target->ino) > 0 ? ENOTEMPTY : 0;
}

bool Tree::IsBelow(Inode ino, Inode ancestor) {
  while (ino != ancestor) {
    const std::optional<Item> item = state.items.Find(ino);
    if (!item || item->ino == kRootInode || item->parent == ino) return false;
    ino = item->parent;
  }
  return true;
}

int Tree::RenameLocked(Item source, std::optional<Item> target, Inode to,
                       const std::string& newName, std::vector<Inode>& changed) {
  // A document's kind is part of its shown name and of nothing at the service.
  const std::string kind = source.name.substr(
      std::min(LocalName(DocumentName(source.driveName)).size(), source.name.size()));
  if (source.IsMadeUp() && !newName.ends_with(kind)) return EPERM;
  if (target) {
    Inode after = source.ino;
    if (TakeIdentity(source, *target)) after = 0;
    MarkDeleted(*target, after);
    changed.push_back(target->ino);
  }
  Touch(source.parent);
  if (source.parent != to) Touch(to);
  if (source.name != newName) source.driveName = DriveName(newName);
  source.parent = to;
  source.name = newName;
  state.items.Update(source);
  state.journal.Put(state.RowFor(source));
  changed.push_back(source.ino);
  return 0;
}

/// Programs save by writing a new file and renaming it over the old one. The old one's Drive id,
/// with the links and shares that hang on it, goes over to the new bytes; the id that the new file
/// may already have is what the other row then deletes.
bool Tree::TakeIdentity(Item& source, Item& target) {
  if (source.IsFolder() || source.IsMadeUp() || target.IsMadeUp() || target.id.empty())
    return false;
  JournalRow row = state.RowFor(source);
  JournalRow old = state.RowFor(target);
  if (row.attempted || old.attempted) return false;
  // Should the edit never be closed, what the source was before is still to be had under its id.
  if (row.editing && !source.id.empty()) return false;
  if (row.content == 0 && !row.editing) {
    const ContentPtr content = source.size > kWorthSending ? nullptr : store.Current(source);
    if (!content || !content->IsComplete()) return false;
    std::optional<ContentRow> bytes = state.contents.Find(content->number);
    if (!bytes) return false;
    bytes->dirty = true;
    state.contents.Update(*bytes);
    row.content = content->number;
    ++row.generation;
  }
  std::swap(source.id, target.id);
  std::swap(source.remoteName, target.remoteName);
  std::swap(source.remoteParent, target.remoteParent);
  std::swap(source.remoteTime, target.remoteTime);
  std::swap(source.remoteSize, target.remoteSize);
  std::swap(source.otherParents, target.otherParents);
  source.stamp = target.stamp = state.NextStamp();
  std::swap(row.hasBase, old.hasBase);
  std::swap(row.baseTime, old.baseTime);
  std::swap(row.baseSize, old.baseSize);
  std::swap(row.attemptTime, old.attemptTime);
  std::swap(row.movedTo, old.movedTo);
  state.journal.Put(row);
  state.journal.Put(old);
  state.items.Update(source);
  state.items.Update(target);
  return true;
}

}  // namespace host::mount
