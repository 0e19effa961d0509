#include "host/mount/item_table.h"

namespace host::mount {
namespace {

constexpr char kColumns[] =
    "ino, parent, name, driveName, attributes, deleted, size, mtime, content, inlineContent, id, "
    "remoteName, remoteParent, remoteTime, remoteSize, otherParents, stamp, listedAt, stale";

std::string Select(const std::string& rest) {
  return std::string("SELECT ") + kColumns + " FROM mount_items " + rest;
}

Item ReadRow(const Statement& row) {
  Item item;
  int column = 0;
  item.ino = static_cast<Inode>(row.Integer(column++));
  item.parent = static_cast<Inode>(row.Integer(column++));
  item.name = row.Text(column++);
  item.driveName = row.Text(column++);
  item.attributes = static_cast<uint32_t>(row.Integer(column++));
  item.deleted = row.Integer(column++) != 0;
  item.size = row.Integer(column++);
  item.mtime = row.Integer(column++);
  item.content = row.Integer(column++);
  item.inlineContent = row.Text(column++);
  item.id = row.Text(column++);
  item.remoteName = row.Text(column++);
  item.remoteParent = row.Text(column++);
  item.remoteTime = row.Text(column++);
  item.remoteSize = row.Integer(column++);
  item.otherParents = row.Text(column++);
  item.stamp = row.Integer(column++);
  item.listedAt = row.Integer(column++);
  item.stale = row.Integer(column++) != 0;
  return item;
}

/// Binds all columns but the number, from position 1 on; returns the next position.
int BindRow(Statement& statement, const Item& item) {
  int at = 1;
  statement.Bind(at++, static_cast<int64_t>(item.parent));
  statement.Bind(at++, item.name);
  statement.Bind(at++, item.driveName);
  statement.Bind(at++, static_cast<int64_t>(item.attributes));
  statement.Bind(at++, static_cast<int64_t>(item.deleted));
  statement.Bind(at++, item.size);
  statement.Bind(at++, item.mtime);
  statement.Bind(at++, item.content);
  statement.Bind(at++, item.inlineContent);
  statement.Bind(at++, item.id);
  statement.Bind(at++, item.remoteName);
  statement.Bind(at++, item.remoteParent);
  statement.Bind(at++, item.remoteTime);
  statement.Bind(at++, item.remoteSize);
  statement.Bind(at++, item.otherParents);
  statement.Bind(at++, item.stamp);
  statement.Bind(at++, item.listedAt);
  statement.Bind(at++, static_cast<int64_t>(item.stale));
  return at;
}

std::optional<Item> One(Statement& statement) {
  std::optional<Item> item;
  if (statement.Step()) item = ReadRow(statement);
  statement.Reset();
  return item;
}

}  // namespace

ItemTable::ItemTable(Database& owner)
    : database(owner),
      find(owner.Prepare(Select("WHERE ino = ?1"))),
      size(owner.Prepare("SELECT size, mtime FROM mount_items WHERE ino = ?1")),
      findChild(owner.Prepare(Select("WHERE parent = ?1 AND name = ?2 AND deleted = 0"))),
      withId(owner.Prepare(Select("WHERE id = ?1 AND id <> ''"))),
      children(owner.Prepare(Select("WHERE parent = ?1 AND deleted = 0 ORDER BY ino"))),
      childrenAll(owner.Prepare(Select("WHERE parent = ?1 ORDER BY ino"))),
      childFolders(owner.Prepare(Select("WHERE parent = ?1 AND deleted = 0 AND attributes & " +
                                        std::to_string(kFsFolder) + " <> 0 ORDER BY ino"))),
      heldIn(owner.Prepare(Select("WHERE remoteParent = ?1 AND remoteParent <> ''"))),
      countChildren(
          owner.Prepare("SELECT count(*) FROM mount_items WHERE parent = ?1 AND deleted = 0")),
      count(owner.Prepare("SELECT count(*) FROM mount_items")),
      insert(owner.Prepare(
          "INSERT INTO mount_items (parent, name, driveName, attributes, deleted, size, mtime, "
          "content, inlineContent, id, remoteName, remoteParent, remoteTime, remoteSize, "
          "otherParents, stamp, listedAt, stale) "
          "VALUES (?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14,?15,?16,?17,?18)")),
      update(owner.Prepare(
          "UPDATE mount_items SET parent=?1, name=?2, driveName=?3, attributes=?4, deleted=?5, "
          "size=?6, mtime=?7, content=?8, inlineContent=?9, id=?10, remoteName=?11, "
          "remoteParent=?12, remoteTime=?13, remoteSize=?14, otherParents=?15, stamp=?16, "
          "listedAt=?17, stale=?18 WHERE ino=?19")),
      erase(owner.Prepare("DELETE FROM mount_items WHERE ino = ?1")),
      markStale(owner.Prepare("UPDATE mount_items SET stale = 1 WHERE listedAt > 0")),
      settled(owner.Prepare("SELECT ino FROM mount_items WHERE deleted = 1 AND ino NOT IN "
                            "(SELECT ino FROM mount_journal)")) {}

std::vector<Item> ItemTable::All(Statement& statement) {
  std::vector<Item> items;
  while (statement.Step()) items.push_back(ReadRow(statement));
  statement.Reset();
  return items;
}

std::optional<Item> ItemTable::Find(Inode ino) {
  return One(find.Bind(1, static_cast<int64_t>(ino)));
}

void ItemTable::ReadSize(Item& item) {
  if (size.Bind(1, static_cast<int64_t>(item.ino)).Step()) {
    item.size = size.Integer(0);
    item.mtime = size.Integer(1);
  }
  size.Reset();
}

std::optional<Item> ItemTable::FindChild(Inode parent, const std::string& name) {
  return One(findChild.Bind(1, static_cast<int64_t>(parent)).Bind(2, name));
}

std::vector<Item> ItemTable::WithId(const std::string& id) { return All(withId.Bind(1, id)); }

std::vector<Item> ItemTable::Children(Inode parent, bool withDeleted) {
  Statement& statement = withDeleted ? childrenAll : children;
  return All(statement.Bind(1, static_cast<int64_t>(parent)));
}

std::vector<Item> ItemTable::ChildFolders(Inode parent) {
  return All(childFolders.Bind(1, static_cast<int64_t>(parent)));
}

std::vector<Item> ItemTable::HeldIn(const std::string& remoteParent) {
  return All(heldIn.Bind(1, remoteParent));
}

int64_t ItemTable::CountChildren(Inode parent) {
  countChildren.Bind(1, static_cast<int64_t>(parent)).Step();
  const int64_t found = countChildren.Integer(0);
  countChildren.Reset();
  return found;
}

int64_t ItemTable::Count() {
  count.Step();
  const int64_t found = count.Integer(0);
  count.Reset();
  return found;
}

void ItemTable::Insert(Item& item) {
  BindRow(insert, item);
  insert.Run();
  item.ino = static_cast<Inode>(database.LastRowId());
}

void ItemTable::Update(const Item& item) {
  const int next = BindRow(update, item);
  update.Bind(next, static_cast<int64_t>(item.ino)).Run();
}

void ItemTable::Erase(Inode ino) { erase.Bind(1, static_cast<int64_t>(ino)).Run(); }

void ItemTable::MarkAllStale() { markStale.Run(); }

std::vector<Inode> ItemTable::DeletedAndSettled() {
  std::vector<Inode> found;
  while (settled.Step()) found.push_back(static_cast<Inode>(settled.Integer(0)));
  settled.Reset();
  return found;
}

}  // namespace host::mount
