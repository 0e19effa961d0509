// A bandwidth limit shared by all connections, one object for each direction.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "emulator/stopper.h"

namespace emulator {

/// May be used from any thread.
class Shaper {
 public:
  explicit Shaper(Stopper& stop) : stopper(stop) {}

  /// `bytesPerSecond` 0: unlimited.
  void SetRate(int64_t bytesPerSecond);
  /// How much of `wanted` bytes to move in one piece, so that connections share fairly.
  size_t Slice(size_t wanted) const;
  /// Waits until `bytes` may pass.
  void Take(size_t bytes);

 private:
  Stopper& stopper;
  mutable std::mutex mutex;
  int64_t rate = 0;
  Stopper::Clock::time_point free{};  ///< when everything granted so far has passed
};

}  // namespace emulator
