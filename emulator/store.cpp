#include "emulator/store.h"

#include <utility>

#include "emulator/ids.h"
#include "emulator/store_schema.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr int64_t kUsualQuota = 15LL << 30;

User ReadUser(const Statement& row) {
  User user;
  user.n = row.Int(0);
  user.email = row.Text(1);
  user.name = row.Text(2);
  user.quota = row.Int(3);
  user.used = row.Int(4);
  user.root = row.Int(5);
  user.rootId = row.Text(6);
  user.permissionId = row.Text(7);
  return user;
}

}  // namespace

Store::Store(const std::string& file, ContentStore& contentStore)
    : contents(contentStore), database(file) {
  database.Script(
      "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA temp_store=MEMORY;"
      "PRAGMA cache_size=-200000;");
  database.Script(kSchema);
  database.Script(kMakeItemIndexes);
}

Store::Work::Work(Store& owner)
    : store(owner), lock(owner.mutex), exceptions(std::uncaught_exceptions()) {
  if (store.depth++ == 0) store.database.Run("BEGIN");
}

Store::Work::~Work() noexcept(false) {
  if (--store.depth > 0) return;
  const Changed news = std::exchange(store.changed, {});
  const std::vector<int64_t> dead = std::exchange(store.deadBlobs, {});
  if (std::uncaught_exceptions() > exceptions) {
    store.database.Run("ROLLBACK");
    return;
  }
  store.database.Run("COMMIT");
  for (const int64_t blob : dead) store.contents.Remove(blob);
  if (store.listener && (!news.users.empty() || !news.items.empty())) {
    store.listener(news);
  }
}

void Store::Fill(const std::function<void()>& fill) {
  const auto work = Begin();
  database.Script(kDropItemIndexes);
  fill();
  database.Script(kMakeItemIndexes);
}

User Store::AddUser(const std::string& email, const std::string& name, const std::string& rootId) {
  const auto work = Begin();
  if (const auto known = UserNamed(email)) return *known;
  const uint64_t key = HashText(email);
  database.Run("INSERT INTO users(email, name, quota, permission) VALUES(?, ?, ?, ?)", email, name,
               kUsualQuota, std::to_string(key | 1ULL << 63));
  Item root;
  root.id = rootId.empty() ? RootFolderId(key) : rootId;
  root.name = "My Drive";
  root.owner = database.LastRow();
  root = AddRoot(root);
  database.Run("UPDATE users SET root = ?, rootId = ? WHERE n = ?", root.n, root.id, root.owner);
  return UserNumbered(root.owner);
}

Item Store::AddRoot(Item item) {
  item.mimeType = kFolderType;
  item.root = true;
  item.created = item.modified = NowMilliseconds();
  item.modifier = item.owner;
  Insert(item);
  return item;
}

std::optional<User> Store::UserNamed(const std::string& email) {
  const auto work = Begin();
  Statement row = database.Query(
      "SELECT n, email, name, quota, used, root, rootId, permission FROM users WHERE email = ?",
      email);
  if (!row.Step()) return std::nullopt;
  return ReadUser(row);
}

User Store::UserNumbered(int64_t n) {
  const auto work = Begin();
  Statement row = database.Query(
      "SELECT n, email, name, quota, used, root, rootId, permission FROM users WHERE n = ?", n);
  return row.Step() ? ReadUser(row) : User{};
}

void Store::SetQuota(int64_t user, int64_t bytes) {
  const auto work = Begin();
  database.Run("UPDATE users SET quota = ? WHERE n = ?", bytes, user);
}

void Store::ChargeQuota(int64_t user, int64_t bytes) {
  if (user == 0 || bytes == 0) return;
  database.Run("UPDATE users SET used = used + ? WHERE n = ?", bytes, user);
}

int64_t Store::LastChange() {
  const auto work = Begin();
  // The sequence itself, not the greatest row: entries that are superseded disappear.
  return database.Number("SELECT seq FROM sqlite_sequence WHERE name = 'changes'", 0);
}

std::vector<Change> Store::Changes(int64_t user, int64_t from, int64_t limit) {
  const auto work = Begin();
  Statement row = database.Query(
      "SELECT seq, item, removed, ofDrive, drive, time FROM changes"
      " WHERE user = ? AND seq >= ? ORDER BY seq LIMIT ?",
      user, from, limit);
  std::vector<Change> found;
  while (row.Step()) {
    found.push_back(
        {row.Int(0), row.Text(1), row.Int(2) != 0, row.Int(3) != 0, row.Int(4), row.Int(5)});
  }
  return found;
}

void Store::LogFor(int64_t user, const Item& item, bool removed, bool ofDrive) {
  database.Run(
      "INSERT OR REPLACE INTO changes(user, item, removed, ofDrive, drive, time)"
      " VALUES(?, ?, ?, ?, ?, ?)",
      user, item.id, removed, ofDrive, item.drive, NowMilliseconds());
  changed.users.insert(user);
  changed.items.insert(item.id);
}

void Store::Log(const Item& item, bool ofDrive) {
  for (const int64_t user : Audience(item)) LogFor(user, item, false, ofDrive);
}

void Store::LogRemoval(const Item& item, const std::set<int64_t>& users, bool ofDrive) {
  for (const int64_t user : users) LogFor(user, item, true, ofDrive);
}

int64_t Store::NewBlob() {
  const auto work = Begin();
  database.Run("INSERT INTO blobs(shares, synthetic, seed) VALUES(0, 0, 0)");
  return database.LastRow();
}

int64_t Store::NewSyntheticBlob(uint64_t seed) {
  const auto work = Begin();
  database.Run("INSERT INTO blobs(shares, synthetic, seed) VALUES(0, 1, ?)",
               static_cast<int64_t>(seed));
  return database.LastRow();
}

void Store::DropBlob(int64_t blob) {
  if (blob == 0) return;
  database.Run("UPDATE blobs SET shares = shares - 1 WHERE n = ?", blob);
  database.Run("DELETE FROM blobs WHERE n = ? AND shares <= 0", blob);
  if (database.Changed() > 0) deadBlobs.push_back(blob);
}

std::shared_ptr<ContentSource> Store::Open(const Item& item) {
  if (!item.HasContent()) return nullptr;
  if (item.blob == 0) return ContentStore::Synthetic(0);  // empty: never read
  const auto work = Begin();
  Statement row = database.Query("SELECT synthetic, seed FROM blobs WHERE n = ?", item.blob);
  if (!row.Step()) return nullptr;
  if (row.Int(0) != 0) return ContentStore::Synthetic(static_cast<uint64_t>(row.Int(1)));
  return contents.Open(item.blob);
}

std::string Store::Md5(const Item& item) {
  if (!item.HasContent() || !item.md5.empty()) return item.md5;
  const auto source = Open(item);
  if (!source) return "";
  std::string md5 = Md5Of(*source, item.size);
  const auto work = Begin();
  database.Run("UPDATE items SET md5 = ? WHERE n = ? AND blob = ?", md5, item.n, item.blob);
  return md5;
}

}  // namespace emulator
