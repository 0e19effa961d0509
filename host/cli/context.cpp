#include <CLI/CLI.hpp>

#include "host/cli/context.h"

#include "host/cli/commands.h"

namespace host {

ProfilePaths Context::Paths() const {
  return pathsOverride ? *pathsOverride : ProfilePaths::Named(profileName);
}

HostLog& Context::Log() {
  if (!log) log = std::make_unique<HostLog>(verbose, logFile);
  return *log;
}

Session& Context::Opened() {
  if (!session) session = std::make_unique<Session>(Paths(), module, Log());
  return *session;
}

void Context::Close() {
  session.reset();
  connected = false;
}

Session& Context::Connected() {
  Opened();
  if (!connected) {
    session->Connect();
    session->RequireAccount();
    connected = true;
  }
  return *session;
}

void AddSharedOptions(CLI::App& app, Context& context) {
  app.add_option("--profile", context.profileName, "Account profile to use")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_option("--plugin", context.module, "Protocol module, instead of the one that came along")
      ->type_name("FILE");
  app.add_option("--log-file", context.logFile, "Write a log there")->type_name("FILE");
  app.add_flag("-v,--verbose", context.verbose, "Log every request, with its headers");
  app.add_flag("--json", context.json, "Print JSON instead of text");
}

void AddCommands(CLI::App& app, Context& context) {
  AddSharedOptions(app, context);
  AddBrowseCommands(app, context);
  AddReadCommands(app, context);
  AddWriteCommands(app, context);
  AddWatchCommand(app, context);
  AddAccountCommands(app, context);
  AddLoginCommands(app, context);
  AddSettingsCommands(app, context);
  AddDemoCommand(app, context);
}

}  // namespace host
