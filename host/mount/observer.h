// Who wants to know what changed behind the programs' backs: the kernel and the open files.
#pragma once

#include <string>
#include <vector>

#include "host/mount/item.h"

namespace host::mount {

struct Notice {
  enum Kind {
    kEntry,    ///< a name in a folder came, went or means another item
    kVersion,  ///< an item has other bytes or attributes
  };
  Kind kind = kEntry;
  Inode ino = 0;  ///< kEntry: the folder
  std::string name;
};
using Notices = std::vector<Notice>;

class Observer {
 public:
  /// Called without locks, from any thread. Must not wait for programs on the mount.
  virtual void Changed(const Notices& notices) = 0;

 protected:
  ~Observer() = default;
};

}  // namespace host::mount
