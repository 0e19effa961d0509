// Everything that must survive a restart: the mount's tables in the profile's database, and the
// mutex that guards them.
//
// A change of what programs see and the journal row that stands for it are one transaction. A
// committed transaction survives a killed process at once; Sync makes all committed ones survive
// a power cut.
//
// Members other than Sync are used with the mutex held. The mutex is never held over a request to
// the service nor over a wait for the disk.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/core/database.h"
#include "host/mount/content_table.h"
#include "host/mount/item_table.h"
#include "host/mount/journal_table.h"
#include "host/mount/redo_table.h"

namespace host::mount {

int64_t NowSeconds();
int64_t NowNanoseconds();

/// The value that says whether the last host ended in order.
inline constexpr char kCleanKey[] = "clean";

class State {
 public:
  explicit State(const std::filesystem::path& file);
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  std::mutex mutex;
  Database database;

 private:
  struct MakeTables {
    explicit MakeTables(Database& database);
  } makeTables;  // before the tables, whose statements need them

 public:
  ItemTable items;
  JournalTable journal;
  ContentTable contents;
  RedoTable redo;

  /// Commits when it leaves the scope unless an exception does; nests by doing nothing inside.
  template <typename Function>
  void Change(Function&& function) {
    if (changing) return function();
    changing = true;
    try {
      Transaction transaction(database);
      function();
      transaction.Commit();
    } catch (...) {
      Conclude(afterRollback);
      throw;
    }
    Conclude(afterCommit);
  }

  /// What belongs to a change but not to the tables, as files do: done when the change is
  /// committed, at once outside of one.
  void AfterCommit(std::function<void()> function);
  /// Done when no power cut can take back the change any more: at the end of a Sync that begins
  /// after it. For what cannot be undone, as to remove a file that a row has named.
  void AfterSync(std::function<void()> function);
  /// Done when the change that runs fails.
  void AfterRollback(std::function<void()> function);

  /// Numbers what this host did at the service. A listing remembers the stamp at its beginning:
  /// what it says about items stamped later is out of date.
  int64_t Stamp() const { return stamp; }
  int64_t NextStamp() { return ++stamp; }

  /// Items that programs have open; a deleted one is forgotten only after its last close.
  std::unordered_map<Inode, int> opened;
  /// Drive ids this host has deleted, with the stamp of it: a listing that began earlier still
  /// shows them.
  std::unordered_map<std::string, int64_t> buried;
  /// Drive ids of folders that a listing has shown since the service last failed to answer, and
  /// when (nanoseconds since 1970): for a while they need not be looked for before something is put
  /// into them.
  std::unordered_map<std::string, int64_t> standing;
  int64_t failedAt = 0;  ///< stamp of that failure

  /// Items that came to be owed by what the service said rather than by a program; the upload
  /// queue takes them up.
  std::vector<Inode> newlyOwed;

  /// The journal row of an item, or a new one that begins from what the service has.
  JournalRow RowFor(const Item& item);

  /// A name under which `item` can be shown in `folder` beside what is there.
  std::string FreeName(Inode folder, const Item& item);

  std::string Value(const std::string& key);
  void SetValue(const std::string& key, const std::string& value);

  /// Notes something the user should know (a conflict, a failed upload); the latest 100 are kept.
  void AddEvent(const std::string& text);
  struct Event {
    int64_t at = 0;  ///< seconds since 1970
    std::string text;
  };
  std::vector<Event> Events();

  void Pin(Inode ino, bool pinned);
  bool IsPinned(Inode ino);
  std::vector<Inode> Pins();

  /// Waits until every transaction committed so far is on the disk; callers at the same time share
  /// one sync. Without the mutex. False when the disk refuses.
  bool Sync();
  /// Syncs when something waits for it.
  void SyncIfAwaited();
  /// Carries what the log holds over into the database, beside whoever writes. Without the mutex,
  /// by one thread at a time.
  void CarryOver();

 private:
  void OpenLog();

  Database carrier;                  // a second connection, for CarryOver
  int64_t stamp = NowNanoseconds();  // larger than any of an earlier run
  using Deferred = std::vector<std::function<void()>>;
  void Conclude(Deferred& which);
  bool SyncAndCollect(Deferred& due);

  bool changing = false;
  Deferred afterCommit, afterRollback;  // of the change that runs
  int log = -1;        // descriptor of the write-ahead log, open as long as the connection
  std::mutex syncing;  // guards the five below
  std::condition_variable synced;
  uint64_t syncsBegun = 0, syncsEnded = 0;
  uint64_t syncFailed = 0;  // the last of them that did
  Deferred afterSync;
  Statement value, setValue, addEvent, trimEvents, events, pin, unpin, isPinned, pins;
};

}  // namespace host::mount
