#include "host/mount/content_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "host/core/descriptor.h"
#include "host/core/failure.h"
#include "host/core/paths.h"

namespace host::mount {
namespace fs = std::filesystem;

ContentStore::ContentStore(State& owner, fs::path place, int64_t limitBytes)
    : state(owner), directory(std::move(place)), limit(limitBytes) {
  MakePrivateDirectory(directory);
}

ContentStore::~ContentStore() {
  try {
    SaveMaps();
  } catch (const std::exception&) {
    // What is not noted will be fetched again.
  }
}

fs::path ContentStore::PathOf(int64_t content) const { return directory / std::to_string(content); }

ContentPtr ContentStore::Open(const ContentRow& row) {
  std::lock_guard lock(mutex);
  const auto at = live.find(row.content);
  if (at != live.end()) return at->second;
  return live[row.content] = OpenFile(row);
}

ContentPtr ContentStore::OpenFile(const ContentRow& row) const {
  const fs::path path = PathOf(row.content);
  const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  struct stat status {};
  if (descriptor < 0 || fstat(descriptor, &status) != 0)
    throw Failure("cannot open " + path.string() + ": " + std::strerror(errno),
                  "check the disk that holds it");
  auto content =
      std::make_shared<Content>(row.content, descriptor, row.dirty ? status.st_size : row.size);
  if (row.dirty) {
    content->pages.SetAll(Page::kPresent);
  } else if (status.st_size == row.size) {
    content->pages.FromBits(row.present);
  } else if (ftruncate(descriptor, 0) != 0 || ftruncate(descriptor, row.size) != 0) {
    throw Failure("cannot size " + path.string() + ": " + std::strerror(errno),
                  "make room on the disk");
  }
  return content;
}

ContentPtr ContentStore::Create(ContentRow& row) {
  row.used = NowSeconds();
  state.contents.Insert(row);
  state.AfterRollback([this, number = row.content] {
    Forget(number);
    unlink(PathOf(number).c_str());
  });
  return Open(row);
}

void ContentStore::Remove(int64_t content) {
  if (content == 0) return;
  state.contents.Erase(content);
  state.AfterCommit([this, content] { Forget(content); });
  state.AfterSync([path = PathOf(content)] { unlink(path.c_str()); });
}

void ContentStore::Forget(int64_t content) {
  std::lock_guard lock(mutex);
  live.erase(content);
}

ContentPtr ContentStore::Current(Item& item) {
  if (item.content == 0) return nullptr;
  std::optional<ContentRow> row = state.contents.Find(item.content);
  const bool usable = row && (row->dirty || (row->id == item.id && row->time == item.remoteTime &&
                                             row->size == item.remoteSize));
  if (usable) {
    NoteUse(*row);
    return Open(*row);
  }
  Remove(item.content);
  item.content = 0;
  state.items.Update(item);
  return nullptr;
}

void ContentStore::NoteUse(ContentRow& row) {
  const int64_t now = NowSeconds();
  if (row.used == now) return;
  row.used = now;
  try {
    state.contents.Update(row);
  } catch (const DatabaseError&) {
    // A full disk is no reason not to read what is there.
  }
}

std::vector<ContentPtr> ContentStore::Live() {
  std::lock_guard lock(mutex);
  std::vector<ContentPtr> contents;
  for (const auto& [number, content] : live) contents.push_back(content);
  return contents;
}

/// What nobody uses and has nothing to save needs no descriptor.
void ContentStore::CloseIdle() {
  std::vector<ContentPtr> idle;  // closed without the mutex
  std::lock_guard lock(mutex);
  for (auto at = live.begin(); at != live.end();) {
    const bool inUse = at->second.use_count() > 1 || at->second->HasUnsavedMap();
    if (!inUse) idle.push_back(std::move(at->second));
    at = inUse ? std::next(at) : live.erase(at);
  }
}

void ContentStore::Save(const ContentPtr& content) {
  std::string bits;
  int64_t bytes = 0;
  if (!content->Snapshot(bits, bytes)) return;
  std::lock_guard lock(state.mutex);
  std::optional<ContentRow> row = state.contents.Find(content->number);
  if (!row || row->dirty) return;
  row->present = bits;
  row->bytes = bytes;
  state.contents.Update(*row);
}

void ContentStore::SaveMaps() {
  for (const ContentPtr& content : Live()) Save(content);
  CloseIdle();
}

bool ContentStore::SyncDirectory() {
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool synced = fsync(descriptor) == 0;
  close(descriptor);
  return synced;
}

int ContentStore::Harden(Content& content) {
  if (const int error = content.Sync()) return error;
  if (!content.placed && !SyncDirectory()) return EIO;
  content.placed = true;
  return 0;
}

void ContentStore::HardenAll() {
  std::vector<RedoRow> rows;
  {
    std::lock_guard lock(state.mutex);
    rows = state.redo.All();
  }
  for (const RedoRow& row : rows) {
    const Descriptor file(open(PathOf(row.content).c_str(), O_RDONLY | O_CLOEXEC));
    // One that is missing was removed meanwhile, and its row with it.
    if (file.Get() >= 0 && fdatasync(file.Get()) != 0) return;
  }
  if (rows.empty() || !SyncDirectory()) return;
  std::lock_guard lock(state.mutex);
  state.redo.EraseUpTo(rows.back().number);
}

void ContentStore::RedoOne(int64_t content) {
  const std::string bytes = state.redo.Bytes(content);
  const fs::path path = PathOf(content);
  const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  const auto size = static_cast<ssize_t>(bytes.size());
  const bool written = file.Get() >= 0 &&
                       pwrite(file.Get(), bytes.data(), bytes.size(), 0) == size &&
                       ftruncate(file.Get(), size) == 0;
  if (!written)
    throw Failure("cannot write " + path.string() + ": " + std::strerror(errno),
                  "check the disk that holds it");
}

void ContentStore::Redo() {
  {
    std::lock_guard lock(state.mutex);
    for (const RedoRow& row : state.redo.All()) RedoOne(row.content);
  }
  HardenAll();
}

void ContentStore::MakeRoom(int64_t room) {
  const std::vector<ContentPtr> inUse = Live();
  std::set<int64_t> kept;
  for (const ContentPtr& content : inUse) kept.insert(content->number);
  std::unique_lock lock(state.mutex);
  int64_t excess = state.contents.CleanBytes() + room - limit;
  if (excess <= 0) return;
  state.Change([&] {
    for (const ContentRow& row : state.contents.Evictable(static_cast<int>(kept.size()) + 1000)) {
      if (excess <= 0) break;
      if (kept.count(row.content) != 0) continue;
      excess -= row.bytes;
      Remove(row.content);
    }
  });
  lock.unlock();
  state.Sync();
}

void ContentStore::RemoveUnknown() {
  std::set<std::string> known;
  {
    std::lock_guard lock(state.mutex);
    for (const int64_t number : state.contents.Numbers()) known.insert(std::to_string(number));
  }
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, ignored))
    if (known.count(entry.path().filename().string()) == 0) fs::remove(entry.path(), ignored);
}

}  // namespace host::mount
