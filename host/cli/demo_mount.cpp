#include "host/cli/demo_mount.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "host/core/failure.h"

extern char** environ;

namespace host {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{20};
constexpr int kLooks = 500;

/// Our environment with the demo's variables in the place of those of the same name.
std::vector<std::string> Combined(const std::vector<std::string>& own) {
  std::vector<std::string> variables = own;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string variable = *entry;
    const std::string name = variable.substr(0, variable.find('=') + 1);
    bool replaced = false;
    for (const std::string& each : own) replaced = replaced || each.rfind(name, 0) == 0;
    if (!replaced) variables.push_back(variable);
  }
  return variables;
}

}  // namespace

int RunShell(const DemoDrive& demo, const std::string& command) {
  std::vector<std::string> variables = Combined(demo.Environment());
  std::vector<char*> pointers;
  for (std::string& variable : variables) pointers.push_back(variable.data());
  pointers.push_back(nullptr);
  std::string shell = "sh";
  std::string option = "-c";
  std::string text = command;
  std::array<char*, 4> arguments = {shell.data(), option.data(), text.data(), nullptr};
  pid_t child = -1;
  if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments.data(), pointers.data()) != 0)
    return -1;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string DemoMount::Missing(const DemoDrive& demo) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) return "this machine has no FUSE device";
  if (RunShell(demo, "vormlane mount --help > /dev/null 2>&1") != 0)
    return "this program was built without a FUSE library";
  return {};
}

DemoMount::DemoMount(const DemoDrive& demoDrive) : demo(demoDrive) {
  // Apart from the demo's own directory, which is removed with all that it holds.
  std::string name = (std::filesystem::temp_directory_path() / "drive-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr)
    throw Failure("cannot make the folder " + name + ": " + std::strerror(errno));
  folder = name;
}

DemoMount::~DemoMount() {
  // Answers that it is not mounted when the tour has come to its end.
  RunShell(demo, "vormlane --profile demo unmount --now " + folder.string() + " > /dev/null 2>&1");
  WaitUntilUnmounted();
  rmdir(folder.c_str());
}

int DemoMount::Unmount() const {
  return RunShell(demo, "vormlane --profile demo unmount " + folder.string());
}

bool DemoMount::Mounted() const {
  struct stat inside {};
  struct stat above {};
  if (stat(folder.c_str(), &inside) != 0) return true;  // a mount that nobody serves
  return stat(folder.parent_path().c_str(), &above) == 0 && inside.st_dev != above.st_dev;
}

void DemoMount::WaitUntilUnmounted() const {
  // The kernel lets go of the folder a moment after the host has answered.
  for (int look = 0; look < kLooks && Mounted(); ++look) std::this_thread::sleep_for(kBetweenLooks);
}

}  // namespace host
