#include "host/mount/fuse_mount.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "host/core/failure.h"

namespace host::mount {
namespace fs = std::filesystem;
namespace {

constexpr int kThreads = 128;
constexpr int kIdleThreads = 16;

/// libfuse takes its options as a program's arguments.
class Arguments {
 public:
  explicit Arguments(const std::vector<std::string>& options) {
    fuse_opt_add_arg(&arguments, "vormlane");
    for (const std::string& option : options) {
      fuse_opt_add_arg(&arguments, "-o");
      fuse_opt_add_arg(&arguments, option.c_str());
    }
  }
  ~Arguments() { fuse_opt_free_args(&arguments); }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;

  fuse_args* Get() { return &arguments; }

 private:
  fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
};

[[noreturn]] void Refuse(const fs::path& folder, const std::string& why,
                         const std::string& advice) {
  throw Failure("cannot mount at " + folder.string() + ": " + why, advice);
}

/// Takes a mount away for a user who is not root.
bool RunFusermount(const fs::path& folder) {
  const char* const arguments[] = {"fusermount3", "-uz", folder.c_str(), nullptr};
  pid_t child = 0;
  if (posix_spawnp(&child, arguments[0], nullptr, nullptr, const_cast<char* const*>(arguments),
                   environ) != 0)
    return false;
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct LoopFree {
  void operator()(fuse_loop_config* config) const { fuse_loop_cfg_destroy(config); }
};

}  // namespace

bool PrepareMountPoint(const fs::path& folder) {
  struct stat status {};
  // The kernel may still remember a dead mount's attributes, but not its room.
  struct statvfs room {};
  const bool stale = statvfs(folder.c_str(), &room) != 0 && errno == ENOTCONN;
  if (stale) {
    if (umount2(folder.c_str(), MNT_DETACH) != 0 && !RunFusermount(folder))
      Refuse(folder, "a mount that was left there cannot be taken away",
             "run `fusermount3 -uz` on it");
  }
  if (stat(folder.c_str(), &status) != 0)
    Refuse(folder, std::strerror(errno), "make the folder first");
  if (!S_ISDIR(status.st_mode)) Refuse(folder, "it is no folder", "name a folder");
  struct stat above {};
  if (stat((folder / "..").c_str(), &above) == 0 && above.st_dev != status.st_dev)
    Refuse(folder, "something is mounted there already", "run `vormlane unmount` first");
  std::error_code error;
  if (!fs::is_empty(folder, error) || error)
    Refuse(folder, "it is not empty", "use an empty folder, what is in it would be hidden");
  if (access("/dev/fuse", R_OK | W_OK) != 0)
    Refuse(folder, std::string("/dev/fuse: ") + std::strerror(errno),
           "this machine needs FUSE for it; the other commands work without");
  return stale;
}

FuseMount::FuseMount(Drive& mounted, const fs::path& place)
    : drive(mounted), folder(place), context{mounted, {getuid(), getgid()}} {
  std::vector<std::string> options = {"fsname=vormlane", "subtype=vormlane", "default_permissions"};
  if (drive.settings.allowOther) options.push_back("allow_other");
  if (drive.settings.readOnly) options.push_back("ro");
  Arguments arguments(options);
  session.reset(
      fuse_session_new(arguments.Get(), &FuseOperations(), sizeof(fuse_lowlevel_ops), &context));
  if (!session || fuse_session_mount(session.get(), folder.c_str()) != 0)
    Refuse(folder, "the system refused it", "check that you may use /dev/fuse and own the folder");
  teller = std::thread([this] { TellKernel(); });
  drive.SetKernel(this);
}

FuseMount::~FuseMount() {
  drive.SetKernel(nullptr);
  {
    std::lock_guard lock(mutex);
    ending = true;
  }
  wake.notify_all();
  fuse_session_unmount(session.get());
  teller.join();
}

void FuseMount::Serve() {
  fuse_set_signal_handlers(session.get());
  {
    std::lock_guard lock(mutex);
    server = pthread_self();
    serving = true;
  }
  const std::unique_ptr<fuse_loop_config, LoopFree> config(fuse_loop_cfg_create());
  fuse_loop_cfg_set_max_threads(config.get(), kThreads);
  fuse_loop_cfg_set_idle_threads(config.get(), kIdleThreads);
  fuse_session_loop_mt(session.get(), config.get());
  {
    std::lock_guard lock(mutex);
    serving = false;
  }
  fuse_remove_signal_handlers(session.get());
}

void FuseMount::End() {
  fuse_session_exit(session.get());
  // Asking the own mount for something would wake the loop too, and wait for itself for ever when
  // nobody serves any more.
  std::lock_guard lock(mutex);
  if (serving) pthread_kill(server, SIGTERM);
}

void FuseMount::Changed(const Notices& notices) {
  {
    std::lock_guard lock(mutex);
    waiting.insert(waiting.end(), notices.begin(), notices.end());
  }
  wake.notify_one();
}

void FuseMount::TellKernel() {
  std::unique_lock lock(mutex);
  for (;;) {
    wake.wait(lock, [this] { return ending || !waiting.empty(); });
    if (ending) return;
    const Notice notice = std::move(waiting.front());
    waiting.pop_front();
    lock.unlock();
    Tell(notice);
    lock.lock();
  }
}

void FuseMount::Tell(const Notice& notice) {
  if (notice.kind == Notice::kVersion) {
    fuse_lowlevel_notify_inval_inode(session.get(), notice.ino, 0, 0);
    return;
  }
  fuse_lowlevel_notify_inval_entry(session.get(), notice.ino, notice.name.c_str(),
                                   notice.name.size());
  fuse_lowlevel_notify_inval_inode(session.get(), notice.ino, -1, 0);
}

}  // namespace host::mount
