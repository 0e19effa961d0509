#include "host/mount/state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "host/mount/name_map.h"

namespace host::mount {

int64_t NowNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t NowSeconds() { return NowNanoseconds() / 1'000'000'000; }

namespace {

/// More than the log grows between two times that it is carried over and begun again.
constexpr int64_t kLogBytes = int64_t{8} << 20;

}  // namespace

const std::vector<std::string>& MountSchema() {
  static const std::vector<std::string> steps = {R"(
    CREATE TABLE mount_items(
      ino INTEGER PRIMARY KEY AUTOINCREMENT, parent INTEGER NOT NULL, name TEXT NOT NULL,
      driveName TEXT NOT NULL, attributes INTEGER NOT NULL, deleted INTEGER NOT NULL,
      size INTEGER NOT NULL, mtime INTEGER NOT NULL, content INTEGER NOT NULL,
      inlineContent TEXT NOT NULL, id TEXT NOT NULL, remoteName TEXT NOT NULL,
      remoteParent TEXT NOT NULL, remoteTime TEXT NOT NULL, remoteSize INTEGER NOT NULL,
      otherParents TEXT NOT NULL, stamp INTEGER NOT NULL, listedAt INTEGER NOT NULL,
      stale INTEGER NOT NULL);
    CREATE UNIQUE INDEX mount_items_name ON mount_items(parent, name) WHERE deleted = 0;
    CREATE INDEX mount_items_parent ON mount_items(parent);
    CREATE INDEX mount_items_id ON mount_items(id) WHERE id <> '';
    CREATE INDEX mount_items_held ON mount_items(remoteParent) WHERE remoteParent <> '';
    CREATE INDEX mount_items_deleted ON mount_items(ino) WHERE deleted = 1;
    CREATE TABLE mount_journal(
      ino INTEGER PRIMARY KEY, content INTEGER NOT NULL, generation INTEGER NOT NULL,
      editing INTEGER NOT NULL, times INTEGER NOT NULL, hasBase INTEGER NOT NULL,
      baseTime TEXT NOT NULL, baseSize INTEGER NOT NULL, after INTEGER NOT NULL,
      attempted INTEGER NOT NULL, attemptParent TEXT NOT NULL, attemptName TEXT NOT NULL,
      attemptHash BLOB NOT NULL, attemptSize INTEGER NOT NULL, attemptGeneration INTEGER NOT NULL,
      since INTEGER NOT NULL, tries INTEGER NOT NULL, error TEXT NOT NULL,
      attemptTime TEXT NOT NULL);
    CREATE INDEX mount_journal_attempts ON mount_journal(attemptParent) WHERE attempted = 1;
    CREATE TABLE mount_contents(
      content INTEGER PRIMARY KEY AUTOINCREMENT, ino INTEGER NOT NULL, id TEXT NOT NULL,
      time TEXT NOT NULL, size INTEGER NOT NULL, dirty INTEGER NOT NULL, present BLOB NOT NULL,
      bytes INTEGER NOT NULL, used INTEGER NOT NULL);
    CREATE TABLE mount_pins(ino INTEGER PRIMARY KEY);
    CREATE TABLE mount_values(key TEXT PRIMARY KEY, value TEXT NOT NULL);
    CREATE TABLE mount_events(
      number INTEGER PRIMARY KEY AUTOINCREMENT, at INTEGER NOT NULL, text TEXT NOT NULL);
  )",
                                                 R"(
    CREATE TABLE mount_redo(
      number INTEGER PRIMARY KEY AUTOINCREMENT, content INTEGER NOT NULL UNIQUE
      REFERENCES mount_contents(content) ON DELETE CASCADE, bytes BLOB NOT NULL);
  )",
                                                 R"(
    ALTER TABLE mount_journal ADD COLUMN movedTo TEXT NOT NULL DEFAULT '';
  )",
                                                 R"(
    CREATE INDEX mount_journal_moves ON mount_journal(movedTo) WHERE movedTo <> '';
  )"};
  return steps;
}

State::MakeTables::MakeTables(Database& database) {
  database.Migrate("mount", MountSchema());
  // Commits do not wait for the disk; Sync does, outside of the mutex and once for many. Nor do
  // they carry the log over, unless CarryOver is not often enough: a log that grows on would take
  // the room that the database needs for it.
  database.Run(
      "PRAGMA synchronous = NORMAL; PRAGMA cache_size = -16384; PRAGMA wal_autocheckpoint = 2500");
}

State::State(const std::filesystem::path& file)
    : database(file),
      makeTables(database),
      items(database),
      journal(database),
      contents(database),
      redo(database),
      carrier(file),
      value(database.Prepare("SELECT value FROM mount_values WHERE key = ?1")),
      setValue(database.Prepare("INSERT OR REPLACE INTO mount_values VALUES (?1, ?2)")),
      addEvent(database.Prepare("INSERT INTO mount_events (at, text) VALUES (?1, ?2)")),
      trimEvents(database.Prepare("DELETE FROM mount_events WHERE number <= "
                                  "(SELECT max(number) FROM mount_events) - 100")),
      events(database.Prepare("SELECT at, text FROM mount_events ORDER BY number")),
      pin(database.Prepare("INSERT OR IGNORE INTO mount_pins VALUES (?1)")),
      unpin(database.Prepare("DELETE FROM mount_pins WHERE ino = ?1")),
      isPinned(database.Prepare("SELECT 1 FROM mount_pins WHERE ino = ?1")),
      pins(database.Prepare("SELECT ino FROM mount_pins")) {
  // The log exists once something was written through this connection.
  Change([&] {
    SetValue("opened", std::to_string(NowSeconds()));
    SetValue(kCleanKey, "0");
  });
  Change([&] { OpenLog(); });
}

State::~State() {
  try {
    SetValue(kCleanKey, "1");
  } catch (const std::exception&) {
    // Then the next host looks more closely.
  }
  close(log);
}

/// Opens the log, and gives it room while nobody else can write to it: to sync bytes that lie where
/// bytes were before takes a fraction of the time of bytes that make the file longer.
void State::OpenLog() {
  const std::string file = database.File().string() + "-wal";
  log = open(file.c_str(), O_RDWR | O_CLOEXEC);
  struct stat status {};
  if (log < 0 || fstat(log, &status) != 0)
    throw Failure("cannot open " + file + ": " + std::strerror(errno),
                  "check the disk that holds it");
  // Frames that were never written end the log just as its end does.
  const std::string nothing(size_t{64} << 10, '\0');
  const auto size = static_cast<ssize_t>(nothing.size());
  for (int64_t at = status.st_size; at < kLogBytes; at += size)
    if (pwrite(log, nothing.data(), nothing.size(), at) != size) return;  // then it grows by use
  Sync();
}

void State::CarryOver() { carrier.Run("PRAGMA wal_checkpoint(PASSIVE)"); }

bool State::Sync() {
  Deferred due;  // done without the lock
  const bool done = SyncAndCollect(due);
  for (const std::function<void()>& function : due) function();
  return done;
}

void State::SyncIfAwaited() {
  {
    std::lock_guard lock(syncing);
    if (afterSync.empty()) return;
  }
  Sync();
}

bool State::SyncAndCollect(Deferred& due) {
  std::unique_lock lock(syncing);
  // One that runs now may have begun before the caller's transaction was written.
  const uint64_t wanted = syncsBegun + 1;
  while (syncsEnded < wanted) {
    if (syncsBegun != syncsEnded) {
      synced.wait(lock);
      continue;
    }
    ++syncsBegun;
    due.swap(afterSync);
    lock.unlock();
    const bool done = fdatasync(log) == 0;
    lock.lock();
    syncsEnded = syncsBegun;
    if (!done) {
      syncFailed = syncsEnded;
      afterSync.insert(afterSync.end(), due.begin(), due.end());
      due.clear();
    }
    synced.notify_all();
  }
  return syncFailed < wanted;
}

void State::AfterCommit(std::function<void()> function) {
  if (!changing) return function();
  afterCommit.push_back(std::move(function));
}

void State::AfterSync(std::function<void()> function) {
  AfterCommit([this, function = std::move(function)]() mutable {
    std::lock_guard lock(syncing);
    afterSync.push_back(std::move(function));
  });
}

void State::AfterRollback(std::function<void()> function) {
  if (changing) afterRollback.push_back(std::move(function));
}

void State::Conclude(Deferred& which) {
  changing = false;
  const Deferred due = std::move(which);
  afterCommit.clear();
  afterRollback.clear();
  for (const std::function<void()>& function : due) function();
}

JournalRow State::RowFor(const Item& item) {
  if (std::optional<JournalRow> row = journal.Find(item.ino)) return *row;
  return {.ino = item.ino,
          .hasBase = !item.id.empty(),
          .baseTime = item.remoteTime,
          .baseSize = item.remoteSize,
          .since = NowSeconds()};
}

std::string State::FreeName(Inode folder, const Item& item) {
  return ShownName(item.driveName, item.id, [&](const std::string& name) {
    const std::optional<Item> holder = items.FindChild(folder, name);
    return holder && holder->ino != item.ino;
  });
}

std::string State::Value(const std::string& key) {
  std::string text;
  if (value.Bind(1, key).Step()) text = value.Text(0);
  value.Reset();
  return text;
}

void State::SetValue(const std::string& key, const std::string& text) {
  setValue.Bind(1, key).Bind(2, text).Run();
}

void State::AddEvent(const std::string& text) {
  addEvent.Bind(1, NowSeconds()).Bind(2, text).Run();
  trimEvents.Run();
}

std::vector<State::Event> State::Events() {
  std::vector<Event> found;
  while (events.Step()) found.push_back({events.Integer(0), events.Text(1)});
  events.Reset();
  return found;
}

void State::Pin(Inode ino, bool pinned) {
  (pinned ? pin : unpin).Bind(1, static_cast<int64_t>(ino)).Run();
}

bool State::IsPinned(Inode ino) {
  const bool found = isPinned.Bind(1, static_cast<int64_t>(ino)).Step();
  isPinned.Reset();
  return found;
}

std::vector<Inode> State::Pins() {
  std::vector<Inode> found;
  while (pins.Step()) found.push_back(static_cast<Inode>(pins.Integer(0)));
  pins.Reset();
  return found;
}

}  // namespace host::mount
