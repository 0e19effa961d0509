// Keeps C++ exceptions from travelling through libcurl's C frames.
//
// libcurl calls back into code of ours, and of the host, that may throw. GuardCallback turns an
// exception into the callback's failure value and keeps it; the CallbackScope around the transfer
// rethrows it once libcurl has returned. Kept per thread, since a transfer runs on one thread.
#pragma once

#include <exception>

class CallbackScope {
 public:
  CallbackScope();
  ~CallbackScope();
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

  /// Throws what a callback of this transfer threw first, if anything.
  void Rethrow();

  /// Keeps the exception being handled for the innermost scope of this thread.
  static void KeepCurrentException() noexcept;

 private:
  CallbackScope* outer;  // a callback may run a transfer of its own
  std::exception_ptr kept;
};

/// What `body` returns, or `failed` when it throws.
template <class Result, class Body>
Result GuardCallback(Result failed, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    CallbackScope::KeepCurrentException();
    return failed;
  }
}
