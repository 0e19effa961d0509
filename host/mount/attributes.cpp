#include "host/mount/attributes.h"

#include <cerrno>

namespace host::mount {
namespace {

constexpr char kIdName[] = "user.vormlane.id";
constexpr char kParentsName[] = "user.vormlane.parents";
constexpr char kStateName[] = "user.vormlane.state";

constexpr blksize_t kBestRead = 128 * 1024;
constexpr int64_t kStatBlock = 512;

timespec TimeOf(int64_t nanoseconds) {
  constexpr int64_t kSecond = 1'000'000'000;
  timespec time{};
  time.tv_sec = nanoseconds / kSecond - (nanoseconds % kSecond < 0);
  time.tv_nsec = nanoseconds - time.tv_sec * kSecond;
  return time;
}

std::string StateOf(Drive& drive, const Item& item) {
  std::lock_guard lock(drive.state.mutex);
  if (const std::optional<JournalRow> row = drive.state.journal.Find(item.ino))
    return row->tries > 0 ? "failed" : "pending";
  return drive.state.IsPinned(item.ino) ? "pinned" : "clean";
}

}  // namespace

struct stat AttributesOf(const Item& item, const Ownership& ownership, bool readOnly) {
  struct stat status {};
  const mode_t write = readOnly || item.IsMadeUp() ? 0 : S_IWUSR;
  status.st_ino = item.ino;
  status.st_mode = (item.IsFolder() ? S_IFDIR | 0555 : S_IFREG | 0444) | write;
  status.st_nlink = item.IsFolder() ? 2 : 1;
  status.st_uid = ownership.owner;
  status.st_gid = ownership.group;
  status.st_size = item.IsFolder() ? 0 : item.size;
  status.st_blocks = (status.st_size + kStatBlock - 1) / kStatBlock;
  status.st_blksize = kBestRead;
  status.st_mtim = status.st_atim = status.st_ctim = TimeOf(item.mtime);
  return status;
}

std::string AttributeNames() {
  std::string names;
  for (const char* name : {kIdName, kParentsName, kStateName}) names += std::string(name) + '\0';
  return names;
}

int ExtendedAttribute(Drive& drive, const Item& item, const std::string& name, std::string& value) {
  if (name == kIdName)
    value = item.id;
  else if (name == kParentsName)
    value = item.remoteParent + (item.otherParents.empty() ? "" : " ") + item.otherParents;
  else if (name == kStateName)
    value = StateOf(drive, item);
  else
    return ENODATA;
  return 0;
}

}  // namespace host::mount
