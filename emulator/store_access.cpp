#include <algorithm>

#include "emulator/store.h"
#include "emulator/times.h"

namespace emulator {

namespace {

Grant ReadGrant(const Statement& row) {
  Grant grant;
  grant.permissionId = row.Text(0);
  grant.user = row.Int(1);
  grant.type = row.Text(2);
  grant.role = row.Text(3);
  grant.email = row.Text(4);
  grant.inherited = row.Int(5) != 0;
  grant.time = row.Int(6);
  return grant;
}

}  // namespace

std::vector<Grant> Store::Grants(const Item& item) {
  const auto work = Begin();
  Statement row = database.Query(
      "SELECT permission, user, type, role, email, inherited, time FROM grants WHERE item = ?"
      " ORDER BY time, permission",
      item.drive != 0 ? item.drive : item.n);
  std::vector<Grant> found;
  while (row.Step()) found.push_back(ReadGrant(row));
  return found;
}

std::optional<Grant> Store::DirectGrant(int64_t user, int64_t item) {
  const auto work = Begin();
  Statement row = database.Query(
      "SELECT permission, user, type, role, email, inherited, time FROM grants"
      " WHERE user = ? AND item = ? AND inherited = 0",
      user, item);
  if (!row.Step()) return std::nullopt;
  return ReadGrant(row);
}

Role Store::RoleOf(int64_t user, const Item& item) {
  if (item.owner == user && item.drive == 0) return Role::kOwner;
  if (!item.shared) return Role::kNone;
  Role best = Role::kNone;
  for (const Grant& grant : Grants(item)) {
    if (grant.user == user || grant.type == "anyone") best = std::max(best, RoleNamed(grant.role));
  }
  return best;
}

std::set<int64_t> Store::Audience(const Item& item) {
  std::set<int64_t> users;
  if (item.drive == 0) users.insert(item.owner);
  if (!item.shared) return users;
  Statement row = database.Query("SELECT user FROM grants WHERE item = ? AND user <> 0",
                                 item.drive != 0 ? item.drive : item.n);
  while (row.Step()) users.insert(row.Int(0));
  return users;
}

void Store::InheritAccess(int64_t n) {
  const Item item = *Numbered(n);
  database.Run("DELETE FROM grants WHERE item = ? AND inherited = 1", n);
  if (item.drive == 0) {
    for (const Item& parent : Parents(item)) {
      database.Run(
          "INSERT OR IGNORE INTO grants(item, permission, user, type, role, email, inherited, time)"
          " SELECT ?, permission, user, type, role, email, 1, time FROM grants"
          " WHERE item = ? AND user <> ?",
          n, parent.n, item.owner);
      if (parent.owner == item.owner || parent.owner == 0) continue;
      // The owner of the folder can write what others put into it.
      const User owner = UserNumbered(parent.owner);
      database.Run("INSERT OR IGNORE INTO grants VALUES(?, ?, ?, 'user', 'writer', ?, 1, ?)", n,
                   owner.permissionId, owner.n, owner.email, item.created);
    }
  }
  database.Run(
      "UPDATE items SET shared = (drive <> 0 OR EXISTS(SELECT 1 FROM grants WHERE item = items.n))"
      " WHERE n = ?",
      n);
}

void Store::RefreshBelow(const Item& item, const std::set<int64_t>& audienceBefore) {
  std::vector<int64_t> numbers = Below(item.n);
  numbers.insert(numbers.begin(), item.n);
  for (const int64_t n : numbers) {
    InheritAccess(n);
    const Item refreshed = *Numbered(n);
    const std::set<int64_t> now = Audience(refreshed);
    std::set<int64_t> lost;
    std::set_difference(audienceBefore.begin(), audienceBefore.end(), now.begin(), now.end(),
                        std::inserter(lost, lost.end()));
    LogRemoval(refreshed, lost);
    for (const int64_t user : now) {
      if (audienceBefore.count(user) == 0) LogFor(user, refreshed, false, false);
    }
  }
}

void Store::Share(const Item& item, const Grant& grant) {
  const auto work = Begin();
  const std::set<int64_t> before = Audience(item);
  database.Run(
      "INSERT OR REPLACE INTO grants(item, permission, user, type, role, email, inherited, time)"
      " VALUES(?, ?, ?, ?, ?, ?, 0, ?)",
      item.n, grant.permissionId, grant.user, grant.type, grant.role, grant.email,
      grant.time != 0 ? grant.time : NowMilliseconds());
  RefreshBelow(item, before);
  Item saved = *Numbered(item.n);
  Save(saved);
  if (saved.drive == saved.n) Log(saved, true);
}

bool Store::Unshare(const Item& item, const std::string& permissionId) {
  const auto work = Begin();
  const std::set<int64_t> before = Audience(item);
  database.Run("DELETE FROM grants WHERE item = ? AND permission = ?", item.n, permissionId);
  if (database.Changed() == 0) return false;
  RefreshBelow(item, before);
  Item saved = *Numbered(item.n);
  Save(saved);
  return true;
}

Item Store::AddDrive(const std::string& name, int64_t organizer, const std::string& id) {
  const auto work = Begin();
  const User user = UserNumbered(organizer);
  Item root;
  root.id = id;
  root.name = name;
  root.shared = true;
  root = AddRoot(root);
  root.drive = root.n;
  UpdateRow(root);
  database.Run("INSERT INTO drives(item) VALUES(?)", root.n);
  database.Run("INSERT INTO grants VALUES(?, ?, ?, 'user', 'organizer', ?, 0, ?)", root.n,
               user.permissionId, user.n, user.email, root.created);
  Log(root, true);
  return root;
}

std::vector<Item> Store::Drives(int64_t user, int64_t after, int64_t limit) {
  static const std::string sql =
      "SELECT " + ItemColumns() +
      " FROM drives d JOIN items i ON i.n = d.item WHERE d.item > ?"
      " AND EXISTS(SELECT 1 FROM grants WHERE user = ? AND item = d.item)"
      " ORDER BY d.item LIMIT ?";
  const auto work = Begin();
  Statement row = database.Query(sql, after, user, limit);
  std::vector<Item> found;
  while (row.Step()) found.push_back(ReadItem(row));
  return found;
}

void Store::RemoveDrive(const Item& root) {
  const auto work = Begin();
  const std::set<int64_t> members = Audience(root);
  Remove(root);
  database.Run("DELETE FROM drives WHERE item = ?", root.n);
  LogRemoval(root, members, true);
}

}  // namespace emulator
