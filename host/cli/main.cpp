// vormlane: an account's drive on the command line.
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>

#include "host/cli/commands.h"
#ifdef VORMLANE_HAS_MOUNT
#include "host/mount/mount_commands.h"
#endif

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUse = 2;

void Complain(const std::string& what) {
  std::fprintf(stderr, "vormlane: %s\n", host::OneLine(what).c_str());
}

int Run(CLI::App& app, host::Context& context, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return context.exitCode;
  } catch (const CLI::Success& help) {  // --help, --version
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    Complain(std::string(error.what()) + "; see `vormlane --help`");
    return kWrongUse;
  } catch (const std::exception& error) {
    Complain(error.what());
    return kFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Names are UTF-8 whatever the environment says; only numbers and dates stay as they are.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  host::Context context;
  CLI::App app("Google Drive from the command line.", "vormlane");
  app.set_version_flag("--version", VORMLANE_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  host::AddCommands(app, context);
#ifdef VORMLANE_HAS_MOUNT
  host::AddMountCommands(app, context);
#endif
  return Run(app, context, argc, argv);
}
