// mount, unmount, drain, status, pin
#pragma once

#include "host/cli/context.h"

namespace host {

void AddMountCommands(CLI::App& app, Context& context);

}  // namespace host
