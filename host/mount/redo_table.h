// Bytes of small files that a program has closed, until the files that hold them are on the disk.
//
// One sync of the database's log then makes a close safe; the files themselves are synced later,
// many together. What is still here at a start is written into its file again.
//
// Not thread-safe: the mutex of State guards it. Throws DatabaseError.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/core/database.h"

namespace host::mount {

struct RedoRow {
  int64_t number = 0;   ///< ascending
  int64_t content = 0;  ///< row of the content table; the row here goes with it
};

class RedoTable {
 public:
  explicit RedoTable(Database& database);

  /// Replaces what was there of the content.
  void Put(int64_t content, const std::string& bytes);
  bool Has(int64_t content);
  std::vector<RedoRow> All();
  std::string Bytes(int64_t content);
  void Erase(int64_t content);
  /// Erases the rows with numbers up to `number`.
  void EraseUpTo(int64_t number);

 private:
  Statement put, all, bytes, erase, eraseUpTo;
};

}  // namespace host::mount
