// The steady clock and the thread's sleep, replaceable so that hours of waiting test in no time.
#pragma once

#include <chrono>
#include <functional>

using SteadyTime = std::chrono::steady_clock::time_point;

SteadyTime SteadyNow();

/// Blocks the calling thread. Not interruptible.
void SleepFor(std::chrono::milliseconds duration);

/// Replaces both for the whole process while it lives. At most one at a time; the functions are
/// called from any thread.
class ClockOverride {
 public:
  using Now = std::function<SteadyTime()>;
  using Sleep = std::function<void(std::chrono::milliseconds)>;

  ClockOverride(Now now, Sleep sleep);
  ~ClockOverride();
  ClockOverride(const ClockOverride&) = delete;
  ClockOverride& operator=(const ClockOverride&) = delete;

 private:
  friend SteadyTime SteadyNow();
  friend void SleepFor(std::chrono::milliseconds);

  const Now now;
  const Sleep sleep;
};
