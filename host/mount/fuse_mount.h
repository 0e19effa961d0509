// A drive at a folder of this machine.
#pragma once

#include <fuse_lowlevel.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "host/mount/fuse_operations.h"

namespace host::mount {

class FuseMount final : private Observer {
 public:
  /// Mounted when it returns. Throws Failure.
  FuseMount(Drive& drive, const std::filesystem::path& folder);
  /// Unmounts.
  ~FuseMount();
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  /// Serves programs until the folder is unmounted, End is called, or the process is told to end;
  /// the folder is nobody's then. To be called once.
  void Serve();
  /// Any thread.
  void End();

 private:
  struct Destroy {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
  };

  void Changed(const Notices& notices) override;
  void Loop();
  void StopLoop(std::thread& loop);
  void TellKernel();
  void StopTelling();
  void Tell(const Notice& notice);

  Drive& drive;
  const std::filesystem::path folder;
  FuseContext context;
  std::unique_ptr<fuse_session, Destroy> session;
  std::mutex mutex;  // guards what is below
  std::condition_variable wake;
  std::deque<Notice> waiting;
  bool silent = false;  // nothing more is told
  bool served = false;  // the loop is over
  std::atomic<bool> ending{false};
  std::thread teller;  // the kernel may answer a notice by asking us: never from its own threads
};

}  // namespace host::mount
