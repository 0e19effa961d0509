// A disk whose power can be cut: what was not synced is then gone, or was written in part.
//
// It is kept in the memory of a process of its own, so that nobody ever waits for it in vain: when
// either end dies, so does the mount.
#pragma once

#include <sys/types.h>

#include <filesystem>

#include "host/core/descriptor.h"
#include "host/core/paths.h"

namespace host::mount {

class ForgetfulDisk {
 public:
  /// Forks: to be made before any thread is started. `seed` chooses what is lost.
  explicit ForgetfulDisk(unsigned seed);
  ~ForgetfulDisk();
  ForgetfulDisk(const ForgetfulDisk&) = delete;
  ForgetfulDisk& operator=(const ForgetfulDisk&) = delete;

  bool Mounted() const { return mounted; }
  const std::filesystem::path& Path() const { return place.Path(); }

  /// Everything is on the platters when it returns. False when the disk does not answer.
  bool SyncAll() const { return Tell('s'); }
  /// The disk is back, with what was on the platters and a random part of the rest, when it
  /// returns. Descriptors of before are dead. False when the disk does not answer.
  bool CutPower() const { return Tell('c'); }

 private:
  bool Tell(char order) const;
  bool Answered() const;

  TemporaryDirectory place{"vormlane-disk-"};
  Descriptor line;
  pid_t process = -1;
  bool mounted = false;
};

}  // namespace host::mount
