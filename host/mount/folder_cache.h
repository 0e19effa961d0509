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
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "host/mount/content_store.h"
#include "host/mount/listing_merge.h"
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
  /// The service is about to report changes. Small folders whose names programs read just now are
  /// listed without waiting to hear which it is: a report that comes after finds that done.
  void ExpectChanges();
  /// Lists the folder now and waits for it: 0 or a positive errno.
  int RefreshNow(Inode folder);
  /// The service has this item no more: it goes, with what is below it, but for what programs
  /// changed there and for what others have moved out of it.
  void TakeAway(const Item& item);
  /// Lists what is on the way to this folder, from the nearest folder that is known. False when
  /// there is no way or it cannot be found now.
  bool MakeKnown(const std::string& folderId, int depth = 0);
  /// Asks for the top of the drive. A request for one item cannot tell that there is none from that
  /// nobody answers.
  bool ServiceAnswers();
  void Tell(const Notices& notices);

 private:
  using Clock = std::chrono::steady_clock;
  struct Listing {
    std::atomic<bool> claimed{false};
    bool done = false;   // guarded by mutex, as is all below
    bool again = false;  // a change was reported while it ran
    int error = 0;
    int depth = 0;
    uint64_t expectation = 0;  // the last one when it began
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
  std::vector<Inode> InUse();
  bool Foreseen(uint64_t expectation) const;
  bool IsFresh(Inode folder);
  std::vector<Inode> Listed(const std::string& folderId);
  void Renew(Inode folder);
  ListingPtr Start(Inode folder, Urgency urgency, int depth);
  void Run(Inode folder, const ListingPtr& listing);
  int Finish(Inode folder, const ListingPtr& listing, int error);
  int ListAndMerge(Inode folder);
  std::optional<Records> WhereMoved(ListingMerge& merge, const std::set<Inode>& tops);
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
  std::set<Inode> lookedAt;            // folders that a program asked for since the start
  std::set<Inode> read;                // those of them whose names were read
  std::map<Inode, uint64_t> freshFor;  // what a folder's last listing was begun after
  uint64_t expectations = 0;
  Clock::time_point expectedAt{};
  struct Visit {
    Inode folder = 0;
    Clock::time_point at{};
  };
  std::deque<Visit> latest;  // the latest first
};

}  // namespace host::mount
