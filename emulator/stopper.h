// Waiting that ends early when the emulator stops.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace emulator {

/// Any number of threads may wait; Stop wakes them all, for good.
class Stopper {
 public:
  using Clock = std::chrono::steady_clock;

  /// False when the emulator is stopping.
  bool WaitUntil(Clock::time_point end) {
    std::unique_lock lock(mutex);
    return !changed.wait_until(lock, end, [this] { return stopped; });
  }
  bool WaitFor(std::chrono::milliseconds duration) {
    return duration.count() <= 0 || WaitUntil(Clock::now() + duration);
  }
  void Stop() {
    const std::lock_guard lock(mutex);
    stopped = true;
    changed.notify_all();
  }
  bool Stopped() const {
    const std::lock_guard lock(mutex);
    return stopped;
  }

 private:
  mutable std::mutex mutex;
  std::condition_variable changed;
  bool stopped = false;
};

}  // namespace emulator
