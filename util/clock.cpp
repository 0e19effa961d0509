#include "util/clock.h"

#include <atomic>
#include <thread>
#include <utility>

namespace {
std::atomic<const ClockOverride*> activeOverride{nullptr};
}  // namespace

ClockOverride::ClockOverride(Now nowFunction, Sleep sleepFunction)
    : now(std::move(nowFunction)), sleep(std::move(sleepFunction)) {
  activeOverride = this;
}

ClockOverride::~ClockOverride() { activeOverride = nullptr; }

SteadyTime SteadyNow() {
  const ClockOverride* active = activeOverride;
  return active ? active->now() : std::chrono::steady_clock::now();
}

void SleepFor(std::chrono::milliseconds duration) {
  const ClockOverride* active = activeOverride;
  if (active) {
    active->sleep(duration);
  } else {
    std::this_thread::sleep_for(duration);
  }
}
