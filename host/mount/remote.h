// The plug-in's operations as the mount uses them: values in, values and codes out.
//
// All operations are synchronous requests to the service and may take long (the plug-in waits out
// rate limits for up to half a minute): none is called with a lock held. Callable from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "plugin/host_interfaces.h"

namespace host::mount {

using RemoteItem = _FS_FILE_V2;
using Transfer = std::shared_ptr<_FS_HANDLE>;

/// The transfer ends soon after: an upload without effect, a download after the current block.
inline void Abandon(const Transfer& transfer) { transfer->status = 3; }

class Remote {
 public:
  /// `drive` is not owned.
  explicit Remote(IProtocol_V2& itsDrive) : drive(itsDrive) {}

  /// The items of a folder. Without SUCCESS the list may be incomplete.
  AERROR List(const std::string& folder, std::vector<RemoteItem>& items);
  AERROR Info(const std::string& id, RemoteItem& item);
  /// Hands over bytes in ascending order, from the start again after a retry within the plug-in.
  AERROR Fetch(const std::string& id, int64_t offset, int64_t length, const Transfer& transfer,
               const std::function<void(int64_t, std::span<const char>)>& receive);
  /// Sends `item.size` bytes that `read` supplies (bytes written, 0 at the end, negative to stop)
  /// to the item with `item.id`, or to a new one in `parent` when that is empty. The read-back
  /// confirmed it only when `Confirmed` of the item says so.
  AERROR Upload(const std::string& parent, const Transfer& transfer,
                const std::function<int64_t(int64_t, std::span<char>)>& read, RemoteItem& item);
  AERROR MakeFolder(const std::string& parent, RemoteItem& item);
  AERROR Rename(const std::string& id, const std::string& name, RemoteItem& item);
  /// Also gives the item the name `item.name`.
  AERROR Move(const std::string& from, const std::string& to, RemoteItem item);
  AERROR Delete(RemoteItem item);
  AERROR SetModified(const std::string& id, const std::string& time, RemoteItem& item);
  /// The mail address of the account; empty when it is not known.
  std::string Account();
  AERROR Quota(uint64_t& total, uint64_t& used);
  /// Whether the service could be asked is not told.
  void Changes(IFileChanges& sink);

  /// Why the operation failed that this thread has just called, in words for the user.
  static std::string Why(AERROR code);

  /// Clears what a read-back fills in, so that Confirmed can tell whether there was one.
  static void Expect(RemoteItem& item) { item.time3.clear(); }
  static bool Confirmed(const RemoteItem& item) { return !item.id.empty() && !item.time3.empty(); }

  /// Requests begun since the start, and bytes moved.
  struct Traffic {
    std::atomic<int64_t> requests{0}, down{0}, up{0};
  };
  const Traffic& Counted() const { return traffic; }
  /// Grows with every sign of life of the service: a request that succeeded, bytes that arrived.
  int64_t Heard() const { return successes + traffic.down; }

 private:
  template <typename Operation>
  AERROR Call(Operation&& operation);

  IProtocol_V2& drive;
  Traffic traffic;
  std::atomic<int64_t> successes{0};
};

}  // namespace host::mount
