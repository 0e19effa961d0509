#include "host/mount/redo_table.h"

namespace host::mount {

RedoTable::RedoTable(Database& owner)
    : put(owner.Prepare("INSERT OR REPLACE INTO mount_redo (content, bytes) VALUES (?1, ?2)")),
      all(owner.Prepare("SELECT number, content FROM mount_redo ORDER BY number")),
      bytes(owner.Prepare("SELECT bytes FROM mount_redo WHERE content = ?1")),
      erase(owner.Prepare("DELETE FROM mount_redo WHERE content = ?1")),
      eraseUpTo(owner.Prepare("DELETE FROM mount_redo WHERE number <= ?1")) {}

void RedoTable::Put(int64_t content, const std::string& text) {
  put.Bind(1, content).BindBlob(2, text).Run();
}

bool RedoTable::Has(int64_t content) {
  const bool found = bytes.Bind(1, content).Step();
  bytes.Reset();
  return found;
}

std::vector<RedoRow> RedoTable::All() {
  std::vector<RedoRow> rows;
  while (all.Step()) rows.push_back({all.Integer(0), all.Integer(1)});
  all.Reset();
  return rows;
}

std::string RedoTable::Bytes(int64_t content) {
  std::string text;
  if (bytes.Bind(1, content).Step()) text = bytes.Text(0);
  bytes.Reset();
  return text;
}

void RedoTable::Erase(int64_t content) { erase.Bind(1, content).Run(); }

void RedoTable::EraseUpTo(int64_t number) { eraseUpTo.Bind(1, number).Run(); }

}  // namespace host::mount
