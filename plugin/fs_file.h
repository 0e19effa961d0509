// The record in which the plug-in describes one remote item to the host.
//
// Plain values owned by whoever declared them. A record passed into an operation is in-out: the
// operation overwrites what it learns from the service and leaves the rest as it was.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

/// Bits of `_FS_FILE_V1::attributes`. The kind is assigned whole, the marks are added to it.
enum FsAttribute : uint32_t {
  kFsFile = 0x01,
  kFsFolder = 0x02,
  kFsInlineContent = 0x04,  ///< the whole content stands in `content`; `size` is its length
  kFsSynthesised = 0x40,    ///< made up by the plug-in, not an object stored on the service
};

struct _FS_FILE_V1 {
  std::string id;           ///< Drive file id, or the id of a virtual folder
  uint32_t attributes = 0;  ///< FsAttribute bits
  int64_t size = 0;         ///< bytes
  std::string time1;        ///< RFC 3339, as the service wrote it
  std::string time2;
  std::string time3;
  std::string name;     ///< one path component, UTF-8
  std::string content;  ///< inline content of a synthesised file, else empty
};

struct _FS_FILE_V2 : _FS_FILE_V1 {
  /// Ids of all parents in the reverse of the service's order (its last parent stands first).
  std::deque<std::string> parents;
  /// The folder under which the host knows the item; the source folder of a move.
  std::string parent_id;
};
