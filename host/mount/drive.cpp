#include "host/mount/drive.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "host/mount/recovery.h"

namespace host::mount {
namespace {

constexpr int kListThreads = 24;
constexpr int kListAheadThreads = 16;
constexpr int kFetchThreads = 32;
constexpr int kReadAheadThreads = 20;
constexpr Milliseconds kHousekeeping{2000};
constexpr Milliseconds kReconnect{5000};
constexpr std::chrono::seconds kQuotaAge{60};
constexpr std::chrono::seconds kProbeAge{60};

/// Whose drive the tables are about.
constexpr char kAccountKey[] = "account";

[[noreturn]] void ThrowOwed(const std::string& account, int64_t changes) {
  const std::string left = std::to_string(changes) + (changes == 1 ? " change" : " changes");
  if (account.empty())
    throw Failure("cannot mount: the drive's top folder is another one now, and " + left +
                      " for the old one are not uploaded",
                  "set show_shared and use_team_drive back and run `vormlane drain` first");
  throw Failure("cannot mount: another account is signed in now, and " + left + " for " + account +
                    " are not uploaded",
                "sign in as that one and run `vormlane drain` first, or use another --profile");
}

/// What a full disk refuses now is not needed at once, and must not keep the rest from being done:
/// some of it makes room.
template <typename Step>
void Attempt(Step&& step) {
  try {
    step();
  } catch (const std::exception&) {
    // The next housekeeping tries again.
  }
}

}  // namespace

void ChangeRelay::SetReceiver(std::function<void(const std::string&)> function) {
  std::lock_guard lock(mutex);
  receiver = std::move(function);
}

void ChangeRelay::Changed(const char* folderId) {
  std::lock_guard lock(mutex);
  try {
    if (receiver && folderId != nullptr) receiver(folderId);
  } catch (const std::exception&) {
    // The disk refuses to note it; the folder is listed again when its time is over.
  }
}

Drive::Drive(IProtocol_V2& protocol, ChangeRelay& changes, const std::filesystem::path& database,
             const std::filesystem::path& contents, const std::string& rootId, Settings given)
    : settings(given),
      state(database),
      remote(protocol),
      patience(remote, settings.patience),
      store(state, contents, settings.cacheLimit),
      listPool(kListThreads, kListAheadThreads),
      fetchPool(kFetchThreads, kReadAheadThreads),
      folders(state, remote, store, listPool, patience, settings),
      reader(remote, fetchPool, patience),
      settler(state, remote, store, folders, settings),
      queue(state, settler, settings),
      traffic(remote, state, store, queue),
      tree(state, folders, store, settings, [this](Inode ino) { queue.Changed(ino); }),
      files(state, tree, store, reader, queue, settings),
      relay(changes) {
  Recover(state, store);
  TakeRoot(rootId);
  folders.SetObserver(this);
  std::lock_guard lock(state.mutex);
  quota.total = std::strtoull(state.Value("quota.total").c_str(), nullptr, 10);
  quota.used = std::strtoull(state.Value("quota.used").c_str(), nullptr, 10);
  for (const Inode ino : state.Pins()) toKeep.insert(ino);
}

Drive::~Drive() { Stop(); }

void Drive::TakeRoot(const std::string& rootId) {
  const std::string account = rootId.empty() ? "" : remote.Account();
  std::lock_guard lock(state.mutex);
  const std::string known = state.Value(kAccountKey);
  const bool another = !account.empty() && !known.empty() && account != known;
  std::optional<Item> root = state.items.Find(kRootInode);
  const bool same = root && (rootId.empty() || (root->id == rootId && !another));
  if (!root && rootId.empty()) throw NeverReached();
  if (root && !same && state.journal.Count() > 0)
    ThrowOwed(another ? known : "", state.journal.Count());
  state.Change([&] {
    if (!account.empty()) state.SetValue(kAccountKey, account);
    if (!same) BeginAnewLocked(rootId, root.has_value());
  });
}

void Drive::BeginAnewLocked(const std::string& rootId, bool known) {
  if (known) {
    state.database.Run(
        "DELETE FROM mount_items; DELETE FROM mount_pins;"
        "DELETE FROM sqlite_sequence WHERE name = 'mount_items'");
    for (const int64_t content : state.contents.Orphans()) store.Remove(content);
  }
  Item item;
  item.attributes = kFsFolder | (rootId == "virtual_root" ? kFsSynthesised : 0u);
  item.id = rootId;
  item.mtime = NowNanoseconds();
  state.items.Insert(item);
}

bool Drive::IsOwnAccount() {
  const std::string account = remote.Account();
  std::lock_guard lock(state.mutex);
  const std::string known = state.Value(kAccountKey);
  return account.empty() || known.empty() || account == known;
}

void Drive::Start(std::function<bool()> connect) {
  connected = !connect;
  relay.SetReceiver([this](const std::string& folder) { folders.ReportChange(folder); });
  if (!settings.readOnly) queue.Start();
  follower = std::thread([this, connect] { Follow(connect); });
  housekeeper = std::thread([this] { Housekeep(); });
}

void Drive::Stop() {
  {
    std::lock_guard lock(mutex);
    stopping = true;
  }
  wake.notify_all();
  relay.SetReceiver(nullptr);
  queue.Stop();
  for (const ContentPtr& content : store.Live()) content->AbandonFetches();
  listPool.Stop();
  fetchPool.Stop();
  if (follower.joinable()) follower.join();
  if (housekeeper.joinable()) housekeeper.join();
}

void Drive::Changed(const Notices& notices) {
  for (const Notice& notice : notices)
    if (notice.kind == Notice::kVersion) files.Outdated(notice.ino);
  queue.TakeUp();
  NotePinned(notices);
  if (Observer* kernel = observer) kernel->Changed(notices);
}

/// What came to be, or came to be another version, where something is pinned.
void Drive::NotePinned(const Notices& notices) {
  std::vector<Inode> pinned;
  {
    std::lock_guard held(state.mutex);
    for (const Notice& notice : notices) {
      if (!state.IsPinned(notice.ino)) continue;
      const bool entry = notice.kind == Notice::kEntry;
      const std::optional<Item> item =
          entry ? state.items.FindChild(notice.ino, notice.name) : state.items.Find(notice.ino);
      if (item) pinned.push_back(item->ino);
    }
  }
  std::lock_guard lock(mutex);
  toKeep.insert(pinned.begin(), pinned.end());
}

bool Drive::Connected() {
  std::lock_guard lock(mutex);
  return connected && reachable && !patience.IsSilent();
}

void Drive::Follow(std::function<bool()> connect) {
  std::unique_lock lock(mutex);
  for (bool first = true; !stopping; first = false) {
    const bool missed = !first && (!connected || !reachable);
    lock.unlock();
    const bool joined = !connect || connect();
    const Clock::time_point begun = Clock::now();
    if (joined) Poll();
    const bool reached = joined && IsReached();
    // What is found is seen some requests later: they are a part of the time between two polls.
    const Milliseconds requests = std::chrono::ceil<Milliseconds>(Clock::now() - begun) * 4;
    const Milliseconds pause = std::max(settings.poll - requests, settings.poll / 2);
    // What failed for want of a network is not to wait for its turn.
    if (reached && missed) queue.Hurry();
    lock.lock();
    connected = joined;
    reachable = reached;
    wake.wait_for(lock, joined ? pause : kReconnect, [this] { return stopping; });
  }
}

/// Whether the service answers. A poll does not tell; so a record is asked for when nothing else
/// was heard of the service, now and then while all is well and with every poll while it is not.
bool Drive::IsReached() {
  const int64_t now = remote.Heard();
  const bool quiet = std::exchange(heard, now) == now;
  if (quiet && (!Connected() || Clock::now() >= probeDue)) {
    RemoteItem record;
    const std::string id = IdToAskFor();
    if (!id.empty() && remote.Info(id, record) != AERROR::SUCCESS) return false;
    probeDue = Clock::now() + kProbeAge;
  } else if (!quiet) {
    probeDue = Clock::now() + kProbeAge;
  }
  if (Clock::now() >= quotaDue) {
    quotaDue = Clock::now() + kQuotaAge;
    try {
      AskQuota();
    } catch (const std::exception&) {
      // The disk refuses to remember it.
    }
  }
  return true;
}

/// A folder that the service has for certain; empty while none is known.
std::string Drive::IdToAskFor() {
  std::lock_guard lock(state.mutex);
  std::optional<Item> root = state.items.Find(kRootInode);
  if (root && !root->IsVirtualFolder()) return root->id;
  for (const Item& item : state.items.Children(kRootInode))
    if (item.IsFolder() && !item.IsVirtualFolder()) return item.id;
  return "";
}

void Drive::AskQuota() {
  Quota asked;
  if (remote.Quota(asked.total, asked.used) != AERROR::SUCCESS || asked.total == 0) return;
  {
    std::lock_guard lock(mutex);
    quota = asked;
  }
  std::lock_guard lock(state.mutex);
  state.Change([&] {
    state.SetValue("quota.total", std::to_string(asked.total));
    state.SetValue("quota.used", std::to_string(asked.used));
  });
}

Drive::Quota Drive::RememberedQuota() {
  std::lock_guard lock(mutex);
  return quota;
}

void Drive::Housekeep() {
  std::unique_lock lock(mutex);
  while (!stopping) {
    keepNow = false;
    lock.unlock();
    traffic.Measure();
    Attempt([&] { files.RetryRefused(); });
    Attempt([&] { store.HardenAll(); });
    state.SyncIfAwaited();
    Attempt([&] { state.CarryOver(); });
    Attempt([&] { store.SaveMaps(); });
    Attempt([&] { store.MakeRoom(); });
    if (Connected()) Attempt([&] { FetchPinned(); });
    lock.lock();
    wake.wait_for(lock, kHousekeeping, [this] { return stopping || keepNow; });
  }
}

int Drive::Pin(Inode ino, bool pinned) {
  {
    std::lock_guard held(state.mutex);
    const std::optional<Item> item = state.items.Find(ino);
    if (!item || item->deleted) return ENOENT;
    state.Change([&] { pinned ? state.Pin(ino, true) : Unpin(*item); });
  }
  {
    std::lock_guard lock(mutex);
    if (pinned) toKeep.insert(ino);
    keepNow = true;
  }
  wake.notify_all();
  return 0;
}

void Drive::Unpin(const Item& item) {
  state.Pin(item.ino, false);
  if (!item.IsFolder()) return;
  for (const Item& child : state.items.Children(item.ino)) Unpin(child);
}

int Drive::PinBelow(Inode folder) {
  std::vector<Item> below;
  if (const int error = tree.List(folder, below)) return error;
  for (const Item& child : below) Pin(child.ino, true);
  return 0;
}

/// Fetches what is pinned and not there. What cannot be had now is tried again with the next
/// housekeeping.
void Drive::FetchPinned() {
  std::set<Inode> wanted;
  {
    std::lock_guard lock(mutex);
    wanted.swap(toKeep);
  }
  for (const Inode ino : wanted) {
    Item item;
    bool pinned = false;
    {
      std::lock_guard lock(state.mutex);
      pinned = state.IsPinned(ino);
    }
    if (!pinned || tree.Get(ino, item) != 0) continue;
    if (item.IsMadeUp() && !item.IsFolder()) continue;
    const int error = item.IsFolder() ? PinBelow(ino) : files.Keep(ino);
    std::lock_guard lock(mutex);
    if (stopping) return;
    if (error != 0) toKeep.insert(ino);
  }
}

}  // namespace host::mount
