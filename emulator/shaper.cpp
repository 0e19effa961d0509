#include "emulator/shaper.h"

#include <algorithm>

namespace emulator {

namespace {

// Time that the line may run ahead: without it, sleeping's coarse grain would cost bandwidth.
constexpr std::chrono::milliseconds kBurst{4};
constexpr int64_t kSlicesPerSecond = 100;

}  // namespace

void Shaper::SetRate(int64_t bytesPerSecond) {
  const std::lock_guard lock(mutex);
  rate = bytesPerSecond;
  free = {};
}

size_t Shaper::Slice(size_t wanted) const {
  const std::lock_guard lock(mutex);
  if (rate <= 0) return wanted;
  return std::min(wanted,
                  static_cast<size_t>(std::clamp<int64_t>(rate / kSlicesPerSecond, 1, 65536)));
}

void Shaper::Take(size_t bytes) {
  Stopper::Clock::time_point start;
  {
    const std::lock_guard lock(mutex);
    if (rate <= 0) return;
    free = std::max(free, Stopper::Clock::now() - kBurst);
    free += std::chrono::nanoseconds(static_cast<int64_t>(bytes) * 1'000'000'000 / rate);
    start = free;
  }
  if (start > Stopper::Clock::now()) stopper.WaitUntil(start);
}

}  // namespace emulator
