// The files that hold contents, and the room they may take.
//
// Clean contents can be fetched again: the ones unused for longest give way when the limit is
// passed. Dirty ones are somebody's work and are removed only when the journal is done with them.
//
// Thread-safe. Functions that say so are called with the mutex of State held, the others without.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "host/mount/content.h"
#include "host/mount/state.h"

namespace host::mount {

class ContentStore {
 public:
  /// Makes the directory; `limit` in bytes, for clean contents.
  ContentStore(State& state, std::filesystem::path directory, int64_t limit);
  /// Saves all maps.
  ~ContentStore();

  /// State held. The content of a row, with the map the row tells. Throws Failure when the file
  /// cannot be opened; a clean one that is missing is begun anew.
  ContentPtr Open(const ContentRow& row);
  /// State held. A new row and its empty file; the row's `content` is set.
  ContentPtr Create(ContentRow& row);
  /// State held. Forgets the row; the file goes when that is on the disk and nobody has it open.
  void Remove(int64_t content);
  /// State held. The item's content if it is of the version the item shows, or dirty; else null,
  /// and what was outdated is removed.
  ContentPtr Current(Item& item);

  /// Writes changed maps to the database, after the bytes they speak of.
  void SaveMaps();
  /// Waits until the names of all files are on the disk. False when the disk refuses.
  bool SyncDirectory();
  /// Waits until the content and its name are on the disk: 0 or a positive errno.
  int Harden(Content& content);
  /// Brings the files whose bytes still are in the redo table to the disk.
  void HardenAll();
  /// Writes what the redo table holds into the files. Before anything is opened; throws Failure.
  void Redo();
  /// Removes clean contents until they fit into the limit less `room` bytes.
  void MakeRoom(int64_t room = 0);
  /// Removes files that no row knows: leftovers of a killed host.
  void RemoveUnknown();

  /// Contents that somebody uses.
  std::vector<ContentPtr> Live();

  int64_t Limit() const { return limit; }
  const std::filesystem::path& Directory() const { return directory; }

 private:
  std::filesystem::path PathOf(int64_t content) const;
  ContentPtr OpenFile(const ContentRow& row) const;
  void Forget(int64_t content);
  void NoteUse(ContentRow& row);
  void Save(const ContentPtr& content);
  void RedoOne(int64_t content);
  void CloseIdle();

  State& state;
  const std::filesystem::path directory;
  const int64_t limit;
  std::mutex mutex;  // taken after the mutex of State
  /// In use, or with a map that is not saved yet.
  std::map<int64_t, ContentPtr> live;
};

}  // namespace host::mount
