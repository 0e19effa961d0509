// Bringing the items of a folder in line with what the service lists there.
//
// What programs on the mount changed and the service does not have yet wins over the listing; so
// does what this host did at the service after the listing began.
#pragma once

#include <map>
#include <set>

#include "host/mount/content_store.h"
#include "host/mount/forget.h"
#include "host/mount/remote.h"
#include "host/mount/settings.h"

namespace host::mount {

/// An item that is not where it was known to be, or below one.
struct Suspect {
  std::string id;
  std::string knownIn;  ///< the folder
};

/// Of the service, by id.
using Records = std::map<std::string, RemoteItem>;

class ListingMerge {
 public:
  /// `begun`: State::Stamp when the listing was asked for.
  ListingMerge(State& itsState, ContentStore& itsStore, const Settings& itsSettings,
               int64_t itsBegun)
      : state(itsState), store(itsStore), settings(itsSettings), begun(itsBegun) {}

  /// Items of the folder of which the listing says nothing. State held.
  std::set<Inode> Missing(Inode folder, const std::vector<RemoteItem>& listed);
  /// Those of `tops` that have work of programs in or below them, and what is between them and
  /// that work: others may have moved each of them away, so somebody should ask. State held.
  std::vector<Suspect> WithWork(const std::set<Inode>& tops);
  /// The same for those that are above this folder, or are it. State held.
  std::vector<Suspect> Above(const std::string& folderId, const std::set<Inode>& tops);
  /// State held. One transaction. Tells what programs can see of it. `elsewhere`: what the service
  /// says of suspects that are in another folder now.
  Notices Apply(Inode folder, const std::vector<RemoteItem>& listed, const Records& elsewhere = {});
  /// State held. One transaction. Takes one item out of a listing of the folder, no more.
  Notices ApplyOne(const std::string& folderId, const RemoteItem& record);
  /// State held, in a transaction. The service has this item no more.
  Notices Gone(const Item& item, const Records& elsewhere);
  /// State held, in a transaction. The item is in another folder now, as its record says. Into one
  /// that is not known here it cannot be followed: then it is brought back.
  Notices FollowMove(const Item& item, const RemoteItem& record);

 private:
  void AddWay(Inode from, const std::set<Inode>& tops, std::vector<Suspect>& suspects);
  void Take(const Item& folder, const RemoteItem& record);
  void Add(const Item& folder, const RemoteItem& record);
  bool IsBeingMoved(const Item& item);
  bool AdoptMoved(const Item& folder, const RemoteItem& record, const std::vector<Item>& holders);
  void Refresh(Item item, const RemoteItem& record);
  void TakeName(Item& item, const RemoteItem& record);
  void TakeVersion(Item& item, const RemoteItem& record);
  void RemoveMissing(const Item& folder, const Records& elsewhere);
  void Follow(Item item, const RemoteItem& record);
  void Remove(const Item& item, const Records& elsewhere);
  bool IsBelow(Item item, Inode above);

  State& state;
  ContentStore& store;
  const Settings& settings;
  const int64_t begun;
  std::set<std::string> seen;       // ids in the listing
  std::set<std::string> attempted;  // names that this host may just be making there
  bool uncertain = false;           // one of them was listed
  Notices notices;
};

bool HasParent(const RemoteItem& record, const std::string& id);

/// Separated by blanks.
std::string OtherParents(const RemoteItem& record, const std::string& parentId);

/// The item's own columns as a record says: what the service last told.
void FillRemote(Item& item, const RemoteItem& record, const std::string& parentId);

}  // namespace host::mount
