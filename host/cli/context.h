// What every command shares: the options given before the command's name, and the session that
// they lead to, opened when a command first asks for it.
//
// A family of commands is one function `void AddXCommands(CLI::App& app, Context& context)` whose
// callbacks throw host::Failure; the program prints its one line and ends with a non-zero code.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "host/core/host_log.h"
#include "host/core/paths.h"
#include "host/core/session.h"

namespace CLI {
class App;
}

namespace host {

struct Context {
  std::string profileName = "default";
  std::filesystem::path module;  ///< empty: beside the program
  std::filesystem::path logFile;
  bool verbose = false;
  bool json = false;
  int exitCode = 0;  ///< what the program ends with when nothing throws

  /// The profile's directories: temporary ones while a demo runs, the user's otherwise.
  ProfilePaths Paths() const;
  HostLog& Log();
  /// Opened, connected and checked on first use. Throws Failure.
  Session& Connected();
  /// Opened but not connected.
  Session& Opened();
  /// Ends the session: afterwards the module has dropped every sink that it was given.
  void Close();

  std::optional<ProfilePaths> pathsOverride;

 private:
  std::unique_ptr<HostLog> log;
  std::unique_ptr<Session> session;
  bool connected = false;
};

/// Adds the shared options to the program's command line.
void AddSharedOptions(CLI::App& app, Context& context);

}  // namespace host
