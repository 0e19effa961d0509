#include "host/mount/files.h"

#include <fcntl.h>

#include <cerrno>

#include "host/mount/errno_map.h"
#include "host/mount/forget.h"

namespace host::mount {
namespace {

/// What is acquired before must be given back after: the disk's refusal becomes an error number.
template <typename Function>
int Tried(Function&& function) {
  try {
    return function();
  } catch (const std::exception& failure) {
    return ErrnoOf(failure);
  }
}

/// Files up to this size are made safe at their close by way of the database's log: one sync where
/// a file of its own takes three.
constexpr int64_t kSmall = 64 * 1024;

}  // namespace

Files::NodePtr Files::Acquire(Inode ino, bool writes) {
  NodePtr node;
  {
    // Both at once: whoever forgets deleted items asks `opened`.
    std::lock_guard held(state.mutex);
    std::lock_guard lock(mutex);
    NodePtr& slot = nodes[ino];
    if (!slot) slot = std::make_shared<Node>(ino);
    node = slot;
    ++state.opened[ino];
  }
  std::lock_guard lock(node->mutex);
  ++node->handles;
  node->writers += writes;
  return node;
}

void Files::Drop(const NodePtr& node, bool writes) {
  bool last = false;
  {
    std::lock_guard lock(node->mutex);
    node->writers -= writes;
    last = --node->handles == 0;
    if (last && node->content) node->content->AbandonFetches();
  }
  std::lock_guard held(state.mutex);
  {
    std::lock_guard lock(mutex);
    if (--state.opened[node->ino] > 0) return;
    state.opened.erase(node->ino);
    nodes.erase(node->ino);
  }
  const std::optional<Item> item = state.items.Find(node->ino);
  if (item && item->deleted && !state.journal.Has(node->ino))
    state.Change([&] { Forget(state, store, *item); });
}

Files::NodePtr Files::Find(Inode ino) {
  std::lock_guard lock(mutex);
  const auto at = nodes.find(ino);
  return at == nodes.end() ? nullptr : at->second;
}

int Files::Open(Inode ino, int flags, std::unique_ptr<OpenFile>& file) {
  Item item;
  if (const int error = tree.Get(ino, item)) return -error;
  if (item.IsFolder()) return -EISDIR;
  const bool writes = (flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC) != 0;
  if (writes && settings.readOnly) return -EROFS;
  if (writes && item.IsMadeUp()) return -EACCES;
  auto opened = std::make_unique<OpenFile>();
  opened->writes = writes;
  opened->made = item.IsMadeUp();
  opened->inlineContent = item.inlineContent;
  opened->node = Acquire(ino, writes);
  if ((flags & O_TRUNC) != 0) {
    std::unique_lock lock(opened->node->mutex);
    const int error = Tried([&] { return Resize(*opened->node, 0); });
    lock.unlock();
    if (error != 0) {
      Release(std::move(opened));
      return -error;
    }
  }
  file = std::move(opened);
  return 0;
}

int Files::Create(Inode parent, const std::string& name, int flags, Item& item,
                  std::unique_ptr<OpenFile>& file) {
  const int error = tree.MakeFile(parent, name, item);
  if (error == EEXIST && (flags & O_EXCL) == 0) {
    // Another host's file that was listed a moment ago.
    if (const int missing = tree.Lookup(parent, name, item)) return -missing;
    return Open(item.ino, flags, file);
  }
  if (error != 0) return -error;
  auto opened = std::make_unique<OpenFile>();
  opened->writes = true;
  opened->node = Acquire(item.ino, true);
  Node& node = *opened->node;
  std::unique_lock lock(node.mutex);
  const int failed = Tried([&] { return Load(node); });
  if (failed == 0) {
    node.editing = true;
    NoteWrite(node);
    file = std::move(opened);
    return 0;
  }
  lock.unlock();
  Drop(opened->node, true);
  return -failed;
}

int Files::Load(Node& node) {
  if (node.outdated.exchange(false) && !node.editing) node.content.reset();
  if (node.content) return 0;
  std::lock_guard lock(state.mutex);
  std::optional<Item> item = state.items.Find(node.ino);
  if (!item) return ESTALE;
  node.id = item->id;
  node.content = store.Current(*item);
  if (node.content) return 0;
  ContentRow row{
      .ino = item->ino, .id = item->id, .time = item->remoteTime, .size = item->remoteSize};
  ContentPtr fresh;
  state.Change([&] {
    fresh = store.Create(row);
    item->content = row.content;
    state.items.Update(*item);
  });
  node.content = fresh;
  return 0;
}

ssize_t Files::Read(OpenFile& file, std::span<char> buffer, int64_t offset) {
  if (file.made) {
    const std::string& text = file.inlineContent;
    if (offset >= static_cast<int64_t>(text.size())) return 0;
    return static_cast<ssize_t>(
        text.copy(buffer.data(), buffer.size(), static_cast<size_t>(offset)));
  }
  ContentPtr content;
  std::string id;
  {
    std::lock_guard lock(file.node->mutex);
    if (const int error = Load(*file.node)) return -error;
    content = file.node->content;
    id = file.node->id;
  }
  return reader.Read(content, id, file.pattern, buffer, offset);
}

void Files::NoteWrite(Node& node) {
  node.size = node.content->Size();
  node.mtime = NowNanoseconds();
  node.timesSet = false;
  node.changed = true;
}

ssize_t Files::Write(OpenFile& file, std::span<const char> bytes, int64_t offset) {
  Node& node = *file.node;
  std::lock_guard lock(node.mutex);
  if (const int error = BeginEdit(node)) return -error;
  const int error = node.content->Write(bytes, offset);
  NoteWrite(node);
  return error != 0 ? -error : static_cast<ssize_t>(bytes.size());
}

int Files::BeginEdit(Node& node) {
  if (node.editing) return 0;
  for (;;) {
    if (const int error = Load(node)) return error;
    if (const int error = reader.Complete(node.content, node.id)) return error;
    if (const int error = Settle(node)) return error;
    bool settled = false;
    const int error = BeginLocked(node, settled);
    if (error != 0 || settled) return error;
    node.content.reset();  // the service had another version meanwhile
  }
}

/// The file holds what was committed last before it is changed: a start must not write that again
/// over the changes.
int Files::Settle(Node& node) {
  const int64_t content = node.content->number;
  {
    std::lock_guard lock(state.mutex);
    if (!state.redo.Has(content)) return 0;
  }
  if (const int error = store.Harden(*node.content)) return error;
  std::lock_guard lock(state.mutex);
  state.redo.Erase(content);
  return 0;
}

int Files::BeginLocked(Node& node, bool& settled) {
  std::lock_guard lock(state.mutex);
  const std::optional<Item> item = state.items.Find(node.ino);
  if (!item) return ESTALE;
  std::optional<ContentRow> bytes = state.contents.Find(node.content->number);
  settled = bytes && item->content == node.content->number &&
            (bytes->dirty || (bytes->time == item->remoteTime && bytes->id == item->id));
  if (!settled) return 0;
  state.Change([&] {
    bytes->dirty = true;
    state.contents.Update(*bytes);
    if (item->deleted) return;
    JournalRow row = state.RowFor(*item);
    row.editing = true;
    state.journal.Put(row);
  });
  node.editing = true;
  return 0;
}

/// Cutting to nothing begins new bytes beside the old ones: until the commit, a crash leaves what
/// was there before.
int Files::Replace(Node& node) {
  std::lock_guard lock(state.mutex);
  std::optional<Item> item = state.items.Find(node.ino);
  if (!item) return ESTALE;
  ContentPtr fresh;
  state.Change([&] {
    JournalRow row = state.RowFor(*item);
    if (item->content != row.content) store.Remove(item->content);
    ContentRow bytes{.ino = node.ino, .dirty = true};
    fresh = store.Create(bytes);
    item->content = bytes.content;
    state.items.Update(*item);
    row.editing = true;
    if (!item->deleted) state.journal.Put(row);
  });
  node.content = fresh;
  node.editing = true;
  return 0;
}

int Files::Resize(Node& node, int64_t size) {
  int error = 0;
  if (size == 0 && !(node.editing && node.changed)) {
    error = Replace(node);
  } else {
    error = BeginEdit(node);
    if (error == 0) error = node.content->Truncate(size);
  }
  // An edit that was begun is to be committed, also when the disk refused to go on with it.
  if (node.editing) NoteWrite(node);
  return error;
}

int Files::Truncate(Inode ino, int64_t size) {
  Item item;
  if (settings.readOnly) return -EROFS;
  if (const int error = tree.Get(ino, item)) return -error;
  if (item.IsFolder()) return -EISDIR;
  if (item.IsMadeUp()) return -EACCES;
  auto file = std::make_unique<OpenFile>();
  file->node = Acquire(ino, true);
  Node& node = *file->node;
  std::unique_lock lock(node.mutex);
  int error = Tried([&] { return Resize(node, size); });
  // Nobody else has it open for writing: nobody will close it either.
  if (--node.writers == 0) {
    const int refusal = Tried([&] { return Commit(node); });
    if (error == 0) error = refusal;
    file->writes = refusal != 0;
    node.writers += file->writes;
  }
  lock.unlock();
  if (file->writes)
    LeaveOpen(std::move(file));
  else
    Drop(file->node, false);
  return -error;
}

int Files::SetTime(Inode ino, int64_t nanoseconds) {
  if (const NodePtr node = Find(ino)) {
    std::lock_guard lock(node->mutex);
    node->mtime = nanoseconds;
    node->timesSet = true;
  }
  return -tree.SetTime(ino, nanoseconds);
}

int Files::Commit(Node& node) {
  if (!node.changed) return 0;
  std::optional<std::string> small;
  if (node.content->Size() <= kSmall) {
    small = node.content->Whole();
    if (!small) return EIO;
  } else if (const int error = store.Harden(*node.content)) {
    return error;
  }
  if (const int error = CommitLocked(node, small)) return error;
  if (!state.Sync()) return EIO;
  owed.Committed(node.ino, node.writers > 0);
  return 0;
}

int Files::CommitLocked(Node& node, const std::optional<std::string>& bytes) {
  std::lock_guard lock(state.mutex);
  std::optional<Item> item = state.items.Find(node.ino);
  if (!item) return ESTALE;
  state.Change([&] {
    item->size = node.content->Size();
    item->mtime = node.mtime;
    item->content = node.content->number;
    state.items.Update(*item);
    if (bytes) state.redo.Put(item->content, *bytes);
    std::optional<JournalRow> row = state.journal.Find(node.ino);
    if (item->deleted || !row) return;
    if (row->content != node.content->number) store.Remove(row->content);
    row->content = node.content->number;
    ++row->generation;
    row->editing = false;
    row->times = node.timesSet;
    row->tries = 0;
    state.journal.Put(*row);
  });
  node.changed = false;
  node.editing = false;
  return 0;
}

/// A reader's close says nothing about what a writer is still at.
bool Files::MayCommit(const OpenFile& file) {
  std::lock_guard lock(file.node->mutex);
  return file.writes || file.node->writers == 0;
}

int Files::Flush(OpenFile& file) { return MayCommit(file) ? -TryCommit(*file.node) : 0; }

int Files::Fsync(OpenFile& file) {
  if (const int error = -TryCommit(*file.node)) return error;
  if (settings.fsyncRemote) return -owed.AwaitSettled(file.node->ino);
  return state.Sync() ? 0 : -EIO;
}

void Files::Release(std::unique_ptr<OpenFile> file) {
  const NodePtr node = file->node;
  {
    // At once: who truncates meanwhile sees in the count whether somebody is still to commit.
    std::lock_guard lock(node->mutex);
    const bool commits = file->writes || node->writers == 0;
    // Pages of a mapping arrive after the last close.
    if (commits && Tried([&] { return Commit(*node); }) != 0) return LeaveOpen(std::move(file));
    node->writers -= file->writes;
  }
  Drop(node, false);
  if (file->writes) owed.Committed(file->node->ino, false);
}

/// What the disk refuses to keep now stays open, as it was left, until it does.
void Files::LeaveOpen(std::unique_ptr<OpenFile> file) {
  std::lock_guard lock(mutex);
  refused.push_back(std::move(file));
}

void Files::CommitAll() {
  std::vector<NodePtr> open;
  {
    std::lock_guard lock(mutex);
    for (const auto& [ino, node] : nodes) open.push_back(node);
  }
  for (const NodePtr& node : open) {
    TryCommit(*node);
  }
}

int Files::TryCommit(Node& node) {
  std::lock_guard lock(node.mutex);
  return Tried([&] { return Commit(node); });
}

void Files::RetryRefused() {
  std::vector<std::unique_ptr<OpenFile>> again;
  {
    std::lock_guard lock(mutex);
    again.swap(refused);
  }
  for (std::unique_ptr<OpenFile>& file : again) Release(std::move(file));
}

void Files::Overlay(Item& item) {
  if (item.IsFolder()) return;
  // A commit holds this mutex while it hands what was written over to the tables. The item may have
  // been read before.
  std::lock_guard held(state.mutex);
  const NodePtr node = Find(item.ino);
  if (!node || !node->changed) return state.items.ReadSize(item);
  item.size = node->size;
  item.mtime = node->mtime;
}

void Files::Outdated(Inode ino) {
  if (const NodePtr node = Find(ino)) node->outdated = true;
}

int Files::Keep(Inode ino) {
  const NodePtr node = Acquire(ino, false);
  int error = 0;
  ContentPtr content;
  std::string id;
  {
    std::lock_guard lock(node->mutex);
    error = Tried([&] { return Load(*node); });
    content = node->content;
    id = node->id;
  }
  if (error == 0) error = reader.Complete(content, id);
  Drop(node, false);
  return -error;
}

int Files::OpenCount() {
  std::lock_guard lock(mutex);
  return static_cast<int>(nodes.size());
}

}  // namespace host::mount
