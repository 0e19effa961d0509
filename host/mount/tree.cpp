#include "host/mount/tree.h"

#include <cerrno>

#include "host/mount/forget.h"
#include "host/mount/name_map.h"

namespace host::mount {

bool Tree::IsWritable(const Item& parent, const Settings& settings) {
  return !settings.readOnly && !parent.IsVirtualFolder();
}

int Tree::Get(Inode ino, Item& item) {
  std::lock_guard lock(state.mutex);
  std::optional<Item> found = state.items.Find(ino);
  // A deleted file is still what a program has open.
  if (!found || (found->deleted && state.opened.count(ino) == 0)) return ENOENT;
  item = std::move(*found);
  return 0;
}

int Tree::Lookup(Inode parent, const std::string& name, Item& item) {
  if (name.size() > kMaxNameBytes) return ENAMETOOLONG;
  const int error = folders.Ensure(parent);
  if (error != 0) return error;
  std::lock_guard lock(state.mutex);
  std::optional<Item> found = state.items.FindChild(parent, name);
  if (!found) return ENOENT;
  item = std::move(*found);
  return 0;
}

int Tree::List(Inode folder, std::vector<Item>& items) {
  const int error = folders.Ensure(folder, FolderCache::Use::kAllNames);
  if (error != 0) return error;
  std::lock_guard lock(state.mutex);
  items = state.items.Children(folder);
  return 0;
}

int Tree::CheckPlace(Inode parent, const std::string& name) {
  if (settings.readOnly) return EROFS;
  if (name.size() > kMaxNameBytes) return ENAMETOOLONG;
  if (!IsUtf8(name)) return EILSEQ;
  if (DriveName(name).empty()) return EINVAL;
  const int error = folders.Ensure(parent);
  if (error != 0) return error;
  std::lock_guard lock(state.mutex);
  const std::optional<Item> folder = state.items.Find(parent);
  if (!folder || folder->deleted) return ENOENT;
  return IsWritable(*folder, settings) ? 0 : EACCES;
}

int Tree::Make(Inode parent, const std::string& name, uint32_t attributes, Item& item) {
  if (const int error = CheckPlace(parent, name)) return error;
  std::lock_guard lock(state.mutex);
  if (state.items.FindChild(parent, name)) return EEXIST;
  item = Item{};
  item.parent = parent;
  item.name = name;
  item.driveName = DriveName(name);
  item.attributes = attributes;
  item.mtime = NowNanoseconds();
  if (item.IsFolder()) item.listedAt = NowSeconds();
  state.Change([&] {
    state.items.Insert(item);
    if (state.IsPinned(parent)) state.Pin(item.ino, true);
    JournalRow row{.ino = item.ino, .since = NowSeconds()};
    if (!item.IsFolder()) {
      ContentRow content{.ino = item.ino, .dirty = true};
      store.Create(content);
      item.content = content.content;
      state.items.Update(item);
      row.editing = true;
    }
    state.journal.Put(row);
    Touch(parent);
  });
  return 0;
}

int Tree::MakeFolder(Inode parent, const std::string& name, Item& item) {
  const int error = Make(parent, name, kFsFolder, item);
  if (error == 0) owed(item.ino);
  return error;
}

int Tree::MakeFile(Inode parent, const std::string& name, Item& item) {
  return Make(parent, name, kFsFile, item);
}

int Tree::RemoveFile(Inode parent, const std::string& name) { return Remove(parent, name, false); }

int Tree::RemoveFolder(Inode parent, const std::string& name) { return Remove(parent, name, true); }

int Tree::Remove(Inode parent, const std::string& name, bool folder) {
  if (const int error = CheckPlace(parent, name)) return error;
  Item item;
  if (const int error = Lookup(parent, name, item)) return error;
  if (item.IsFolder() != folder) return folder ? ENOTDIR : EISDIR;
  if (folder)
    if (const int error = folders.Ensure(item.ino)) return error;
  {
    std::lock_guard lock(state.mutex);
    const std::optional<Item> found = state.items.FindChild(parent, name);
    if (!found || found->ino != item.ino) return ENOENT;
    if (folder && state.items.CountChildren(item.ino) > 0) return ENOTEMPTY;
    state.Change([&] {
      MarkDeleted(*found, 0);
      Touch(parent);
    });
  }
  owed(item.ino);
  return 0;
}

void Tree::MarkDeleted(Item item, Inode after) {
  JournalRow row = state.RowFor(item);
  item.deleted = true;
  state.items.Update(item);
  if (item.id.empty() && !row.attempted) {
    // The service never heard of it.
    state.journal.Erase(item.ino);
    if (row.content != item.content) store.Remove(row.content);
    return Forget(state, store, item);
  }
  row.after = after;
  row.tries = 0;
  state.journal.Put(row);
}

void Tree::Touch(Inode folder) {
  std::optional<Item> item = state.items.Find(folder);
  if (!item) return;
  item->mtime = NowNanoseconds();
  state.items.Update(*item);
}

int Tree::SetTime(Inode ino, int64_t nanoseconds) {
  if (settings.readOnly) return EROFS;
  {
    std::lock_guard lock(state.mutex);
    std::optional<Item> item = state.items.Find(ino);
    if (!item) return ENOENT;
    if (item->IsVirtualFolder()) return EACCES;
    item->mtime = nanoseconds;
    state.Change([&] {
      state.items.Update(*item);
      if (item->deleted) return;
      JournalRow row = state.RowFor(*item);
      row.times = true;
      state.journal.Put(row);
    });
  }
  owed(ino);
  return 0;
}

}  // namespace host::mount
