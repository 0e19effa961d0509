// Every request that was begun, for tests to count and for people to watch.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "emulator/drive_emulator.h"

namespace emulator {

/// Any thread.
class RequestJournal {
 public:
  /// `echo`: one line on stdout for each request that ends.
  explicit RequestJournal(bool echo) : echoing(echo) {}

  /// Counts a request; its entry goes back through End.
  JournalEntry Begin(const std::string& method, uint64_t connection, bool countsConnection);
  void End(JournalEntry entry);

  int Count(const std::string& method) const;
  /// By method; "*" or empty: all.
  std::vector<JournalEntry> Entries(const std::string& method = "*") const;
  int Connections() const;
  void Clear();

 private:
  const bool echoing;
  mutable std::mutex mutex;
  int64_t lastId = 0;
  std::map<std::string, int> counts;
  std::set<uint64_t> connections;
  std::deque<JournalEntry> ended;
  size_t bodyBytes = 0;    ///< of the entries that still have their bodies
  size_t withoutBody = 0;  ///< how many entries at the front have lost theirs
};

}  // namespace emulator
