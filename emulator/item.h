// What the store keeps of one file or folder.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

inline constexpr char kFolderType[] = "application/vnd.google-apps.folder";
inline constexpr char kShortcutType[] = "application/vnd.google-apps.shortcut";

/// Whether an item is in the trash, and why.
enum Trash : int { kNotTrashed = 0, kInTrashedFolder = 1, kTrashedItself = 2 };

/// Rights, each including those before it.
enum class Role : int {
  kNone,
  kReader,
  kCommenter,
  kWriter,
  kFileOrganizer,
  kOrganizer,
  kOwner,
};

Role RoleNamed(std::string_view name);
const char* RoleName(Role role);

struct Item {
  int64_t n = 0;  ///< number in the store, ascending by age
  std::string id;
  std::string name;
  std::string mimeType;
  int64_t owner = 0;                  ///< user number; 0 in a team drive
  int64_t drive = 0;                  ///< number of the team drive's root; 0 elsewhere
  std::string parents;                ///< ids, separated by blanks, oldest first
  int64_t created = 0, modified = 0;  ///< milliseconds since the epoch
  int64_t modifier = 0;               ///< user number
  int64_t size = -1;                  ///< bytes; -1: no content
  int64_t blob = 0;                   ///< number of the content; 0: none or empty
  std::string md5;                    ///< hexadecimal; empty: not computed yet, or no content
  int64_t version = 1;                ///< counts changes of anything
  int64_t contentVersion = 1;         ///< counts changes of the content
  int trashed = kNotTrashed;
  int64_t trashedTime = 0;
  bool starred = false;
  bool shared = false;
  bool root = false;
  std::string extra;  ///< JSON object of the remaining writable members, or empty

  bool Folder() const { return mimeType == kFolderType; }
  bool HasContent() const { return size >= 0; }
  std::vector<std::string> ParentIds() const;
};

/// Whether items of this type are documents of the service's own, without content.
bool GoogleType(std::string_view mimeType);

/// A type by the ending of a name; "application/octet-stream" when unknown.
std::string TypeOfName(std::string_view name);

}  // namespace emulator
