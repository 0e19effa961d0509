// How long programs are kept waiting for the service.
//
// A program that waited in vain for all of its patience has shown that the service is silent:
// until something is heard of it again, the ones that follow are let go after a moment, so that a
// file manager without a network is slow once and not for every file. A program that was killed is
// let go at once.
//
// Thread-safe.
#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "host/mount/remote.h"
#include "host/mount/settings.h"

namespace host::mount {

/// While it lives, the waits of its thread ask it whether anybody still wants their outcome.
class CallerWatch {
 public:
  explicit CallerWatch(std::function<bool()> gone);
  ~CallerWatch();
  CallerWatch(const CallerWatch&) = delete;
  CallerWatch& operator=(const CallerWatch&) = delete;

  /// False where there is no watch: background work is always wanted.
  static bool CallerIsGone();

 private:
  const std::function<bool()> gone;
};

class Patience {
 public:
  class Wait;

  Patience(const Remote& itsRemote, Milliseconds itsWhole) : remote(itsRemote), whole(itsWhole) {}

  /// From now on nobody waits: the mount ends.
  void End() { ended = true; }
  bool IsSilent() const { return silentSince == remote.Heard(); }

 private:
  using Clock = std::chrono::steady_clock;

  static constexpr Milliseconds kWhileSilent{1000};
  /// Nothing wakes a wait whose program was killed.
  static constexpr Milliseconds kBetweenLooks{200};

  const Remote& remote;
  const Milliseconds whole;
  std::atomic<bool> ended{false};
  std::atomic<int64_t> silentSince{-1};  ///< what Remote::Heard was when somebody waited in vain
};

/// What one program waits for, however many tries it takes. Used by one thread.
class Patience::Wait {
 public:
  explicit Wait(Patience& itsPatience)
      : patience(itsPatience),
        heard(patience.remote.Heard()),
        first(patience.IsSilent() ? std::min(patience.whole, kWhileSilent) : patience.whole) {}

  /// Waits on `changed`, which goes with `lock`, until `over()`. Time counts from the last change
  /// of what `progress()` returns. 0, ETIMEDOUT, EINTR, or EIO at the end.
  template <typename Over, typename Progress>
  int Until(std::unique_lock<std::mutex>& lock, std::condition_variable& changed, Over&& over,
            Progress&& progress);
  /// It was for nothing; the error, for the caller's convenience.
  int InVain(int error) {
    if (patience.remote.Heard() == heard) patience.silentSince = heard;
    return error;
  }

 private:
  Clock::time_point Deadline() const {
    return begin + (patience.remote.Heard() == heard ? first : patience.whole);
  }

  Patience& patience;
  const int64_t heard;
  const Milliseconds first;
  Clock::time_point begin = Clock::now();
};

template <typename Over, typename Progress>
int Patience::Wait::Until(std::unique_lock<std::mutex>& lock, std::condition_variable& changed,
                          Over&& over, Progress&& progress) {
  auto seen = progress();
  while (!over()) {
    if (patience.ended) return EIO;
    if (Clock::now() >= Deadline()) return InVain(ETIMEDOUT);
    changed.wait_until(lock, std::min(Deadline(), Clock::now() + kBetweenLooks));
    if (CallerWatch::CallerIsGone()) return over() ? 0 : EINTR;
    const auto now = progress();
    if (now != seen) begin = Clock::now();
    seen = now;
  }
  return 0;
}

}  // namespace host::mount
