#include "host/mount/fuse_operations.h"

#include <signal.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "host/mount/errno_map.h"
#include "host/mount/name_map.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

/// The kernel is told when something changes, so what it was told stays good for long.
constexpr double kAttributeSeconds = 60;
constexpr unsigned kKernelBackground = 64;  // requests the kernel sends ahead of programs' needs

/// A folder as it was when it was opened.
struct OpenFolder {
  Inode ino = 0;
  Inode parent = 0;
  std::vector<Item> items;
};

FuseContext& Context(fuse_req_t request) {
  return *static_cast<FuseContext*>(fuse_req_userdata(request));
}

Drive& DriveOf(fuse_req_t request) { return Context(request).drive; }

/// Whether the program that asked is being killed. A signal that it handles is no reason to fail
/// what it asked for: few programs expect that of a disk.
bool CallerIsGone(fuse_req_t request) {
  if (!fuse_req_interrupted(request)) return false;
  std::ifstream status("/proc/" + std::to_string(fuse_req_ctx(request)->pid) + "/status");
  bool alive = false;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigPnd:", 0) != 0 && line.rfind("ShdPnd:", 0) != 0) continue;
    const uint64_t pending = std::strtoull(line.c_str() + 7, nullptr, 16);
    if ((pending >> (SIGKILL - 1) & 1) != 0) return true;
    alive = true;
  }
  return !alive;
}

/// Runs what an operation is; an exception is the disk's refusal, a result other than 0 the answer.
template <typename Function>
void Answer(fuse_req_t request, Function&& function) noexcept {
  int error = EIO;
  try {
    const CallerWatch watch([request] { return CallerIsGone(request); });
    error = function();
  } catch (const std::exception& failure) {
    error = ErrnoOf(failure);
  }
  // 0 means that the operation has answered.
  if (error != 0) fuse_reply_err(request, error < 0 ? -error : error);
}

int Reply(fuse_req_t request, int error) {
  fuse_reply_err(request, error < 0 ? -error : error);
  return 0;
}

struct stat StatusOf(fuse_req_t request, Item& item) {
  FuseContext& context = Context(request);
  context.drive.files.Overlay(item);
  return AttributesOf(item, context.ownership, context.drive.settings.readOnly);
}

fuse_entry_param EntryOf(fuse_req_t request, Item& item) {
  fuse_entry_param entry{};
  entry.ino = item.ino;
  entry.generation = 1;
  entry.attr = StatusOf(request, item);
  entry.attr_timeout = kAttributeSeconds;
  entry.entry_timeout = kAttributeSeconds;
  return entry;
}

int ReplyEntry(fuse_req_t request, Item& item) {
  const fuse_entry_param entry = EntryOf(request, item);
  fuse_reply_entry(request, &entry);
  return 0;
}

int ReplyAttributes(fuse_req_t request, Inode ino) {
  Item item;
  if (const int error = DriveOf(request).tree.Get(ino, item)) return error;
  const struct stat status = StatusOf(request, item);
  fuse_reply_attr(request, &status, kAttributeSeconds);
  return 0;
}

OpenFile& FileOf(const fuse_file_info* info) { return *reinterpret_cast<OpenFile*>(info->fh); }

OpenFolder& FolderOf(const fuse_file_info* info) {
  return *reinterpret_cast<OpenFolder*>(info->fh);
}

void Keep(fuse_file_info* info, std::unique_ptr<OpenFile> file) {
  info->keep_cache = 1;  // Notices of new versions drop it
  info->fh = reinterpret_cast<uint64_t>(file.release());
}

void Init(void*, fuse_conn_info* connection) {
  connection->max_background = kKernelBackground;
  connection->congestion_threshold = kKernelBackground * 3 / 4;
  connection->want |=
      connection->capable & (FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_PARALLEL_DIROPS |
                             FUSE_CAP_READDIRPLUS | FUSE_CAP_ASYNC_READ | FUSE_CAP_HANDLE_KILLPRIV);
  // Programs read a folder's names to see its items as well.
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS_AUTO);
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  Answer(request, [&] {
    Item item;
    const int error = DriveOf(request).tree.Lookup(parent, name, item);
    return error != 0 ? error : ReplyEntry(request, item);
  });
}

void GetAttributes(fuse_req_t request, fuse_ino_t ino, fuse_file_info*) {
  Answer(request, [&] { return ReplyAttributes(request, ino); });
}

/// Owner and mode are accepted and not stored: `cp -a` must not fail for them.
void SetAttributes(fuse_req_t request, fuse_ino_t ino, struct stat* wanted, int which,
                   fuse_file_info*) {
  Answer(request, [&] {
    Files& files = DriveOf(request).files;
    if ((which & FUSE_SET_ATTR_SIZE) != 0)
      if (const int error = files.Truncate(ino, wanted->st_size)) return error;
    if ((which & (FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW)) != 0) {
      const bool now = (which & FUSE_SET_ATTR_MTIME_NOW) != 0;
      const int64_t given = ToNanoseconds(wanted->st_mtim.tv_sec, wanted->st_mtim.tv_nsec);
      if (const int error = files.SetTime(ino, now ? NowNanoseconds() : given)) return error;
    }
    return ReplyAttributes(request, ino);
  });
}

void MakeFolder(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t) {
  Answer(request, [&] {
    Item item;
    const int error = DriveOf(request).tree.MakeFolder(parent, name, item);
    return error != 0 ? error : ReplyEntry(request, item);
  });
}

void MakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t) {
  Answer(request, [&] {
    if (!S_ISREG(mode)) return ENOTSUP;
    Item item;
    std::unique_ptr<OpenFile> file;
    Files& files = DriveOf(request).files;
    if (const int error = files.Create(parent, name, O_EXCL, item, file)) return error;
    files.Release(std::move(file));
    return ReplyEntry(request, item);
  });
}

void RemoveFile(fuse_req_t request, fuse_ino_t parent, const char* name) {
  Answer(request, [&] { return Reply(request, DriveOf(request).tree.RemoveFile(parent, name)); });
}

void RemoveFolder(fuse_req_t request, fuse_ino_t parent, const char* name) {
  Answer(request, [&] { return Reply(request, DriveOf(request).tree.RemoveFolder(parent, name)); });
}

void Rename(fuse_req_t request, fuse_ino_t from, const char* name, fuse_ino_t to,
            const char* newName, unsigned flags) {
  Answer(request, [&] {
    return Reply(request, DriveOf(request).tree.Rename(from, name, to, newName, flags));
  });
}

void MakeSymlink(fuse_req_t request, const char*, fuse_ino_t, const char*) {
  fuse_reply_err(request, ENOTSUP);
}

void MakeLink(fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) {
  fuse_reply_err(request, ENOTSUP);
}

void Open(fuse_req_t request, fuse_ino_t ino, fuse_file_info* info) {
  Answer(request, [&] {
    std::unique_ptr<OpenFile> file;
    if (const int error = DriveOf(request).files.Open(ino, info->flags, file)) return error;
    OpenFile* opened = file.get();
    Keep(info, std::move(file));
    // The program that asked may be gone by now.
    if (fuse_reply_open(request, info) == -ENOENT)
      DriveOf(request).files.Release(std::unique_ptr<OpenFile>(opened));
    return 0;
  });
}

void Create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t, fuse_file_info* info) {
  Answer(request, [&] {
    Item item;
    std::unique_ptr<OpenFile> file;
    Drive& drive = DriveOf(request);
    if (const int error = drive.files.Create(parent, name, info->flags, item, file)) return error;
    OpenFile* opened = file.get();
    Keep(info, std::move(file));
    const fuse_entry_param entry = EntryOf(request, item);
    if (fuse_reply_create(request, &entry, info) == -ENOENT)
      drive.files.Release(std::unique_ptr<OpenFile>(opened));
    return 0;
  });
}

void Read(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info* info) {
  Answer(request, [&] {
    const auto buffer = std::make_unique_for_overwrite<char[]>(size);
    const ssize_t count = DriveOf(request).files.Read(FileOf(info), {buffer.get(), size}, offset);
    if (count < 0) return static_cast<int>(count);
    fuse_reply_buf(request, buffer.get(), static_cast<size_t>(count));
    return 0;
  });
}

void Write(fuse_req_t request, fuse_ino_t, const char* bytes, size_t size, off_t offset,
           fuse_file_info* info) {
  Answer(request, [&] {
    const ssize_t count = DriveOf(request).files.Write(FileOf(info), {bytes, size}, offset);
    if (count < 0) return static_cast<int>(count);
    fuse_reply_write(request, static_cast<size_t>(count));
    return 0;
  });
}

void Flush(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  Answer(request, [&] { return Reply(request, DriveOf(request).files.Flush(FileOf(info))); });
}

void Sync(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info) {
  Answer(request, [&] { return Reply(request, DriveOf(request).files.Fsync(FileOf(info))); });
}

void Release(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  Answer(request, [&] {
    DriveOf(request).files.Release(std::unique_ptr<OpenFile>(&FileOf(info)));
    return Reply(request, 0);
  });
}

void OpenDirectory(fuse_req_t request, fuse_ino_t ino, fuse_file_info* info) {
  Answer(request, [&] {
    auto folder = std::make_unique<OpenFolder>();
    Drive& drive = DriveOf(request);
    Item item;
    if (const int error = drive.tree.Get(ino, item)) return error;
    if (const int error = drive.tree.List(ino, folder->items)) return error;
    folder->ino = ino;
    folder->parent = item.parent == 0 ? ino : item.parent;
    OpenFolder* opened = folder.release();
    info->fh = reinterpret_cast<uint64_t>(opened);
    if (fuse_reply_open(request, info) == -ENOENT) delete opened;
    return 0;
  });
}

/// One entry at `position` of a folder being read; 0 when it does not fit any more.
size_t AddEntry(fuse_req_t request, std::span<char> room, OpenFolder& folder, size_t position,
                bool withAttributes) {
  const off_t next = static_cast<off_t>(position) + 1;
  if (position < 2) {
    fuse_entry_param entry{};
    entry.attr.st_ino = position == 0 ? folder.ino : folder.parent;
    entry.attr.st_mode = S_IFDIR;
    const char* name = position == 0 ? "." : "..";
    return withAttributes
               ? fuse_add_direntry_plus(request, room.data(), room.size(), name, &entry, next)
               : fuse_add_direntry(request, room.data(), room.size(), name, &entry.attr, next);
  }
  Item& item = folder.items[position - 2];
  const fuse_entry_param entry = EntryOf(request, item);
  return withAttributes ? fuse_add_direntry_plus(request, room.data(), room.size(),
                                                 item.name.c_str(), &entry, next)
                        : fuse_add_direntry(request, room.data(), room.size(), item.name.c_str(),
                                            &entry.attr, next);
}

void ReadFolder(fuse_req_t request, size_t size, off_t offset, fuse_file_info* info, bool plus) {
  Answer(request, [&] {
    OpenFolder& folder = FolderOf(info);
    std::vector<char> buffer(size);
    size_t used = 0;
    for (auto at = static_cast<size_t>(offset); at < folder.items.size() + 2; ++at) {
      const size_t took = AddEntry(request, {buffer.data() + used, size - used}, folder, at, plus);
      if (took > size - used) break;
      used += took;
    }
    fuse_reply_buf(request, buffer.data(), used);
    return 0;
  });
}

void ReadDirectory(fuse_req_t request, fuse_ino_t, size_t size, off_t offset,
                   fuse_file_info* info) {
  ReadFolder(request, size, offset, info, false);
}

void ReadDirectoryPlus(fuse_req_t request, fuse_ino_t, size_t size, off_t offset,
                       fuse_file_info* info) {
  ReadFolder(request, size, offset, info, true);
}

void ReleaseDirectory(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  delete &FolderOf(info);
  fuse_reply_err(request, 0);
}

void SyncDirectory(fuse_req_t request, fuse_ino_t, int, fuse_file_info*) {
  Answer(request, [&] { return Reply(request, DriveOf(request).state.Sync() ? 0 : EIO); });
}

void FileSystemStatus(fuse_req_t request, fuse_ino_t) {
  Answer(request, [&] {
    constexpr uint64_t kUnknownTotal = uint64_t{1} << 50;
    const Drive::Quota quota = DriveOf(request).RememberedQuota();
    const uint64_t total = quota.total == 0 ? kUnknownTotal : quota.total;
    struct statvfs status {};
    status.f_bsize = status.f_frsize = 4096;
    status.f_blocks = total / status.f_frsize;
    status.f_bfree = status.f_bavail =
        (quota.used > total ? 0 : total - quota.used) / status.f_frsize;
    status.f_namemax = kMaxNameBytes;
    fuse_reply_statfs(request, &status);
    return 0;
  });
}

int ReplyText(fuse_req_t request, const std::string& text, size_t room) {
  if (room == 0) return fuse_reply_xattr(request, text.size()), 0;
  if (text.size() > room) return ERANGE;
  fuse_reply_buf(request, text.data(), text.size());
  return 0;
}

void GetExtended(fuse_req_t request, fuse_ino_t ino, const char* name, size_t size) {
  Answer(request, [&] {
    Drive& drive = DriveOf(request);
    // Programs that look for access lists and labels ask no further once they hear that there are
    // none at all.
    if (std::strncmp(name, "user.", 5) != 0) return ENOTSUP;
    Item item;
    std::string value;
    if (const int error = drive.tree.Get(ino, item)) return error;
    if (const int error = ExtendedAttribute(drive, item, name, value)) return error;
    return ReplyText(request, value, size);
  });
}

void ListExtended(fuse_req_t request, fuse_ino_t, size_t size) {
  Answer(request, [&] { return ReplyText(request, AttributeNames(), size); });
}

void SetExtended(fuse_req_t request, fuse_ino_t, const char*, const char*, size_t, int) {
  fuse_reply_err(request, ENOTSUP);
}

void RemoveExtended(fuse_req_t request, fuse_ino_t, const char*) {
  fuse_reply_err(request, ENOTSUP);
}

fuse_lowlevel_ops MakeOperations() {
  fuse_lowlevel_ops operations{};
  operations.init = Init;
  operations.lookup = Lookup;
  operations.getattr = GetAttributes;
  operations.setattr = SetAttributes;
  operations.mkdir = MakeFolder;
  operations.mknod = MakeNode;
  operations.unlink = RemoveFile;
  operations.rmdir = RemoveFolder;
  operations.rename = Rename;
  operations.symlink = MakeSymlink;
  operations.link = MakeLink;
  operations.open = Open;
  operations.create = Create;
  operations.read = Read;
  operations.write = Write;
  operations.flush = Flush;
  operations.fsync = Sync;
  operations.release = Release;
  operations.opendir = OpenDirectory;
  operations.readdir = ReadDirectory;
  operations.readdirplus = ReadDirectoryPlus;
  operations.releasedir = ReleaseDirectory;
  operations.fsyncdir = SyncDirectory;
  operations.statfs = FileSystemStatus;
  operations.getxattr = GetExtended;
  operations.listxattr = ListExtended;
  operations.setxattr = SetExtended;
  operations.removexattr = RemoveExtended;
  return operations;
}

}  // namespace

const fuse_lowlevel_ops& FuseOperations() {
  static const fuse_lowlevel_ops operations = MakeOperations();
  return operations;
}

}  // namespace host::mount
