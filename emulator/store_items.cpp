#include <algorithm>

#include "emulator/api_error.h"
#include "emulator/ids.h"
#include "emulator/store.h"
#include "emulator/times.h"

namespace emulator {

namespace {

// MD5 of nothing.
constexpr char kEmptyMd5[] = "d41d8cd98f00b204e9800998ecf8427e";

constexpr char kInsert[] =
    "INSERT INTO items(id, name, mime, owner, drive, parents, created, modified, modifier, size,"
    " blob, md5, version, contentVersion, trashed, trashedTime, starred, shared, root, extra)"
    " VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

Statement& BindItem(Statement& statement, const Item& item) {
  statement.Bind(item.id).Bind(item.name).Bind(item.mimeType).Bind(item.owner).Bind(item.drive);
  statement.Bind(item.parents).Bind(item.created).Bind(item.modified).Bind(item.modifier);
  statement.Bind(item.size).Bind(item.blob).Bind(item.md5).Bind(item.version);
  statement.Bind(item.contentVersion).Bind(item.trashed).Bind(item.trashedTime);
  return statement.Bind(item.starred).Bind(item.shared).Bind(item.root).Bind(item.extra);
}

}  // namespace

const std::string& Store::ItemColumns() {
  static const std::string columns =
      "i.n, i.id, i.name, i.mime, i.owner, i.drive, i.parents, i.created, i.modified, i.modifier,"
      " i.size, i.blob, i.md5, i.version, i.contentVersion, i.trashed, i.trashedTime, i.starred,"
      " i.shared, i.root, i.extra";
  return columns;
}

Item Store::ReadItem(const Statement& row, int first) {
  Item item;
  int column = first;
  item.n = row.Int(column++);
  item.id = row.Text(column++);
  item.name = row.Text(column++);
  item.mimeType = row.Text(column++);
  item.owner = row.Int(column++);
  item.drive = row.Int(column++);
  item.parents = row.Text(column++);
  item.created = row.Int(column++);
  item.modified = row.Int(column++);
  item.modifier = row.Int(column++);
  item.size = row.Int(column++);
  item.blob = row.Int(column++);
  item.md5 = row.Text(column++);
  item.version = row.Int(column++);
  item.contentVersion = row.Int(column++);
  item.trashed = static_cast<int>(row.Int(column++));
  item.trashedTime = row.Int(column++);
  item.starred = row.Int(column++) != 0;
  item.shared = row.Int(column++) != 0;
  item.root = row.Int(column++) != 0;
  item.extra = row.Text(column++);
  return item;
}

std::optional<Item> Store::Find(const std::string& id) {
  static const std::string sql = "SELECT " + ItemColumns() + " FROM items i WHERE i.id = ?";
  const auto work = Begin();
  Statement row = database.Query(sql, id);
  if (!row.Step()) return std::nullopt;
  return ReadItem(row);
}

std::optional<Item> Store::Numbered(int64_t n) {
  static const std::string sql = "SELECT " + ItemColumns() + " FROM items i WHERE i.n = ?";
  const auto work = Begin();
  Statement row = database.Query(sql, n);
  if (!row.Step()) return std::nullopt;
  return ReadItem(row);
}

int64_t Store::Count() {
  const auto work = Begin();
  return database.Number("SELECT count(*) FROM items", 0);
}

void Store::Insert(Item& item) {
  Statement statement = database.Query(kInsert);
  BindItem(statement, item).Run();
  item.n = database.LastRow();
}

void Store::UpdateRow(const Item& item) {
  Statement statement = database.Query(
      "UPDATE items SET id = ?, name = ?, mime = ?, owner = ?, drive = ?, parents = ?, created = ?,"
      " modified = ?, modifier = ?, size = ?, blob = ?, md5 = ?, version = ?, contentVersion = ?,"
      " trashed = ?, trashedTime = ?, starred = ?, shared = ?, root = ?, extra = ? WHERE n = ?");
  BindItem(statement, item).Bind(item.n).Run();
}

void Store::Link(const Item& parent, Item& item) {
  database.Run("INSERT OR IGNORE INTO edges(parent, child) VALUES(?, ?)", parent.n, item.n);
  if (!item.parents.empty()) item.parents += ' ';
  item.parents += parent.id;
}

Item Store::Add(Item item, const Item& parent) {
  const auto work = Begin();
  if (item.id.empty()) item.id = FileId(RandomKey());
  const int64_t now = NowMilliseconds();
  if (item.created == 0) item.created = now;
  if (item.modified == 0) item.modified = now;
  item.drive = parent.drive;
  if (item.drive != 0) item.owner = 0;
  item.shared = item.drive != 0;
  item.trashed = parent.trashed != kNotTrashed ? kInTrashedFolder : kNotTrashed;
  if (item.HasContent() && item.blob == 0) item.md5 = kEmptyMd5;
  item.parents = parent.id;
  Insert(item);
  database.Run("INSERT INTO edges(parent, child) VALUES(?, ?)", parent.n, item.n);
  if (item.blob != 0) {
    database.Run("UPDATE blobs SET shares = shares + 1 WHERE n = ?", item.blob);
  }
  if (item.HasContent()) ChargeQuota(item.owner, item.size);
  if (parent.shared && item.drive == 0) InheritAccess(item.n);
  item = *Numbered(item.n);
  Log(item);
  return item;
}

void Store::AddMany(const Item& parent, int64_t count, const std::string& prefix, uint64_t key) {
  const auto work = Begin();
  Item item;
  item.owner = parent.drive != 0 ? 0 : parent.owner;
  item.drive = parent.drive;
  item.shared = parent.drive != 0;
  item.parents = parent.id;
  item.created = item.modified = parent.modified;
  item.modifier = parent.modifier;
  item.mimeType = TypeOfName(prefix);
  item.size = 0;
  item.md5 = kEmptyMd5;
  Statement insert = database.Query(kInsert);
  Statement link = database.Query("INSERT INTO edges(parent, child) VALUES(?, ?)");
  for (int64_t i = 0; i < count; ++i) {
    item.id = FileId(key + static_cast<uint64_t>(i));
    item.name = prefix + std::to_string(i);
    BindItem(insert, item).Run();
    insert.Reset();
    const int64_t n = database.LastRow();
    link.Bind(parent.n).Bind(n).Run();
    link.Reset();
    if (parent.shared && parent.drive == 0) InheritAccess(n);
  }
}

void Store::Save(Item& item) {
  const auto work = Begin();
  ++item.version;
  UpdateRow(item);
  Log(item);
}

void Store::SetContent(Item& item, int64_t blob, int64_t size, const std::string& md5) {
  const auto work = Begin();
  if (blob != 0) database.Run("UPDATE blobs SET shares = shares + 1 WHERE n = ?", blob);
  DropBlob(item.blob);
  ChargeQuota(item.owner, size - (item.HasContent() ? item.size : 0));
  item.blob = blob;
  item.size = size;
  item.md5 = blob == 0 ? kEmptyMd5 : md5;
  ++item.contentVersion;
  Save(item);
}

std::vector<int64_t> Store::Below(int64_t n) {
  Statement row = database.Query(
      "WITH RECURSIVE below(n) AS (SELECT child FROM edges WHERE parent = ?"
      " UNION SELECT e.child FROM below b JOIN edges e ON e.parent = b.n) SELECT n FROM below",
      n);
  std::vector<int64_t> found;
  while (row.Step()) found.push_back(row.Int(0));
  return found;
}

std::vector<Item> Store::Parents(const Item& item) {
  const auto work = Begin();
  std::vector<Item> found;
  for (const std::string& id : item.ParentIds()) {
    if (auto parent = Find(id)) found.push_back(std::move(*parent));
  }
  return found;
}

std::vector<Item> Store::Children(int64_t parent, bool trashed) {
  static const std::string sql = "SELECT " + ItemColumns() +
                                 " FROM edges e JOIN items i ON i.n = e.child"
                                 " WHERE e.parent = ? AND (? OR i.trashed = 0) ORDER BY e.child";
  const auto work = Begin();
  Statement row = database.Query(sql, parent, trashed);
  std::vector<Item> found;
  while (row.Step()) found.push_back(ReadItem(row));
  return found;
}

void Store::SetParents(Item& item, const std::vector<Item>& parents) {
  const auto work = Begin();
  const std::set<int64_t> before = Audience(item);
  const std::vector<int64_t> below = Below(item.n);
  for (const Item& parent : parents) {
    const bool inside = std::find(below.begin(), below.end(), parent.n) != below.end();
    if (parent.n == item.n || inside) {
      throw Forbidden("cyclicParent", "A folder cannot be placed below itself.");
    }
  }
  for (const Item& parent : Parents(item)) {
    database.Run("DELETE FROM edges WHERE parent = ? AND child = ?", parent.n, item.n);
  }
  item.parents.clear();
  for (const Item& parent : parents) Link(parent, item);
  const int64_t drive = parents.empty() ? 0 : parents.front().drive;
  if (drive != item.drive) {
    database.Run("UPDATE items SET drive = ?, owner = ? WHERE n = ?", drive,
                 drive != 0 ? 0 : item.modifier, item.n);
    for (const int64_t n : below) {
      database.Run("UPDATE items SET drive = ?, owner = ? WHERE n = ?", drive,
                   drive != 0 ? 0 : item.modifier, n);
    }
    item.drive = drive;
    item.owner = drive != 0 ? 0 : item.modifier;
  }
  Save(item);
  RefreshBelow(item, before);
  item = *Numbered(item.n);
}

void Store::SetTrashed(Item& item, bool trashed) {
  const auto work = Begin();
  item.trashedTime = trashed ? NowMilliseconds() : 0;
  item.trashed = trashed ? kTrashedItself : kNotTrashed;
  for (const Item& parent : Parents(item)) {
    if (!trashed && parent.trashed != kNotTrashed) item.trashed = kInTrashedFolder;
  }
  Save(item);
  // What was thrown away by itself before stays so, with what lies below it.
  Statement row = database.Query(
      "WITH RECURSIVE below(n) AS ("
      "SELECT e.child FROM edges e JOIN items i ON i.n = e.child"
      " WHERE e.parent = ? AND i.trashed <> 2 UNION "
      "SELECT e.child FROM below b JOIN edges e ON e.parent = b.n JOIN items i ON i.n = e.child"
      " WHERE i.trashed <> 2) SELECT n FROM below",
      item.n);
  std::vector<int64_t> below;
  while (row.Step()) below.push_back(row.Int(0));
  for (const int64_t n : below) {
    Item child = *Numbered(n);
    child.trashed = item.trashed != kNotTrashed ? kInTrashedFolder : kNotTrashed;
    Save(child);
  }
}

void Store::Remove(const Item& item) {
  const auto work = Begin();
  std::vector<Item> doomed{item};
  for (size_t i = 0; i < doomed.size(); ++i) {
    const Item dying = doomed[i];
    LogRemoval(dying, Audience(dying));
    for (Item& child : Children(dying.n, true)) {
      std::vector<Item> others;
      for (Item& parent : Parents(child)) {
        if (parent.n != dying.n) others.push_back(std::move(parent));
      }
      if (others.empty()) {
        doomed.push_back(std::move(child));
      } else {
        SetParents(child, others);
      }
    }
    for (const Item& parent : Parents(dying)) {
      database.Run("DELETE FROM edges WHERE parent = ? AND child = ?", parent.n, dying.n);
    }
    database.Run("DELETE FROM edges WHERE parent = ?", dying.n);
    database.Run("DELETE FROM grants WHERE item = ?", dying.n);
    database.Run("DELETE FROM items WHERE n = ?", dying.n);
    if (dying.HasContent()) ChargeQuota(dying.owner, -dying.size);
    DropBlob(dying.blob);
  }
}

}  // namespace emulator
