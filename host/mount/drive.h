// One mounted drive: the rooms of the mount put together, without the kernel.
//
// Made and ended by one thread; in between its parts may be used from any.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "host/core/failure.h"
#include "host/mount/files.h"
#include "host/mount/traffic_meter.h"
#include "host/mount/upload_queue.h"

namespace host::mount {

/// Where the plug-in reports changed folders. It may do so until the protocol object is released,
/// so the relay outlives that object while drives come and go. Thread-safe.
class ChangeRelay final : public IFileChanges {
 public:
  void SetReceiver(std::function<void(const std::string&)> function);

  void Reserved0() override {}
  void Reserved1() override {}
  void Reserved2() override {}
  void Changed(const char* folderId) override;

 private:
  std::mutex mutex;
  std::function<void(const std::string&)> receiver;  // called with the mutex held
};

/// There is nothing to show: the service cannot be asked, and never could.
class NeverReached : public Failure {
 public:
  NeverReached()
      : Failure("cannot mount: the service has never been reached",
                "check the network; the first mount needs it") {}
};

class Drive final : private Observer {
 public:
  /// `protocol` and `relay` are not owned; the tables go to `database`, files below `contents`.
  /// An empty `rootId` means that the service could not be asked: the remembered one is used.
  /// Throws Failure, NeverReached when nothing is remembered either.
  Drive(IProtocol_V2& protocol, ChangeRelay& relay, const std::filesystem::path& database,
        const std::filesystem::path& contents, const std::string& rootId, Settings settings);
  ~Drive();

  /// Begins to follow the service and to send what is owed. `connect` is called in the background
  /// before each poll: false when the plug-in has no account to work with yet.
  void Start(std::function<bool()> connect = nullptr);
  /// Ends all requests. What is owed stays in the journal.
  void Stop();
  void SetKernel(Observer* kernel) { observer = kernel; }

  /// Polls once, now.
  void Poll() { remote.Changes(relay); }
  /// Keeps an item, and all below it, on the local disk; what is missing is fetched in the
  /// background. A positive errno or 0.
  int Pin(Inode ino, bool pinned);

  struct Quota {
    uint64_t total = 0, used = 0;  ///< bytes; 0: never known
  };
  Quota RememberedQuota();
  /// False when the plug-in has come to work with another account than the one that is shown.
  bool IsOwnAccount();
  /// False while the service does not answer.
  bool Connected();

  const Settings settings;
  State state;
  Remote remote;
  Patience patience;
  ContentStore store;

 private:
  TaskPool listPool, fetchPool;

 public:
  FolderCache folders;
  Reader reader;
  Settler settler;
  UploadQueue queue;
  TrafficMeter traffic;
  Tree tree;
  Files files;

 private:
  using Clock = std::chrono::steady_clock;

  void Changed(const Notices& notices) override;
  void TakeRoot(const std::string& rootId);
  void BeginAnewLocked(const std::string& rootId, bool known);
  void Follow(std::function<bool()> connect);
  bool IsReached();
  std::string IdToAskFor();
  void Housekeep();
  void AskQuota();
  void NotePinned(const Notices& notices);
  void FetchPinned();
  int PinBelow(Inode folder);
  void Unpin(const Item& item);

  ChangeRelay& relay;
  std::atomic<Observer*> observer{nullptr};
  std::mutex mutex;  // guards what is below
  std::condition_variable wake;
  bool stopping = false;
  bool connected = true;
  bool reachable = true;   // the last question was answered
  std::set<Inode> toKeep;  // pinned items of which something may be missing
  bool keepNow = false;    // somebody has just pinned something
  Quota quota;
  Clock::time_point quotaDue{}, probeDue{};  // the follower's own, as the next
  int64_t heard = 0;
  std::thread follower, housekeeper;
};

}  // namespace host::mount
