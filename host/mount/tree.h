// The folder tree as programs see it: looking, and changing names.
//
// A change is made in the tables, together with the journal row that stands for it, and is done;
// the upload queue brings it to the service afterwards. So `git` and `rm -r` run at the speed of
// the local disk, and what is made and unmade within a moment never reaches the network.
//
// Thread-safe. Functions return 0 or a positive errno, and none is called with the mutex of State
// held.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/mount/folder_cache.h"

namespace host::mount {

class Tree {
 public:
  /// `owed`: called without locks after a journal row was written or changed.
  Tree(State& itsState, FolderCache& itsFolders, ContentStore& itsStore,
       const Settings& itsSettings, std::function<void(Inode)> itsOwed)
      : state(itsState),
        folders(itsFolders),
        store(itsStore),
        settings(itsSettings),
        owed(std::move(itsOwed)) {}

  int Get(Inode ino, Item& item);
  int Lookup(Inode parent, const std::string& name, Item& item);
  int List(Inode folder, std::vector<Item>& items);

  int MakeFolder(Inode parent, const std::string& name, Item& item);
  /// An empty file that is not owed to the service before its first close.
  int MakeFile(Inode parent, const std::string& name, Item& item);
  int RemoveFile(Inode parent, const std::string& name);
  int RemoveFolder(Inode parent, const std::string& name);
  /// `flags` as of renameat2.
  int Rename(Inode from, const std::string& name, Inode to, const std::string& newName,
             unsigned flags);
  int SetTime(Inode ino, int64_t nanoseconds);

  static bool IsWritable(const Item& parent, const Settings& settings);

 private:
  int CheckPlace(Inode parent, const std::string& name);
  int Make(Inode parent, const std::string& name, uint32_t attributes, Item& item);
  int Remove(Inode parent, const std::string& name, bool folder);
  int RenameLocked(Item source, std::optional<Item> target, Inode to, const std::string& newName,
                   std::vector<Inode>& changed);
  int CheckTarget(const Item& source, const std::optional<Item>& target);
  bool TakeIdentity(Item& source, Item& target);
  void MarkDeleted(Item item, Inode after);
  void Touch(Inode folder);
  bool IsBelow(Inode ino, Inode ancestor);

  State& state;
  FolderCache& folders;
  ContentStore& store;
  const Settings& settings;
  std::function<void(Inode)> owed;
};

}  // namespace host::mount
