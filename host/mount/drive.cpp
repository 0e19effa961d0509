#include "host/mount/drive.h"

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
constexpr int64_t kQuotaAgeSeconds = 60;

}  // namespace

void ChangeRelay::SetReceiver(std::function<void(const std::string&)> function) {
  std::lock_guard lock(mutex);
  receiver = std::move(function);
}

void ChangeRelay::Changed(const char* folderId) {
  std::lock_guard lock(mutex);
  if (receiver && folderId != nullptr) receiver(folderId);
}

Drive::Drive(IProtocol_V2& protocol, ChangeRelay& changes, const std::filesystem::path& database,
             const std::filesystem::path& contents, const std::string& rootId, Settings given)
    : settings(given),
      state(database),
      remote(protocol),
      store(state, contents, settings.cacheLimit),
      listPool(kListThreads, kListAheadThreads),
      fetchPool(kFetchThreads, kReadAheadThreads),
      folders(state, remote, store, listPool, settings),
      reader(remote, fetchPool, settings.patience),
      settler(state, remote, store, folders, settings),
      queue(state, settler, settings),
      tree(state, folders, store, settings, [this](Inode ino) { queue.Changed(ino); }),
      files(state, tree, store, reader, queue, settings),
      relay(changes) {
  Recover(state, store);
  TakeRoot(rootId);
  folders.SetObserver(this);
  std::lock_guard lock(state.mutex);
  quota.total = std::strtoull(state.Value("quota.total").c_str(), nullptr, 10);
  quota.used = std::strtoull(state.Value("quota.used").c_str(), nullptr, 10);
}

Drive::~Drive() { Stop(); }

void Drive::TakeRoot(const std::string& rootId) {
  std::lock_guard lock(state.mutex);
  std::optional<Item> root = state.items.Find(kRootInode);
  if (root && (rootId.empty() || root->id == rootId)) return;
  if (!root && rootId.empty())
    throw Failure("cannot mount: the service has never been reached",
                  "check the network; the first mount needs it");
  if (root && state.journal.Count() > 0)
    throw Failure("cannot mount: the drive's top folder is another one now, and " +
                      std::to_string(state.journal.Count()) +
                      " changes for the old one are not uploaded",
                  "set show_shared and use_team_drive back and run `vormlane drain` first");
  state.Change([&] {
    if (root)
      state.database.Run(
          "DELETE FROM mount_items; DELETE FROM mount_pins;"
          "DELETE FROM sqlite_sequence WHERE name = 'mount_items'");
    Item item;
    item.attributes = kFsFolder | (rootId == "virtual_root" ? kFsSynthesised : 0u);
    item.id = rootId;
    item.mtime = NowNanoseconds();
    state.items.Insert(item);
  });
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
  for (const ContentPtr& content : store.Live()) content->AbandonAll();
  listPool.Stop();
  fetchPool.Stop();
  if (follower.joinable()) follower.join();
  if (housekeeper.joinable()) housekeeper.join();
}

void Drive::Changed(const Notices& notices) {
  for (const Notice& notice : notices)
    if (notice.kind == Notice::kVersion) files.Outdated(notice.ino);
  queue.TakeUp();
  if (Observer* kernel = observer) kernel->Changed(notices);
}

void Drive::Poll() { remote.Changes(relay); }

bool Drive::Connected() {
  std::lock_guard lock(mutex);
  return connected;
}

void Drive::Follow(std::function<bool()> connect) {
  int64_t quotaAt = 0;
  std::unique_lock lock(mutex);
  while (!stopping) {
    if (!connected) {
      lock.unlock();
      const bool reached = connect();
      lock.lock();
      connected = reached;
      if (reached) queue.Hurry();
      if (!reached) wake.wait_for(lock, kReconnect, [this] { return stopping; });
      continue;
    }
    lock.unlock();
    Poll();
    if (NowSeconds() - quotaAt >= kQuotaAgeSeconds) {
      AskQuota();
      quotaAt = NowSeconds();
    }
    lock.lock();
    wake.wait_for(lock, settings.poll, [this] { return stopping; });
  }
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
    const bool fetch = std::exchange(pinsChanged, false);
    lock.unlock();
    try {
      store.SaveMaps();
      store.MakeRoom();
      if (fetch) FetchPinned();
    } catch (const std::exception&) {
      // The disk refuses for now; nothing that is done here is needed at once.
    }
    lock.lock();
    wake.wait_for(lock, kHousekeeping, [this] { return stopping; });
  }
}

int Drive::Pin(Inode ino, bool pinned) {
  Item item;
  if (const int error = tree.Get(ino, item)) return error;
  {
    std::lock_guard lock(state.mutex);
    state.Change([&] { state.Pin(ino, pinned); });
  }
  if (item.IsFolder()) {
    std::vector<Item> below;
    if (const int error = tree.List(ino, below)) return error;
    for (const Item& child : below)
      if (const int error = Pin(child.ino, pinned)) return error;
  }
  std::lock_guard lock(mutex);
  pinsChanged = true;
  return 0;
}

void Drive::FetchPinned() {
  std::vector<Inode> pins;
  {
    std::lock_guard lock(state.mutex);
    pins = state.Pins();
  }
  for (const Inode ino : pins) {
    Item item;
    {
      std::lock_guard lock(mutex);
      if (stopping) return;
    }
    if (tree.Get(ino, item) == 0 && !item.IsFolder() && !item.IsMadeUp()) files.Keep(ino);
  }
}

}  // namespace host::mount
