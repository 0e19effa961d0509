// Runs the real program as a user would, in a home of its own.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace host_test {

struct Outcome {
  int exitCode = -1;  ///< 128 + N when signal N ended it
  std::string out;
  std::string err;
};

/// A program that runs. Ended and waited for at destruction. One thread.
class Process {
 public:
  Process(const std::vector<std::string>& command,
          const std::map<std::string, std::string>& environment, const std::string& input = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void Signal(int number) const;
  /// False once it has ended, waited for or not.
  bool IsRunning() const;
  /// Reads its output until `text` stands in it; false when it ends before that.
  bool WaitForOutput(const std::string& text);
  /// The first group of the expression in the output so far, once it matches; empty when the
  /// output ends before.
  std::string WaitForMatch(const std::string& expression);
  /// What it has written so far and was read.
  const std::string& Output() const { return outcome.out; }
  /// Reads its output to the end and waits for it.
  Outcome Finish();

 private:
  bool ReadSome();

  pid_t pid = -1;
  int outPipe = -1;
  int errPipe = -1;
  Outcome outcome;
};

}  // namespace host_test
