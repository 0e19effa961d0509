// Ctrl-C (and a request to end) while something is in the making.
//
// While a watch lives, the first SIGINT, SIGTERM or SIGHUP is noted instead of ending the process,
// so that what was begun is taken back in order; a second one ends the process at once. Watches may
// be nested; they belong to one thread.
#pragma once

#include <signal.h>

#include <array>
#include <memory>
#include <string>

#include "plugin/host_interfaces.h"

namespace host {

class InterruptWatch {
 public:
  /// `handle`, when given, is marked as abandoned at once, which stops its transfer.
  explicit InterruptWatch(std::shared_ptr<_FS_HANDLE> handle = nullptr);
  ~InterruptWatch();
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

  static bool Interrupted();
  /// Waits until a signal is noted, Wake is called or `milliseconds` have passed; true when a
  /// signal was noted.
  static bool WaitFor(int milliseconds);
  /// Ends a WaitFor, the running one or the next. Any thread.
  static void Wake();
  /// Throws Failure that names what was stopped ("the download of \"a\"") when one was noted.
  static void ThrowIfInterrupted(const std::string& what);

 private:
  std::shared_ptr<_FS_HANDLE> handle;
  std::array<struct sigaction, 3> before;
};

}  // namespace host
