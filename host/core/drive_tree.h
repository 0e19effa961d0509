// Paths of the drive and the items that they lead to.
//
// A path is a list of names from the drive's top, separated by '/'. In a name, "\/" stands for a
// slash and "\\" for a backslash. A path may begin with "id:ID" instead of at the top. Names are
// not unique in a drive's folder: a path that leads to several items is refused, with their ids.
// Nothing is remembered between calls; operations may be called from several threads at once.
#pragma once

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "host/core/item.h"
#include "host/core/session.h"

namespace host {

struct DrivePath {
  std::string startId;  ///< empty: the drive's top
  std::vector<std::string> names;

  static DrivePath Parse(const std::string& text);
  /// As a user would type it, escaped where needed.
  std::string Text() const;
  DrivePath Parent() const;
  DrivePath Child(const std::string& name) const;
};

/// Where something is or could be: an existing folder and a name in it.
struct Place {
  Item folder;
  std::string name;
  std::optional<Item> existing;
};

class DriveTree {
 public:
  explicit DriveTree(Session& openSession) : session(openSession) {}

  /// The item at a path; `parent_id` is the folder it was found in. Throws Failure when there is
  /// none or when the path is ambiguous.
  Item Find(const DrivePath& path);
  /// The same, but nothing when the last name is not there.
  std::optional<Item> FindIfThere(const DrivePath& path);
  /// The folder at a path. Throws Failure when the item is something else.
  Item FindFolder(const DrivePath& path);
  /// The folder that holds, or would hold, the last name of a path. Throws Failure when the path
  /// has no last name or the folder is not there.
  Place FindPlace(const DrivePath& path);

  /// The children of a folder by name, then id. `path` is for messages. Throws Failure.
  std::vector<Item> Children(const Item& folder, const DrivePath& path);
  /// Everything below an item, `depth` folders deep, folders listed several at once.
  Branch Walk(const Item& top, const DrivePath& path, int depth = std::numeric_limits<int>::max());

 private:
  Item Start(const DrivePath& path);
  Item Get(const std::string& id, const std::string& shown);
  std::optional<Item> Step(const Item& folder, const DrivePath& at, const std::string& name);

  Session& session;
};

/// True when a name holds a wildcard character.
bool IsPattern(const std::string& name);
/// Shell-style matching with *, ? and [...]; a leading dot is nothing special.
bool Matches(const std::string& pattern, const std::string& name);

}  // namespace host
