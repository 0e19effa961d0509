// A drive at a folder of this machine.
#pragma once

#include <fuse_lowlevel.h>
#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "host/mount/fuse_operations.h"

namespace host::mount {

/// Throws Failure, in words for the user, when nothing can be mounted at the folder: it is
/// missing, no folder, not empty, or busy. A mount left there by a host that was killed is taken
/// away first; true when there was one.
bool PrepareMountPoint(const std::filesystem::path& folder);

class FuseMount final : private Observer {
 public:
  /// Mounted when it returns. Throws Failure.
  FuseMount(Drive& drive, const std::filesystem::path& folder);
  /// Unmounts.
  ~FuseMount();
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  /// Serves programs until the folder is unmounted, End is called, or the process is told to end.
  void Serve();
  /// Any thread.
  void End();

 private:
  struct Destroy {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
  };

  void Changed(const Notices& notices) override;
  void TellKernel();
  void Tell(const Notice& notice);

  Drive& drive;
  const std::filesystem::path folder;
  FuseContext context;
  std::unique_ptr<fuse_session, Destroy> session;
  std::mutex mutex;  // guards what is below
  std::condition_variable wake;
  std::deque<Notice> waiting;
  bool ending = false;
  bool serving = false;
  pthread_t server{};
  std::thread teller;  // the kernel may answer a notice by asking us: never from its own threads
};

}  // namespace host::mount
