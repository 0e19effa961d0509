// The real program serving a real mount in a process of its own, against an emulator in this one.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "emulator/drive_emulator.h"
#include "host/core/paths.h"

namespace host::mount {

/// Why no folder can be mounted here; empty when it can. Tests are skipped with it.
std::string WhyNoMount();

/// Options that make a mount's waits short.
std::vector<std::string> QuickOptions();

class MountedProgram {
 public:
  /// Keeps its data in `dataHome`, or in a place of its own without.
  explicit MountedProgram(emulator::DriveEmulator& service, std::filesystem::path dataHome = {});
  /// With the profile's settings by name.
  MountedProgram(const std::map<std::string, std::string>& settings, const std::string& accessToken,
                 std::filesystem::path dataHome = {});
  /// Ends what still runs.
  ~MountedProgram();

  /// True once the folder can be used.
  bool Mount(const std::vector<std::string>& options = QuickOptions());
  /// As a power cut would: at once, nothing is told. The dead mount stays.
  void Kill();
  /// Asks the process to end, as a user's Ctrl-C does; true when it ended well, and in time.
  bool Terminate();
  /// Takes the dead mount away.
  void Detach();
  /// `vormlane unmount`, which waits for what is owed; then the process has ended.
  bool Unmount();
  /// Runs another command of the program; its exit code, its output in `output`.
  int Run(const std::vector<std::string>& arguments, std::string* output = nullptr) const;
  bool Drain() const { return Run({"drain"}) == 0; }

  /// Stores a new access token, as `vormlane login` does.
  void SignIn(const std::string& accessToken) const;

  /// Copies what the host keeps, for whoever has to find out why.
  void Keep(const std::filesystem::path& place) const;

  const std::filesystem::path& Folder() const { return folder; }
  std::filesystem::path Root() const { return folder / "My Drive"; }
  std::filesystem::path Data() const { return dataHome / "vormlane/default"; }
  pid_t Process() const { return process; }
  std::filesystem::path LogFile() const { return directory.Path() / "log"; }

 private:
  pid_t Spawn(const std::vector<std::string>& arguments, int output) const;
  bool IsMounted() const;
  bool Ended(std::chrono::milliseconds limit, int& status);

  TemporaryDirectory directory{"vormlane-mount-"};
  std::filesystem::path dataHome;
  std::filesystem::path folder = directory.Path() / "mnt";
  pid_t process = -1;
};

}  // namespace host::mount
