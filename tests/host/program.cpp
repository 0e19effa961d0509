#include "tests/host/program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <regex>
#include <stdexcept>

namespace host_test {
namespace {

std::array<int, 2> MakePipe() {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  return ends;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

void WriteAll(int descriptor, const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const ssize_t written = write(descriptor, text.data() + at, text.size() - at);
    if (written <= 0) return;
    at += static_cast<size_t>(written);
  }
}

}  // namespace

Process::Process(const std::vector<std::string>& command,
                 const std::map<std::string, std::string>& environment, const std::string& input) {
  const auto in = MakePipe(), out = MakePipe(), err = MakePipe();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  std::vector<std::string> arguments = command;
  std::vector<std::string> variables;
  for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
  // What the sanitizers are told holds for the program too.
  for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"})
    if (const char* value = std::getenv(name)) variables.push_back(std::string(name) + "=" + value);
  const int error = posix_spawnp(&pid, command[0].c_str(), &actions, nullptr,
                                 Pointers(arguments).data(), Pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  for (const int descriptor : {in[0], out[1], err[1]}) close(descriptor);
  if (error != 0) throw std::runtime_error("cannot start " + command[0]);
  outPipe = out[0];
  errPipe = err[0];
  WriteAll(in[1], input);
  close(in[1]);
}

Process::~Process() {
  if (pid > 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  for (const int descriptor : {outPipe, errPipe})
    if (descriptor >= 0) close(descriptor);
}

void Process::Signal(int number) const { kill(pid, number); }

bool Process::IsRunning() const {
  siginfo_t ended{};
  return waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         ended.si_pid == 0;
}

bool Process::ReadSome() {
  std::array<pollfd, 2> entries = {{{outPipe, POLLIN, 0}, {errPipe, POLLIN, 0}}};
  if (outPipe < 0 && errPipe < 0) return false;
  poll(entries.data(), entries.size(), -1);
  const auto take = [](const pollfd& entry, int& descriptor, std::string& text) {
    if (descriptor < 0 || entry.revents == 0) return;
    std::array<char, 65536> buffer;
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    if (count > 0) {
      text.append(buffer.data(), static_cast<size_t>(count));
      return;
    }
    close(descriptor);
    descriptor = -1;
  };
  take(entries[0], outPipe, outcome.out);
  take(entries[1], errPipe, outcome.err);
  return true;
}

bool Process::WaitForOutput(const std::string& text) {
  while (outcome.out.find(text) == std::string::npos)
    if (!ReadSome()) return false;
  return true;
}

std::string Process::WaitForMatch(const std::string& expression) {
  std::smatch match;
  const std::regex wanted(expression);
  while (!std::regex_search(outcome.out, match, wanted))
    if (!ReadSome()) return "";
  return match[1];
}

Outcome Process::Finish() {
  while (ReadSome()) {
  }
  int status = 0;
  waitpid(pid, &status, 0);
  pid = -1;
  outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

}  // namespace host_test
