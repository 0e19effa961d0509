// The faults that wait for a request.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "emulator/drive_emulator.h"

namespace emulator {

/// Any thread.
class FaultQueue {
 public:
  using Clock = std::chrono::steady_clock;

  /// Throws std::invalid_argument saying which member is wrong.
  void Add(const Fault& fault);
  /// The first fault for a request of `method` with these headers (lower-case names), used up by
  /// one. Rate limits are not among them.
  std::optional<Fault> Take(const std::string& method,
                            const std::map<std::string, std::string>& headers);
  /// The rate limit that a request of `user` at `now` is over, if any.
  std::optional<Fault> OverLimit(const std::string& method, const std::string& user,
                                 Clock::time_point now);
  std::vector<Fault> Pending() const;
  void Clear();

 private:
  struct Bucket {
    double tokens = 0;
    Clock::time_point filled;
  };

  mutable std::mutex mutex;
  std::deque<Fault> queue;
  std::vector<Fault> limits;
  std::map<std::string, Bucket> buckets;  ///< by user
};

}  // namespace emulator
