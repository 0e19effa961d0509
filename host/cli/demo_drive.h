// A drive to try things on: an emulator filled with a demo account, and a temporary profile that
// is signed in to it.
#pragma once

#include <string>
#include <vector>

#include "host/cli/context.h"
#include "host/cli/emulator_process.h"

namespace host {

/// While it lives, the context's commands work on the demo drive. Nothing is left afterwards.
class DemoDrive {
 public:
  explicit DemoDrive(Context& context);
  ~DemoDrive();
  DemoDrive(const DemoDrive&) = delete;
  DemoDrive& operator=(const DemoDrive&) = delete;

  EmulatorProcess& Emulator() { return emulator; }
  const std::filesystem::path& Directory() const { return directory.Path(); }
  /// Variables with which another process of this program works on the demo drive as well, given
  /// `--profile demo`.
  std::vector<std::string> Environment() const;

 private:
  Context& context;
  TemporaryDirectory directory;
  EmulatorProcess emulator;
};

}  // namespace host
