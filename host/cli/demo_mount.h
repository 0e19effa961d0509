// The demo drive as a folder, and the shell that looks at it.
#pragma once

#include <filesystem>
#include <string>

#include "host/cli/demo_drive.h"

namespace host {

/// Runs a command by the shell, on the demo drive; its exit code.
int RunShell(const DemoDrive& demo, const std::string& command);

/// An empty folder to mount on. At destruction it is unmounted, if it still is mounted, and
/// removed.
class DemoMount {
 public:
  /// Why nothing can be mounted on this machine; empty when it can.
  static std::string Missing(const DemoDrive& demo);

  explicit DemoMount(const DemoDrive& demo);
  ~DemoMount();
  DemoMount(const DemoMount&) = delete;
  DemoMount& operator=(const DemoMount&) = delete;

  /// Waits for what is to be sent, and unmounts; the command's exit code.
  int Unmount() const;

  const std::filesystem::path& Folder() const { return folder; }

 private:
  bool Mounted() const;
  void WaitUntilUnmounted() const;

  const DemoDrive& demo;
  std::filesystem::path folder;
};

}  // namespace host
