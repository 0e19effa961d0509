// Which folders are known, and the requests that make them known.
//
// A folder is listed once and then kept: it is listed again when the service reports a change in
// it, or when it is looked at after Settings::folderAge. Programs wait only for folders that were
// never listed; otherwise they see what is known and are told when it changes. The folders below
// one whose names a program reads are listed ahead in the background.
//
// Thread-safe; no function is called with the mutex of State held.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "host/mount/content_store.h"
#include "host/mount/observer.h"
#include "host/mount/patience.h"
#include "host/mount/remote.h"
#include "host/mount/settings.h"
#include "host/mount/task_pool.h"

namespace host::mount {

class FolderCache {
 public:
  FolderCache(State& itsState, Remote& itsRemote, ContentStore& itsStore, TaskPool& itsPool,
              Patience& itsPatience, const Settings& itsSettings)
      : state(itsState),
        remote(itsRemote),
        store(itsStore),
        pool(itsPool),
        patience(itsPatience),
        settings(itsSettings) {}

  /// Null: nobody is told. Must outlive the pool's tasks.
  void SetObserver(Observer* who) { observer = who; }

  enum class Use { kOneName, kAllNames };
  /// Makes sure that the folder's items are known: 0 or a positive errno.
  int Ensure(Inode folder, Use use = Use::kOneName);
  /// The service reported a change in the folder with this Drive id.
  void ReportChange(const std::string& folderId);
  /// Lists the folder now and waits for it: 0 or a positive errno.
  int RefreshNow(Inode folder);
  void Tell(const Notices& notices);

 private:
  struct Listing {
    std::atomic<bool> claimed{false};
    bool done = false;   // guarded by mutex, as is all below
    bool again = false;  // a change was reported while it ran
    int error = 0;
    int depth = 0;
    std::condition_variable ended;
  };
  using ListingPtr = std::shared_ptr<Listing>;

  struct Standing {
    int error = 0;
    bool atService = false;  // it has a Drive id
    bool listed = false;
    bool outdated = false;
  };

  Standing Look(Inode folder);
  bool NoteLook(Inode folder, Use use);
  ListingPtr Start(Inode folder, Urgency urgency, int depth);
  void Run(Inode folder, const ListingPtr& listing);
  int Finish(Inode folder, const ListingPtr& listing, int error);
  int ListAndMerge(Inode folder);
  void ListAhead(Inode folder, int depth);
  int Wait(const ListingPtr& listing);

  State& state;
  Remote& remote;
  ContentStore& store;
  TaskPool& pool;
  Patience& patience;
  const Settings& settings;
  std::atomic<Observer*> observer{nullptr};
  std::mutex mutex;  // never held together with the mutex of State
  std::map<Inode, ListingPtr> running;
  std::set<Inode> lookedAt;  // folders that a program asked for since the start
  std::set<Inode> read;      // those of them whose names were read
};

}  // namespace host::mount
