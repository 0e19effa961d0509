// Making the service agree with one item of the mount, one request after another.
//
// Each step reads the item and its journal row, asks the service for one thing, and notes the
// answer in one transaction. A step that could create something, or send bytes, is noted before it
// begins; when its answer is lost, the next step looks whether it had an effect before anything is
// tried again. So a lost answer makes no second copy and a killed host forgets nothing.
//
// Any number of threads may settle different items; one item is settled by one thread at a time.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/mount/folder_cache.h"

namespace host::mount {

/// What became of one try to settle an item.
struct Verdict {
  enum Kind {
    kSettled,   ///< the journal owes nothing for it
    kProgress,  ///< something was done, there may be more
    kBlocked,   ///< `on` has to be settled first
    kWaiting,   ///< a program is still writing: its commit starts it again
    kPause,     ///< to be tried again after `pause`
    kFailed,    ///< the service did not do it; `error` says why
  };
  Kind kind = kSettled;
  Inode on = 0;
  Milliseconds pause{0};
  std::string error{};
};

/// An upload that runs, for the eyes of `status` and for whoever must stop it.
struct Sending {
  Transfer transfer = std::make_shared<_FS_HANDLE>();
  std::atomic<int64_t> size{0};  ///< bytes; 0 while nothing is sent
  std::atomic<int64_t> sent{0};
  bool confirmed = false;  ///< the service has just taken the bytes; for the settling thread only
};

class Settler {
 public:
  Settler(State& itsState, Remote& itsRemote, ContentStore& itsStore, FolderCache& itsFolders,
          const Settings& itsSettings)
      : state(itsState),
        remote(itsRemote),
        store(itsStore),
        folders(itsFolders),
        settings(itsSettings) {}

  /// One step. `sending` is shared with other threads.
  Verdict Step(Inode ino, Sending& sending);
  /// Notes in the journal that a try failed.
  void NoteFailure(Inode ino, const std::string& error);

 private:
  struct Work {
    Item item;
    JournalRow row;
    Item parent;
    bool parentOwed = false;  // the parent's own names are not settled
  };
  enum class Seen { kSame, kChanged, kGone, kElsewhere, kUnknown };

  std::optional<Verdict> Read(Inode ino, Work& work);
  Verdict Finish(const Work& work);

  // settler_create.cpp
  Verdict Create(const Work& work, Sending& sending);
  Verdict CreateFolder(const Work& work);
  Verdict CreateFile(const Work& work, Sending& sending);
  Verdict LookForLostCreate(const Work& work);
  void Adopt(const Work& work, const RemoteItem& record, const std::string& parentId,
             int64_t generationSent);
  std::optional<Verdict> Prepare(const Work& work, const std::string& parentId, ContentPtr& content,
                                 uint64_t& writes);
  bool IsOutdated(const Work& work);
  bool MarkAttempt(const Work& work, const std::string& parentId, const std::string& hash,
                   int64_t size);
  Verdict Lost(const Work& work, const std::string& error);
  std::optional<Verdict> AwaitLostAnswer(const JournalRow& row);

  // settler_content.cpp
  Verdict Send(const Work& work, Sending& sending);
  Verdict SendOver(const Work& work, Sending& sending);
  Seen Compare(const Work& work, RemoteItem& record);
  Seen CompareByListing(const Work& work, RemoteItem& record);
  Verdict KeepBoth(const Work& work, const RemoteItem& record);
  Notices KeepBothLocked(const Work& work, const RemoteItem& record);
  void NoteSent(const Work& work, const RemoteItem& record, int64_t generation);
  void NoteSentLocked(Inode ino, const std::string& id, const RemoteItem& record,
                      int64_t generation);
  void KeepAsCache(const Item& item, const JournalRow& row);
  std::optional<bool> HoldsAttempt(const JournalRow& row, const RemoteItem& record);
  AERROR Upload(const Work& work, const ContentPtr& content, uint64_t writes,
                const std::string& parentId, Sending& sending, RemoteItem& record);
  bool Hash(const ContentPtr& content, uint64_t writes, std::string& hash);
  std::optional<std::string> RemoteHash(const std::string& id, int64_t size);
  Verdict Reconsider(const Work& work, const RemoteItem& record);
  bool IsOwnTime(const Work& work, const RemoteItem& record);
  ContentPtr OpenContent(int64_t content);

  // settler_names.cpp
  Verdict Relocate(const Work& work);
  Verdict SetTimes(const Work& work, const Sending& sending);
  std::optional<Verdict> RequireVersion(const Work& work);
  Verdict Delete(const Work& work);
  Verdict DeleteFile(const Work& work);
  Verdict LeaveToOthers(const Work& work, const std::string& why);
  Verdict DeleteFolder(const Work& work);
  Verdict DeleteAtService(const Work& work, RemoteItem record);
  Verdict Vanished(const Work& work);
  std::optional<bool> Exists(const Work& work);
  std::optional<bool> IsListed(const std::string& folder, const std::string& id, int depth = 0);
  std::optional<bool> Stands(const std::string& id, int depth = 0);
  bool WasSeenStanding(const std::string& id);
  std::optional<bool> NothingWhileAway();
  std::optional<Verdict> PrepareMove(const Work& work, bool moves);
  Verdict LookForLostMove(const Work& work);
  bool IsOwnMove(const Work& work, const RemoteItem& record);
  Verdict FollowMove(const Work& work, Verdict otherwise);
  std::optional<Verdict> RequireFolder(const std::string& id);
  bool ConfirmPlace(const Work& work, const std::string& name, const std::string& parentId);
  void Done(const Work& work);

  State& state;
  Remote& remote;
  ContentStore& store;
  FolderCache& folders;
  const Settings& settings;
  const int64_t started = NowNanoseconds();
};

/// The name under which the service is to know an item.
std::string NameToSend(const Item& item);

}  // namespace host::mount
