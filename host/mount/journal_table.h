// What this host owes the service: one row for every item that differs from it.
//
// A row is written in the same transaction as the change that it stands for and leaves only when
// the service has confirmed. What exactly is to be done is read from the item beside it: the row
// holds what the item cannot say.
//
// Not thread-safe: the mutex of State guards it. Throws DatabaseError.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/core/database.h"
#include "host/mount/item.h"

namespace host::mount {

struct JournalRow {
  Inode ino = 0;
  int64_t content = 0;     ///< content row to be sent, as close or fsync left it; 0: none
  int64_t generation = 0;  ///< grows with every commit of content
  bool editing = false;    ///< bytes were written that close or fsync has not returned for
  bool times = false;      ///< the modification time was set on purpose
  bool hasBase = false;    ///< the version that the local edit began from is known
  std::string baseTime{};
  int64_t baseSize = 0;
  Inode after = 0;  ///< nothing is done while that item still has a row

  /// An attempt to create or to send was begun and its answer never came: look before trying
  /// again. Empty name: content was sent to an item that exists.
  bool attempted = false;
  std::string attemptParent{}, attemptName{}, attemptHash{};
  std::string attemptTime{};  ///< the modification time that was last sent on purpose
  int64_t attemptSize = 0;
  int64_t attemptGeneration = 0;
  std::string movedTo{};  ///< folder of a move whose answer has not come

  int64_t since = 0;    ///< seconds since 1970
  int64_t tries = 0;    ///< failed ones since the last success
  std::string error{};  ///< why the last one failed
};

class JournalTable {
 public:
  explicit JournalTable(Database& database);

  std::optional<JournalRow> Find(Inode ino);
  bool Has(Inode ino);
  std::vector<JournalRow> All();
  int64_t Count();
  /// Bytes that the owed files have.
  int64_t BytesToSend();
  /// Names that were sent to a folder of the service in attempts without an answer.
  std::vector<std::string> AttemptedIn(const std::string& parentId);
  /// Another item than `ino` with such an attempt of that name; 0 when there is none.
  Inode OtherAttempt(Inode ino, const std::string& parentId, const std::string& name);
  /// An item that a request without an answer may have put into a folder of the service; 0 when
  /// there is none.
  Inode PerhapsIn(const std::string& parentId);
  /// Inserts or replaces.
  void Put(const JournalRow& row);
  void Erase(Inode ino);

 private:
  Statement find, has, all, count, bytesToSend, attempted, otherAttempt, perhapsIn, put, erase;
};

}  // namespace host::mount
