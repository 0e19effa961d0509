// A file that appears under its name only when it is whole.
//
// Bytes go to a hidden file in the same folder; Commit makes them durable and renames it over the
// target. Without a Commit the target stays as it was and the hidden file is removed. One thread
// at a time. Errors are Failures naming the file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include "host/core/descriptor.h"

namespace host {

/// Removes the hidden files that killed writers of `target` have left.
void RemoveHidden(const std::filesystem::path& target);

class AtomicFile {
 public:
  /// `mode` as for open(2), subject to the umask.
  AtomicFile(std::filesystem::path target, mode_t mode);
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  void WriteAt(int64_t offset, std::span<const char> bytes);
  /// The file's modification time, in seconds since 1970. Best effort.
  void SetTime(int64_t seconds);
  /// Syncs the bytes, renames, and syncs the folder.
  void Commit();

 private:
  [[noreturn]] void Fail(const char* doing) const;

  std::filesystem::path target;
  std::filesystem::path hidden;
  Descriptor descriptor;
};

}  // namespace host
