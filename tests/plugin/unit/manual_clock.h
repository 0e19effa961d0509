// A steady clock that only moves when it is told to or when somebody sleeps.
#pragma once

#include <mutex>
#include <vector>

#include "util/clock.h"

class ManualClock {
 public:
  void Advance(std::chrono::nanoseconds by) {
    const std::lock_guard guard(mutex);
    now += by;
  }

  /// Milliseconds of each sleep so far.
  std::vector<long long> Sleeps() const {
    const std::lock_guard guard(mutex);
    return sleeps;
  }

 private:
  mutable std::mutex mutex;
  SteadyTime now{std::chrono::hours(1000)};
  std::vector<long long> sleeps;
  const ClockOverride clock{[this] {
                              const std::lock_guard guard(mutex);
                              return now;
                            },
                            [this](std::chrono::milliseconds duration) {
                              const std::lock_guard guard(mutex);
                              sleeps.push_back(duration.count());
                              now += duration;
                            }};
};
