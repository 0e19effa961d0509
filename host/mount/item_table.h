// The items that the mount knows, in the profile's database.
//
// Not thread-safe: the mutex of State guards it. Throws DatabaseError.
#pragma once

#include <optional>
#include <vector>

#include "host/core/database.h"
#include "host/mount/item.h"

namespace host::mount {

class ItemTable {
 public:
  explicit ItemTable(Database& database);

  std::optional<Item> Find(Inode ino);
  /// Reads size and modification time again; leaves them alone when the item is gone.
  void ReadSize(Item& item);
  /// The item that a folder shows under a name; deleted ones are not found.
  std::optional<Item> FindChild(Inode parent, const std::string& name);
  /// All entries with a Drive id, deleted ones included.
  std::vector<Item> WithId(const std::string& id);
  /// In the order of their numbers, deleted ones only when asked for.
  std::vector<Item> Children(Inode parent, bool withDeleted = false);
  std::vector<Item> ChildFolders(Inode parent);
  /// Items that the service holds in a folder, wherever the mount shows them.
  std::vector<Item> HeldIn(const std::string& remoteParent);
  int64_t CountChildren(Inode parent);
  int64_t Count();

  /// Gives the item its number.
  void Insert(Item& item);
  void Update(const Item& item);
  void Erase(Inode ino);

  /// Marks every listed folder as perhaps outdated.
  void MarkAllStale();
  /// Numbers of items that were deleted and of which the journal knows nothing more.
  std::vector<Inode> DeletedAndSettled();

 private:
  std::vector<Item> All(Statement& statement);

  Database& database;
  Statement find, size, findChild, withId, children, childrenAll, childFolders, heldIn,
      countChildren, count, insert, update, erase, markStale, settled;
};

/// The steps that make the mount's tables; see Database::Migrate.
const std::vector<std::string>& MountSchema();

}  // namespace host::mount
