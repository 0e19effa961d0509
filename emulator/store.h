// Users, files, folders, permissions and the change log, in one SQLite database.
//
// Any thread may call it; each public function is atomic, and a Work object makes several calls one
// transaction. A function that takes an item takes it as it stands in the store.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "emulator/content_store.h"
#include "emulator/item.h"
#include "emulator/sql.h"

namespace emulator {

struct User {
  int64_t n = 0;
  std::string email, name;
  int64_t quota = 0, used = 0;  ///< bytes
  int64_t root = 0;             ///< item number of "My Drive"
  std::string rootId;
  std::string permissionId;
};

/// One entry of an item's access list. The owner's entry is not stored.
struct Grant {
  std::string permissionId;
  int64_t user = 0;  ///< 0: not a known user
  std::string type;  ///< "user", "group", "domain" or "anyone"
  std::string role;
  std::string email;  ///< or domain
  bool inherited = false;
  int64_t time = 0;
};

struct Change {
  int64_t seq = 0;
  std::string itemId;
  bool removed = false;
  bool ofDrive = false;  ///< the team drive itself changed, not a file in it
  int64_t drive = 0;
  int64_t time = 0;
};

/// What one transaction changed, told once it is committed.
struct Changed {
  std::set<int64_t> users;  ///< whose change log grew
  std::set<std::string> items;
};

class Store {
 public:
  using Listener = std::function<void(const Changed&)>;

  /// `contents` must outlive the store. Throws SqlError.
  Store(const std::string& file, ContentStore& contents);

  /// Holds the store for this thread; commits at the end, or rolls back when an exception passes.
  /// May be nested.
  class Work {
   public:
    explicit Work(Store& owner);
    ~Work() noexcept(false);
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

   private:
    Store& store;
    std::unique_lock<std::recursive_mutex> lock;
    int exceptions;
  };
  Work Begin() { return Work(*this); }
  /// Called after each commit that changed something, with the store held. Set before use.
  void SetListener(Listener told) { listener = std::move(told); }
  /// For queries; only while a Work is held.
  Database& Sql() { return database; }

  // Users.
  User AddUser(const std::string& email, const std::string& name, const std::string& rootId = "");
  std::optional<User> UserNamed(const std::string& email);
  User UserNumbered(int64_t n);
  void SetQuota(int64_t user, int64_t bytes);

  // Items.
  std::optional<Item> Find(const std::string& id);
  std::optional<Item> Numbered(int64_t n);
  int64_t Count();
  /// Inserts an item below `parent`; fills in number, id (when empty), drive, trash and version.
  Item Add(Item item, const Item& parent);
  /// `count` empty files "PREFIX0", ... below `parent`, without change-log entries. Ids are derived
  /// from `key`.
  void AddMany(const Item& parent, int64_t count, const std::string& prefix, uint64_t key);
  /// Calls `fill`, in which AddMany alone may be called, and goes fast where very many are added.
  void Fill(const std::function<void()>& fill);
  /// Stores changed members (name, type, times, starred, extra) and logs the change.
  void Save(Item& item);
  /// Replaces the content by a blob that this item now owns a share of.
  void SetContent(Item& item, int64_t blob, int64_t size, const std::string& md5);
  /// Throws ApiError when a parent lies below the item.
  void SetParents(Item& item, const std::vector<Item>& parents);
  void SetTrashed(Item& item, bool trashed);
  /// For good, with everything that lies only below it.
  void Remove(const Item& item);
  std::vector<Item> Parents(const Item& item);
  /// By age; only those that are not in the trash unless `trashed`.
  std::vector<Item> Children(int64_t parent, bool trashed = false);
  /// The item's MD5, computed now when it was not yet needed.
  std::string Md5(const Item& item);

  // Contents.
  int64_t NewBlob();
  int64_t NewSyntheticBlob(uint64_t seed);
  std::shared_ptr<ContentSource> Open(const Item& item);
  ContentStore& Contents() { return contents; }

  // Access.
  Role RoleOf(int64_t user, const Item& item);
  std::vector<Grant> Grants(const Item& item);
  /// Adds or changes an entry, for the item and what lies below it.
  void Share(const Item& item, const Grant& grant);
  /// False when there is no such entry.
  bool Unshare(const Item& item, const std::string& permissionId);
  /// The entry that `user` was given on this very item; none when it is only inherited.
  std::optional<Grant> DirectGrant(int64_t user, int64_t item);

  // Team drives.
  Item AddDrive(const std::string& name, int64_t organizer, const std::string& id = "");
  /// Those that `user` is a member of, by age, after number `after`.
  std::vector<Item> Drives(int64_t user, int64_t after, int64_t limit);
  void RemoveDrive(const Item& root);

  // Change log.
  int64_t LastChange();
  std::vector<Change> Changes(int64_t user, int64_t from, int64_t limit);

  /// Reads an item from a row whose columns begin with ItemColumns().
  static Item ReadItem(const Statement& row, int first = 0);
  static const std::string& ItemColumns();

 private:
  Item AddRoot(Item item);
  void Insert(Item& item);
  void UpdateRow(const Item& item);
  void Link(const Item& parent, Item& item);
  std::vector<int64_t> Below(int64_t n);
  void DropBlob(int64_t blob);
  void ChargeQuota(int64_t user, int64_t bytes);
  std::set<int64_t> Audience(const Item& item);
  void InheritAccess(int64_t item);
  void RefreshBelow(const Item& item, const std::set<int64_t>& audienceBefore);
  void Log(const Item& item, bool ofDrive = false);
  void LogRemoval(const Item& item, const std::set<int64_t>& users, bool ofDrive = false);
  void LogFor(int64_t user, const Item& item, bool removed, bool ofDrive);

  ContentStore& contents;
  Database database;
  std::recursive_mutex mutex;
  int depth = 0;    ///< nested Work objects
  Changed changed;  ///< of the running transaction
  std::vector<int64_t> deadBlobs;
  Listener listener;
};

}  // namespace emulator
