#include "tests/mount/forgetful_disk.h"

#include <fcntl.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace host::mount {
namespace {

constexpr size_t kPage = 4096;
constexpr double kForEver = 3600;  // nobody but the kernel changes anything
constexpr int kPatience = 5000;    // milliseconds
constexpr unsigned kRarely = 16;   // one write in so many reaches the platters by itself

using Names = std::map<std::string, fuse_ino_t>;
using Listing = std::vector<std::pair<std::string, fuse_ino_t>>;

struct Node {
  bool folder = false;
  timespec time{};
  std::string bytes, keptBytes;  // as programs see them, and on the platters
  Names names, keptNames;
};

class Disk {
 public:
  explicit Disk(unsigned seed) : random(seed) { nodes[FUSE_ROOT_ID].folder = true; }

  Node& At(fuse_ino_t ino) { return nodes[ino]; }

  fuse_ino_t Find(fuse_ino_t folder, const char* name) {
    const auto at = nodes[folder].names.find(name);
    return at == nodes[folder].names.end() ? 0 : at->second;
  }

  fuse_ino_t Make(fuse_ino_t folder, const char* name, bool isFolder) {
    nodes[++last].folder = isFolder;
    clock_gettime(CLOCK_REALTIME, &nodes[last].time);
    SetName(folder, name, last);
    return last;
  }

  void SetName(fuse_ino_t folder, const std::string& name, fuse_ino_t ino) {
    Node& node = nodes[folder];
    if (ino == 0)
      node.names.erase(name);
    else
      node.names[name] = ino;
    if (random() % kRarely == 0) KeepName(node, name);
  }

  void Write(Node& node, const char* bytes, size_t size, size_t offset) {
    if (node.bytes.size() < offset + size) node.bytes.resize(offset + size);
    node.bytes.replace(offset, size, bytes, size);
    clock_gettime(CLOCK_REALTIME, &node.time);
    if (size > 0 && random() % kRarely == 0) KeepPage(node, (offset + random() % size) / kPage);
  }

  static void Sync(Node& node) {
    node.keptBytes = node.bytes;
    node.keptNames = node.names;
  }

  void SyncAll() {
    for (auto& [ino, node] : nodes) Sync(node);
  }

  void LosePower() {
    const unsigned percent = random() % 3 * 40;
    for (auto& [ino, node] : nodes) {
      Names all = node.names;
      all.insert(node.keptNames.begin(), node.keptNames.end());
      for (const auto& [name, child] : all)
        if (random() % 100 < percent) KeepName(node, name);
      for (size_t page = 0; page * kPage < node.bytes.size(); ++page)
        if (random() % 100 < percent) KeepPage(node, page);
      if (random() % 100 < percent) node.keptBytes.resize(node.bytes.size());
      node.names = node.keptNames;
      node.bytes = node.keptBytes;
    }
    std::set<fuse_ino_t> reachable;
    Reach(FUSE_ROOT_ID, reachable);
    std::erase_if(nodes, [&](const auto& node) { return reachable.count(node.first) == 0; });
  }

 private:
  static void KeepName(Node& node, const std::string& name) {
    const auto at = node.names.find(name);
    if (at == node.names.end())
      node.keptNames.erase(name);
    else
      node.keptNames[name] = at->second;
  }

  static void KeepPage(Node& node, size_t page) {
    const size_t offset = page * kPage;
    const size_t size = std::min(kPage, node.bytes.size() - offset);
    if (node.keptBytes.size() < offset + size) node.keptBytes.resize(offset + size);
    node.keptBytes.replace(offset, size, node.bytes, offset, size);
  }

  void Reach(fuse_ino_t ino, std::set<fuse_ino_t>& reachable) {
    if (!reachable.insert(ino).second) return;
    for (const auto& [name, child] : nodes[ino].names) Reach(child, reachable);
  }

  std::map<fuse_ino_t, Node> nodes;
  fuse_ino_t last = FUSE_ROOT_ID;
  std::mt19937 random;
};

Disk& DiskOf(fuse_req_t request) { return *static_cast<Disk*>(fuse_req_userdata(request)); }

struct stat StatusOf(fuse_ino_t ino, const Node& node) {
  struct stat status {};
  status.st_ino = ino;
  status.st_mode = node.folder ? S_IFDIR | 0700 : S_IFREG | 0600;
  status.st_nlink = node.folder ? 2 : 1;
  status.st_size = static_cast<off_t>(node.bytes.size());
  status.st_blocks = (status.st_size + 511) / 512;
  status.st_mtim = status.st_ctim = status.st_atim = node.time;
  return status;
}

fuse_entry_param EntryOf(fuse_ino_t ino, const Node& node) {
  fuse_entry_param entry{};
  entry.ino = ino;
  entry.attr = StatusOf(ino, node);
  entry.attr_timeout = entry.entry_timeout = kForEver;
  return entry;
}

void Initialize(void*, fuse_conn_info* connection) {
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_AUTO_INVAL_DATA);
}

void Lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  const fuse_ino_t ino = DiskOf(request).Find(folder, name);
  if (ino == 0) return void(fuse_reply_err(request, ENOENT));
  const fuse_entry_param entry = EntryOf(ino, DiskOf(request).At(ino));
  fuse_reply_entry(request, &entry);
}

void GetAttributes(fuse_req_t request, fuse_ino_t ino, fuse_file_info*) {
  const struct stat status = StatusOf(ino, DiskOf(request).At(ino));
  fuse_reply_attr(request, &status, kForEver);
}

void SetAttributes(fuse_req_t request, fuse_ino_t ino, struct stat* status, int what,
                   fuse_file_info* info) {
  if ((what & FUSE_SET_ATTR_SIZE) != 0)
    DiskOf(request).At(ino).bytes.resize(static_cast<size_t>(status->st_size));
  GetAttributes(request, ino, info);
}

void MakeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t) {
  const fuse_ino_t ino = DiskOf(request).Make(folder, name, true);
  const fuse_entry_param entry = EntryOf(ino, DiskOf(request).At(ino));
  fuse_reply_entry(request, &entry);
}

void Create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t, fuse_file_info* info) {
  const fuse_ino_t ino = DiskOf(request).Make(folder, name, false);
  const fuse_entry_param entry = EntryOf(ino, DiskOf(request).At(ino));
  info->keep_cache = 1;
  fuse_reply_create(request, &entry, info);
}

void Unlink(fuse_req_t request, fuse_ino_t folder, const char* name) {
  DiskOf(request).SetName(folder, name, 0);
  fuse_reply_err(request, 0);
}

void RemoveFolder(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Disk& disk = DiskOf(request);
  if (!disk.At(disk.Find(folder, name)).names.empty())
    return void(fuse_reply_err(request, ENOTEMPTY));
  Unlink(request, folder, name);
}

void Open(fuse_req_t request, fuse_ino_t ino, fuse_file_info* info) {
  if ((info->flags & O_TRUNC) != 0) DiskOf(request).At(ino).bytes.clear();
  info->keep_cache = 1;
  fuse_reply_open(request, info);
}

void Read(fuse_req_t request, fuse_ino_t ino, size_t size, off_t offset, fuse_file_info*) {
  const std::string& bytes = DiskOf(request).At(ino).bytes;
  const size_t from = std::min(static_cast<size_t>(offset), bytes.size());
  fuse_reply_buf(request, bytes.data() + from, std::min(size, bytes.size() - from));
}

void Write(fuse_req_t request, fuse_ino_t ino, const char* bytes, size_t size, off_t offset,
           fuse_file_info*) {
  Disk& disk = DiskOf(request);
  disk.Write(disk.At(ino), bytes, size, static_cast<size_t>(offset));
  fuse_reply_write(request, size);
}

void Sync(fuse_req_t request, fuse_ino_t ino, int, fuse_file_info*) {
  Disk::Sync(DiskOf(request).At(ino));
  fuse_reply_err(request, 0);
}

void OpenFolder(fuse_req_t request, fuse_ino_t ino, fuse_file_info* info) {
  const Names& names = DiskOf(request).At(ino).names;
  info->fh = reinterpret_cast<uint64_t>(new Listing(names.begin(), names.end()));
  fuse_reply_open(request, info);
}

void ReadFolder(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info* info) {
  const Listing& listing = *reinterpret_cast<const Listing*>(info->fh);
  std::string buffer(size, '\0');
  size_t used = 0;
  for (size_t i = static_cast<size_t>(offset); i < listing.size(); ++i) {
    const auto& [name, ino] = listing[i];
    const struct stat status = StatusOf(ino, DiskOf(request).At(ino));
    const size_t needed = fuse_add_direntry(request, buffer.data() + used, size - used,
                                            name.c_str(), &status, static_cast<off_t>(i + 1));
    if (needed > size - used) break;
    used += needed;
  }
  fuse_reply_buf(request, buffer.data(), used);
}

void ReleaseFolder(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  delete reinterpret_cast<const Listing*>(info->fh);
  fuse_reply_err(request, 0);
}

void Room(fuse_req_t request, fuse_ino_t) {
  struct statvfs room {};
  room.f_bsize = room.f_frsize = kPage;
  room.f_blocks = room.f_bfree = room.f_bavail = 1 << 20;
  room.f_namemax = 255;
  fuse_reply_statfs(request, &room);
}

fuse_lowlevel_ops Operations() {
  fuse_lowlevel_ops operations{};
  operations.init = Initialize;
  operations.lookup = Lookup;
  operations.getattr = GetAttributes;
  operations.setattr = SetAttributes;
  operations.mkdir = MakeFolder;
  operations.create = Create;
  operations.unlink = Unlink;
  operations.rmdir = RemoveFolder;
  operations.open = Open;
  operations.read = Read;
  operations.write = Write;
  operations.fsync = Sync;
  operations.fsyncdir = Sync;
  operations.opendir = OpenFolder;
  operations.readdir = ReadFolder;
  operations.releasedir = ReleaseFolder;
  operations.statfs = Room;
  return operations;
}

struct SessionEnd {
  void operator()(fuse_session* session) const {
    fuse_session_unmount(session);  // closes the device first: who still asks is let go
    fuse_session_destroy(session);
  }
};
using Session = std::unique_ptr<fuse_session, SessionEnd>;

Session Mount(Disk& disk, const char* place) {
  static const fuse_lowlevel_ops kOperations = Operations();
  fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
  for (const char* word : {"disk", "-o", "fsname=forgetful,subtype=forgetful"})
    fuse_opt_add_arg(&arguments, word);
  Session session(fuse_session_new(&arguments, &kOperations, sizeof kOperations, &disk));
  fuse_opt_free_args(&arguments);
  if (session && fuse_session_mount(session.get(), place) != 0) session.reset();
  return session;
}

/// Serves until the other end of `line` is closed.
void Serve(Disk& disk, const char* place, int line) {
  Session session = Mount(disk, place);
  fuse_buf request{};
  while (session && write(line, "+", 1) == 1) {
    char order = 0;
    while (order == 0) {
      pollfd ends[] = {{fuse_session_fd(session.get()), POLLIN, 0}, {line, POLLIN, 0}};
      if (poll(ends, 2, -1) < 0) return;
      if (ends[1].revents != 0 && read(line, &order, 1) != 1) return;
      if (ends[0].revents == 0) continue;
      const int size = fuse_session_receive_buf(session.get(), &request);
      if (size > 0) fuse_session_process_buf(session.get(), &request);
      if (size == 0 || (size < 0 && size != -EINTR && size != -EAGAIN)) return;
    }
    if (order == 's') disk.SyncAll();
    if (order != 'c') continue;
    session.reset();
    disk.LosePower();
    session = Mount(disk, place);
  }
}

}  // namespace

ForgetfulDisk::ForgetfulDisk(unsigned seed) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
  process = fork();
  if (process == 0) {
    close(ends[0]);
    Disk disk(seed);
    Serve(disk, place.Path().c_str(), ends[1]);
    _exit(0);
  }
  close(ends[1]);
  line = Descriptor(ends[0]);
  mounted = Answered();
}

ForgetfulDisk::~ForgetfulDisk() {
  line = Descriptor();
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience);
  while (process > 0 && waitpid(process, nullptr, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) kill(process, SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  umount2(place.Path().c_str(), MNT_DETACH);  // what a disk that had to be killed has left
}

bool ForgetfulDisk::Answered() const {
  pollfd end{line.Get(), POLLIN, 0};
  char answer = 0;
  return poll(&end, 1, kPatience) == 1 && read(line.Get(), &answer, 1) == 1;
}

bool ForgetfulDisk::Tell(char order) const {
  return send(line.Get(), &order, 1, MSG_NOSIGNAL) == 1 && Answered();
}

}  // namespace host::mount
