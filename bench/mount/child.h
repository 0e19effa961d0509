// Programs that the benchmark runs. Main thread only: a child ends with the thread that made it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace bench {

using Words = std::vector<std::string>;

class Child {
 public:
  /// `environment`: NAME=VALUE, in place of this process's. Its output goes to `log`.
  Child(const Words& command, const Words& environment, const std::filesystem::path& log);
  /// Kills it if it still runs.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool IsRunning();
  void Signal(int number) const;
  /// Waits for its end; its exit code, -1 when a signal ended it.
  int Wait();
  /// The most memory it has had resident so far, in bytes.
  int64_t PeakMemory() const;

 private:
  pid_t process;
  int status = 0;
};

/// Runs a program to its end; throws std::runtime_error when it fails.
void Run(const Words& command, const Words& environment = {"PATH=/usr/bin:/bin"});

double Now();  ///< seconds, steady
/// Waits until `done` says so; throws std::runtime_error, naming `what`, when it takes longer than
/// `limit` seconds.
void Until(const std::string& what, double limit, const std::function<bool()>& done);

}  // namespace bench
