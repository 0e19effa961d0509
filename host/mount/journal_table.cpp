#include "host/mount/journal_table.h"

namespace host::mount {
namespace {

constexpr char kColumns[] =
    "ino, content, generation, editing, times, hasBase, baseTime, baseSize, after, attempted, "
    "attemptParent, attemptName, attemptHash, attemptSize, attemptGeneration, since, tries, error, "
    "attemptTime, movedTo";

std::string Select(const std::string& rest) {
  return std::string("SELECT ") + kColumns + " FROM mount_journal " + rest;
}

JournalRow ReadRow(const Statement& row) {
  JournalRow result;
  int column = 0;
  result.ino = static_cast<Inode>(row.Integer(column++));
  result.content = row.Integer(column++);
  result.generation = row.Integer(column++);
  result.editing = row.Integer(column++) != 0;
  result.times = row.Integer(column++) != 0;
  result.hasBase = row.Integer(column++) != 0;
  result.baseTime = row.Text(column++);
  result.baseSize = row.Integer(column++);
  result.after = static_cast<Inode>(row.Integer(column++));
  result.attempted = row.Integer(column++) != 0;
  result.attemptParent = row.Text(column++);
  result.attemptName = row.Text(column++);
  result.attemptHash = row.Text(column++);
  result.attemptSize = row.Integer(column++);
  result.attemptGeneration = row.Integer(column++);
  result.since = row.Integer(column++);
  result.tries = row.Integer(column++);
  result.error = row.Text(column++);
  result.attemptTime = row.Text(column++);
  result.movedTo = row.Text(column++);
  return result;
}

int64_t Number(Statement& statement) {
  statement.Step();
  const int64_t number = statement.Integer(0);
  statement.Reset();
  return number;
}

}  // namespace

JournalTable::JournalTable(Database& database)
    : find(database.Prepare(Select("WHERE ino = ?1"))),
      has(database.Prepare("SELECT 1 FROM mount_journal WHERE ino = ?1")),
      all(database.Prepare(Select("ORDER BY since, ino"))),
      count(database.Prepare("SELECT count(*) FROM mount_journal")),
      bytesToSend(database.Prepare("SELECT coalesce(sum(i.size), 0) FROM mount_journal j JOIN "
                                   "mount_items i ON i.ino = j.ino WHERE j.content <> 0")),
      attempted(database.Prepare("SELECT attemptName FROM mount_journal WHERE attempted = 1 AND "
                                 "attemptParent = ?1")),
      otherAttempt(database.Prepare("SELECT ino FROM mount_journal WHERE attempted = 1 AND "
                                    "attemptParent = ?1 AND attemptName = ?2 AND ino <> ?3")),
      perhapsIn(database.Prepare(
          "SELECT ino FROM mount_journal WHERE attempted = 1 AND attemptParent = ?1 UNION ALL "
          "SELECT ino FROM mount_journal WHERE movedTo <> '' AND movedTo = ?1")),
      put(database.Prepare(std::string("INSERT OR REPLACE INTO mount_journal (") + kColumns +
                           ") VALUES (?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14,?15,?16,"
                           "?17,?18,?19,?20)")),
      erase(database.Prepare("DELETE FROM mount_journal WHERE ino = ?1")) {}

std::optional<JournalRow> JournalTable::Find(Inode ino) {
  std::optional<JournalRow> row;
  if (find.Bind(1, static_cast<int64_t>(ino)).Step()) row = ReadRow(find);
  find.Reset();
  return row;
}

bool JournalTable::Has(Inode ino) {
  const bool found = has.Bind(1, static_cast<int64_t>(ino)).Step();
  has.Reset();
  return found;
}

std::vector<JournalRow> JournalTable::All() {
  std::vector<JournalRow> rows;
  while (all.Step()) rows.push_back(ReadRow(all));
  all.Reset();
  return rows;
}

int64_t JournalTable::Count() { return Number(count); }

int64_t JournalTable::BytesToSend() { return Number(bytesToSend); }

std::vector<std::string> JournalTable::AttemptedIn(const std::string& parentId) {
  std::vector<std::string> names;
  attempted.Bind(1, parentId);
  while (attempted.Step()) names.push_back(attempted.Text(0));
  attempted.Reset();
  return names;
}

Inode JournalTable::OtherAttempt(Inode ino, const std::string& parentId, const std::string& name) {
  otherAttempt.Bind(1, parentId);
  otherAttempt.Bind(2, name);
  otherAttempt.Bind(3, static_cast<int64_t>(ino));
  const Inode found = otherAttempt.Step() ? static_cast<Inode>(otherAttempt.Integer(0)) : Inode{0};
  otherAttempt.Reset();
  return found;
}

Inode JournalTable::PerhapsIn(const std::string& parentId) {
  perhapsIn.Bind(1, parentId);
  const Inode found = perhapsIn.Step() ? static_cast<Inode>(perhapsIn.Integer(0)) : Inode{0};
  perhapsIn.Reset();
  return found;
}

void JournalTable::Put(const JournalRow& row) {
  int at = 1;
  put.Bind(at++, static_cast<int64_t>(row.ino));
  put.Bind(at++, row.content);
  put.Bind(at++, row.generation);
  put.Bind(at++, static_cast<int64_t>(row.editing));
  put.Bind(at++, static_cast<int64_t>(row.times));
  put.Bind(at++, static_cast<int64_t>(row.hasBase));
  put.Bind(at++, row.baseTime);
  put.Bind(at++, row.baseSize);
  put.Bind(at++, static_cast<int64_t>(row.after));
  put.Bind(at++, static_cast<int64_t>(row.attempted));
  put.Bind(at++, row.attemptParent);
  put.Bind(at++, row.attemptName);
  put.BindBlob(at++, row.attemptHash);
  put.Bind(at++, row.attemptSize);
  put.Bind(at++, row.attemptGeneration);
  put.Bind(at++, row.since);
  put.Bind(at++, row.tries);
  put.Bind(at++, row.error);
  put.Bind(at++, row.attemptTime);
  put.Bind(at++, row.movedTo);
  put.Run();
}

void JournalTable::Erase(Inode ino) { erase.Bind(1, static_cast<int64_t>(ino)).Run(); }

}  // namespace host::mount
