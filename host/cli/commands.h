// The families of commands, each adding its own to the program's command line.
#pragma once

#include "host/cli/context.h"

namespace host {

void AddBrowseCommands(CLI::App& app, Context& context);    ///< ls, stat
void AddAccountCommands(CLI::App& app, Context& context);   ///< df, whoami
void AddReadCommands(CLI::App& app, Context& context);      ///< cat, get
void AddWriteCommands(CLI::App& app, Context& context);     ///< put, mkdir, mv, rm, touch
void AddWatchCommand(CLI::App& app, Context& context);      ///< watch
void AddLoginCommands(CLI::App& app, Context& context);     ///< login, logout
void AddSettingsCommands(CLI::App& app, Context& context);  ///< options, profile
void AddDemoCommand(CLI::App& app, Context& context);       ///< demo

/// Everything above and the shared options.
void AddCommands(CLI::App& app, Context& context);

}  // namespace host
