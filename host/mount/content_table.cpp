#include "host/mount/content_table.h"

namespace host::mount {
namespace {

constexpr char kSelect[] =
    "SELECT content, ino, id, time, size, dirty, present, bytes, used FROM mount_contents ";

ContentRow ReadRow(const Statement& row) {
  ContentRow result;
  result.content = row.Integer(0);
  result.ino = static_cast<Inode>(row.Integer(1));
  result.id = row.Text(2);
  result.time = row.Text(3);
  result.size = row.Integer(4);
  result.dirty = row.Integer(5) != 0;
  result.present = row.Text(6);
  result.bytes = row.Integer(7);
  result.used = row.Integer(8);
  return result;
}

void BindRow(Statement& statement, const ContentRow& row) {
  statement.Bind(1, static_cast<int64_t>(row.ino))
      .Bind(2, row.id)
      .Bind(3, row.time)
      .Bind(4, row.size)
      .Bind(5, static_cast<int64_t>(row.dirty))
      .BindBlob(6, row.present)
      .Bind(7, row.bytes)
      .Bind(8, row.used);
}

std::vector<int64_t> All(Statement& statement) {
  std::vector<int64_t> found;
  while (statement.Step()) found.push_back(statement.Integer(0));
  statement.Reset();
  return found;
}

int64_t Number(Statement& statement) {
  statement.Step();
  const int64_t value = statement.Integer(0);
  statement.Reset();
  return value;
}

}  // namespace

ContentTable::ContentTable(Database& owner)
    : database(owner),
      find(owner.Prepare(std::string(kSelect) + "WHERE content = ?1")),
      insert(owner.Prepare("INSERT INTO mount_contents (ino, id, time, size, dirty, present, "
                           "bytes, used) VALUES (?1,?2,?3,?4,?5,?6,?7,?8)")),
      update(owner.Prepare("UPDATE mount_contents SET ino=?1, id=?2, time=?3, size=?4, dirty=?5, "
                           "present=?6, bytes=?7, used=?8 WHERE content=?9")),
      erase(owner.Prepare("DELETE FROM mount_contents WHERE content = ?1")),
      numbers(owner.Prepare("SELECT content FROM mount_contents")),
      orphans(owner.Prepare(
          "SELECT content FROM mount_contents WHERE content NOT IN (SELECT content FROM "
          "mount_items) AND content NOT IN (SELECT content FROM mount_journal)")),
      cleanBytes(
          owner.Prepare("SELECT coalesce(sum(bytes), 0) FROM mount_contents WHERE dirty = 0")),
      evictable(owner.Prepare(std::string(kSelect) +
                              "WHERE dirty = 0 AND ino NOT IN (SELECT ino FROM mount_pins) "
                              "ORDER BY used LIMIT ?1")) {}

std::optional<ContentRow> ContentTable::Find(int64_t content) {
  std::optional<ContentRow> row;
  if (find.Bind(1, content).Step()) row = ReadRow(find);
  find.Reset();
  return row;
}

void ContentTable::Insert(ContentRow& row) {
  BindRow(insert, row);
  insert.Run();
  row.content = database.LastRowId();
}

void ContentTable::Update(const ContentRow& row) {
  BindRow(update, row);
  update.Bind(9, row.content).Run();
}

void ContentTable::Erase(int64_t content) { erase.Bind(1, content).Run(); }

std::vector<int64_t> ContentTable::Numbers() { return All(numbers); }

std::vector<int64_t> ContentTable::Orphans() { return All(orphans); }

int64_t ContentTable::CleanBytes() { return Number(cleanBytes); }

std::vector<ContentRow> ContentTable::Evictable(int limit) {
  std::vector<ContentRow> rows;
  evictable.Bind(1, static_cast<int64_t>(limit));
  while (evictable.Step()) rows.push_back(ReadRow(evictable));
  evictable.Reset();
  return rows;
}

}  // namespace host::mount
