// Which bytes of which version of which file lie on the local disk.
//
// Not thread-safe: the mutex of State guards it. Throws DatabaseError.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/core/database.h"
#include "host/mount/item.h"

namespace host::mount {

struct ContentRow {
  int64_t content = 0;  ///< number of the file that holds the bytes
  Inode ino = 0;
  /// The version of the service's file that the bytes belong to; without meaning while dirty.
  std::string id{}, time{};
  int64_t size = 0;       ///< bytes
  bool dirty = false;     ///< holds local changes: complete, and never evicted
  std::string present{};  ///< one bit for every page that is there; see PageMap
  int64_t bytes = 0;      ///< bytes that are there
  int64_t used = 0;       ///< seconds since 1970 of the last use
};

class ContentTable {
 public:
  explicit ContentTable(Database& database);

  std::optional<ContentRow> Find(int64_t content);
  void Insert(ContentRow& row);
  void Update(const ContentRow& row);
  void Erase(int64_t content);
  std::vector<int64_t> Numbers();
  /// Contents that neither an item nor the journal speaks of.
  std::vector<int64_t> Orphans();
  /// Bytes of all clean contents.
  int64_t CleanBytes();
  /// Clean contents that are not pinned, the one unused for longest first.
  std::vector<ContentRow> Evictable(int limit);

 private:
  Database& database;
  Statement find, insert, update, erase, numbers, orphans, cleanBytes, evictable;
};

}  // namespace host::mount
