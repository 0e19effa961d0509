#include "policy/backoff.h"

#include <algorithm>
#include <chrono>

#include "util/clock.h"

ExponentialBackoff::ExponentialBackoff() : ExponentialBackoff({429}, 5) {}

ExponentialBackoff::ExponentialBackoff(const std::deque<int>& retriedCodes, int count)
    : codes(retriedCodes), max(std::clamp(count, 5, 16)), left(max) {}

bool ExponentialBackoff::IsBackoffCode(int status) {
  return std::find(codes.begin(), codes.end(), status) != codes.end();
}

int ExponentialBackoff::Backoff() {
  if (max == 0) return kBackoffRefused;
  const int spent = max - left;
  --left;
  // Past any budget that the constructor gives; a longer wait could not be expressed.
  if (spent < 31) SleepFor(std::chrono::seconds(1LL << spent));
  return kBackoffDone;
}
