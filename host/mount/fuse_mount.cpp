#include "host/mount/fuse_mount.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <vector>

#include "host/core/failure.h"
#include "host/core/interrupt.h"

namespace host::mount {
namespace fs = std::filesystem;
namespace {

constexpr int kThreads = 128;
constexpr int kIdleThreads = 16;
constexpr Milliseconds kBetweenSignals{20};

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

struct LoopFree {
  void operator()(fuse_loop_config* config) const { fuse_loop_cfg_destroy(config); }
};

}  // namespace

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
  StopTelling();
  fuse_session_unmount(session.get());
}

void FuseMount::Serve() {
  const InterruptWatch interrupts;
  std::thread loop([this] { Loop(); });
  while (!ending && !InterruptWatch::WaitFor(-1)) {
  }
  // While programs are served: a notice may have to wait for one of them in the kernel, and the
  // kernel does not give up a mount that somebody is telling something.
  StopTelling();
  drive.patience.End();
  StopLoop(loop);
  // Who still asks is answered by the kernel from here on.
  fuse_session_unmount(session.get());
}

void FuseMount::Loop() {
  const std::unique_ptr<fuse_loop_config, LoopFree> config(fuse_loop_cfg_create());
  fuse_loop_cfg_set_max_threads(config.get(), kThreads);
  fuse_loop_cfg_set_idle_threads(config.get(), kIdleThreads);
  fuse_session_loop_mt(session.get(), config.get());
  {
    std::lock_guard lock(mutex);
    served = true;
  }
  wake.notify_all();
  End();  // unmounted by somebody else
}

void FuseMount::StopLoop(std::thread& loop) {
  // libfuse looks whether its loop is over when a signal reaches the thread that waits there. One
  // that comes a moment before the wait is lost, so there is another.
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  fuse_session_exit(session.get());
  std::unique_lock lock(mutex);
  do pthread_kill(loop.native_handle(), SIGUSR1);
  while (!wake.wait_for(lock, kBetweenSignals, [this] { return served; }));
  lock.unlock();
  loop.join();
}

void FuseMount::End() {
  ending = true;
  InterruptWatch::Wake();
}

void FuseMount::StopTelling() {
  drive.SetKernel(nullptr);
  {
    std::lock_guard lock(mutex);
    silent = true;
  }
  wake.notify_all();
  if (teller.joinable()) teller.join();
}

void FuseMount::Changed(const Notices& notices) {
  {
    std::lock_guard lock(mutex);
    waiting.insert(waiting.end(), notices.begin(), notices.end());
  }
  wake.notify_all();
}

void FuseMount::TellKernel() {
  std::unique_lock lock(mutex);
  for (;;) {
    wake.wait(lock, [this] { return silent || !waiting.empty(); });
    if (silent) return;
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
