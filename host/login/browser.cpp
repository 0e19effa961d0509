#include "host/login/browser.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace host {
namespace {

#ifdef __APPLE__
constexpr char kOpener[] = "open";
#else
constexpr char kOpener[] = "xdg-open";
#endif

}  // namespace

bool OpenBrowser(const std::string& url) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // What the browser says on its way up does not belong between our lines.
  for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO})
    posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_WRONLY, 0);
  std::string program = kOpener;
  std::string address = url;
  char* arguments[] = {program.data(), address.data(), nullptr};
  pid_t child = 0;
  const int error = posix_spawnp(&child, kOpener, &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return false;
  // The opener hands over to the browser and ends; its result says whether there is one.
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace host
