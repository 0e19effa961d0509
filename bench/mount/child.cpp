#include "bench/mount/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "host/core/paths.h"

namespace bench {
namespace {

std::vector<char*> Pointers(Words& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

Child::Child(const Words& command, const Words& environment, const std::filesystem::path& log) {
  Words arguments = command;
  Words variables = environment;
  const std::vector<char*> argv = Pointers(arguments);
  const std::vector<char*> envp = Pointers(variables);
  const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  process = fork();
  if (process < 0) throw std::runtime_error("cannot start " + command[0]);
  if (process > 0) {
    close(output);
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execvpe(argv[0], argv.data(), envp.data());
  _exit(127);
}

Child::~Child() {
  if (process < 0) return;
  Signal(SIGKILL);
  Wait();
}

bool Child::IsRunning() {
  if (process >= 0 && waitpid(process, &status, WNOHANG) == process) process = -1;
  return process >= 0;
}

void Child::Signal(int number) const {
  if (process >= 0) kill(process, number);
}

int Child::Wait() {
  if (process >= 0) waitpid(process, &status, 0);
  process = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int64_t Child::PeakMemory() const {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string word; file >> word;) {
    int64_t kibibytes = 0;
    if (word == "VmHWM:" && file >> kibibytes) return kibibytes * 1024;
  }
  return 0;
}

void Run(const Words& command, const Words& environment) {
  const host::TemporaryDirectory directory("vormlane-bench-run-");
  Child child(command, environment, directory.Path() / "log");
  if (child.Wait() == 0) return;
  std::ifstream log(directory.Path() / "log");
  const std::string words(std::istreambuf_iterator<char>(log), {});
  throw std::runtime_error(
      command[0] + " failed: " + words.substr(words.size() - std::min<size_t>(words.size(), 500)));
}

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void Until(const std::string& what, double limit, const std::function<bool()>& done) {
  const double start = Now();
  while (!done()) {
    if (Now() - start > limit) throw std::runtime_error("waited in vain: " + what);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

}  // namespace bench
