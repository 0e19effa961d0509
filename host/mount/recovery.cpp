#include "host/mount/recovery.h"

#include <cstring>

#include "host/core/failure.h"
#include "host/mount/forget.h"
#include "host/mount/name_map.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

class Recovery {
 public:
  Recovery(State& itsState, ContentStore& itsStore) : state(itsState), store(itsStore) {}

  void Run() {
    for (const JournalRow& row : state.journal.All())
      if (row.editing) Close(row);
    for (const Inode ino : state.items.DeletedAndSettled())
      if (const std::optional<Item> item = state.items.Find(ino)) Forget(state, store, *item);
    for (const int64_t content : state.contents.Orphans()) store.Remove(content);
    state.items.MarkAllStale();
  }

 private:
  void Close(JournalRow row) {
    std::optional<Item> item = state.items.Find(row.ino);
    row.editing = false;
    if (!item || item->deleted) return state.journal.Put(row);
    if (row.content != 0 && row.content != item->content) return TakeBack(*item, row);
    if (row.content != 0 || item->id.empty()) return Commit(*item, row);
    Separate(*item, row);
  }

  /// Of the bytes, which are on the disk then: what is noted here of them must stay true.
  int64_t SizeOf(int64_t number) {
    const std::optional<ContentRow> bytes = state.contents.Find(number);
    if (!bytes) return 0;
    const ContentPtr content = store.Open(*bytes);
    if (const int error = store.Harden(*content))
      throw Failure("cannot sync what was being written: " + std::string(std::strerror(error)),
                    "check the disk that holds it");
    return content->Size();
  }

  /// The bytes that were owed count; the ones that were to replace them were never closed.
  void TakeBack(Item& item, JournalRow& row) {
    store.Remove(item.content);
    item.content = row.content;
    item.size = SizeOf(row.content);
    state.items.Update(item);
    state.journal.Put(row);
  }

  void Commit(Item& item, JournalRow& row) {
    row.content = item.content;
    ++row.generation;
    item.size = SizeOf(item.content);
    state.items.Update(item);
    state.journal.Put(row);
  }

  void Separate(Item& item, JournalRow& row) {
    const std::optional<ContentRow> bytes = state.contents.Find(item.content);
    const bool rewritten = !bytes || bytes->id.empty();
    if (rewritten)
      store.Remove(item.content);
    else
      KeepBeside(item, *bytes);
    item.content = 0;
    item.size = item.remoteSize;
    item.mtime = FromRfc3339(item.remoteTime);
    state.items.Update(item);
    row.times = false;
    state.journal.Put(row);
  }

  void KeepBeside(const Item& item, ContentRow bytes) {
    Item copy;
    copy.parent = item.parent;
    copy.driveName = WithMark(item.driveName, " (recovered " + LocalStamp(NowNanoseconds()) + ")");
    copy.attributes = item.attributes;
    copy.name = state.FreeName(item.parent, copy);
    copy.size = SizeOf(bytes.content);
    copy.mtime = NowNanoseconds();
    copy.content = bytes.content;
    state.items.Insert(copy);
    bytes.ino = copy.ino;
    state.contents.Update(bytes);
    state.journal.Put(
        {.ino = copy.ino, .content = bytes.content, .generation = 1, .since = NowSeconds()});
    state.AddEvent("\"" + item.name +
                   "\" was being changed when the host ended: the changes are in \"" + copy.name +
                   "\"");
  }

  State& state;
  ContentStore& store;
};

}  // namespace

void Recover(State& state, ContentStore& store) {
  store.Redo();
  {
    std::lock_guard lock(state.mutex);
    state.Change([&] { Recovery(state, store).Run(); });
  }
  if (state.Sync()) store.RemoveUnknown();
}

}  // namespace host::mount
