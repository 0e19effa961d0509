#include "host/cli/emulator_process.h"

#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "host/core/descriptor.h"
#include "host/core/failure.h"
#include "host/core/json_text.h"
#include "host/core/paths.h"

extern char** environ;

namespace host {
namespace {

constexpr char kAdvice[] = "build the target drive-emulator, which belongs beside this program";

/// Starts the program with its standard output going to `output`.
pid_t Spawn(std::string program, std::vector<std::string> options, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // A Ctrl-C is for us; we end the emulator ourselves when we are through.
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  std::vector<char*> arguments = {program.data()};
  for (std::string& option : options) arguments.push_back(option.data());
  arguments.push_back(nullptr);
  pid_t child = -1;
  const int error =
      posix_spawn(&child, program.c_str(), &actions, &attributes, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw Failure("cannot start " + program + ": " + std::strerror(error), kAdvice);
  return child;
}

std::string ReadLine(int descriptor) {
  std::string line;
  char c = 0;
  for (;;) {
    const ssize_t count = read(descriptor, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0 || c == '\n') return line;
    line += c;
  }
}

Json::Value Body(const httplib::Result& result, const std::string& path) {
  if (!result || result->status / 100 != 2)
    throw Failure("the emulator refused " + path, "run again with --verbose");
  return ParseJson(result->body).value_or(Json::Value());
}

}  // namespace

EmulatorProcess::EmulatorProcess(std::vector<std::string> options) {
  const auto program = ExecutablePath().parent_path() / "drive-emulator";
  int ends[2];
  if (pipe(ends) != 0) throw Failure(std::string("cannot make a pipe: ") + std::strerror(errno));
  const Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  fcntl(ends[0], F_SETFD, FD_CLOEXEC);
  fcntl(ends[1], F_SETFD, FD_CLOEXEC);
  pid = Spawn(program.string(), std::move(options), writer.Get());
  writer = Descriptor();
  announcement = ReadLine(reader.Get());
  if (announcement.rfind("ready ", 0) == 0) return;
  Stop();
  throw Failure(program.string() + " did not come up", kAdvice);
}

EmulatorProcess::~EmulatorProcess() { Stop(); }

void EmulatorProcess::Stop() {
  kill(pid, SIGTERM);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::string EmulatorProcess::Address(const std::string& name) const {
  std::istringstream words(announcement);
  for (std::string word; words >> word;)
    if (word.rfind(name + "=", 0) == 0) return word.substr(name.size() + 1);
  throw Failure("the emulator announced no address \"" + name + "\"", kAdvice);
}

Json::Value EmulatorProcess::Get(const std::string& path) const {
  return Body(httplib::Client(Address("admin")).Get(path), path);
}

Json::Value EmulatorProcess::Post(const std::string& path, const Json::Value& body) const {
  return Body(httplib::Client(Address("admin")).Post(path, CompactJson(body), "application/json"),
              path);
}

}  // namespace host
