// What the mount knows about one file or folder.
#pragma once

#include <cstdint>
#include <string>

#include "plugin/fs_file.h"

namespace host::mount {

/// Number of an item on this mount: a row of the item table, never used twice.
using Inode = uint64_t;
inline constexpr Inode kRootInode = 1;

/// One entry of one folder. An item that the service shows in two folders is two of these with the
/// same Drive id.
///
/// The first group is what programs on the mount see, the second what the service last told. Where
/// they differ, a journal row says so and the upload queue is on its way to make them equal.
struct Item {
  Inode ino = 0;
  Inode parent = 0;
  std::string name;       ///< as shown; unique among the parent's items that are not deleted
  std::string driveName;  ///< what the service shall call it
  uint32_t attributes = 0;
  bool deleted = false;  ///< gone from the mount; kept until the service has followed
  int64_t size = 0;      ///< bytes
  int64_t mtime = 0;     ///< nanoseconds since 1970
  int64_t content = 0;   ///< row of the content table; 0: nothing is kept locally
  std::string inlineContent;

  std::string id;  ///< Drive id; empty until the service has the item
  std::string remoteName;
  std::string remoteParent;  ///< Drive id
  std::string remoteTime;    ///< the service's text
  int64_t remoteSize = 0;    ///< bytes
  std::string otherParents;  ///< Drive ids beside remoteParent, separated by blanks
  int64_t stamp = 0;         ///< when this host last changed it at the service: see State::Stamp

  int64_t listedAt = 0;  ///< folders: seconds since 1970 of the last complete listing; 0: never
  bool stale = false;    ///< folders: a change was reported since

  bool IsFolder() const { return (attributes & kFsFolder) != 0; }
  bool IsMadeUp() const { return (attributes & kFsSynthesised) != 0; }
  /// A folder that exists only in the plug-in; nothing can be put into it.
  bool IsVirtualFolder() const { return IsFolder() && IsMadeUp(); }
};

}  // namespace host::mount
