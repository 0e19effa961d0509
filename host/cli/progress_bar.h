// One line on a terminal that shows how far a transfer is.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace host {

/// Draws on standard error, at most ten times a second; nothing at all when that is no terminal.
/// One thread at a time.
class ProgressBar {
 public:
  /// `total` in bytes.
  ProgressBar(std::string label, int64_t total);
  /// Takes the line away, so that a message can stand there.
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// `done` bytes so far; may go back when a transfer starts over.
  void Update(int64_t done);
  /// Replaces the bar by a line that stays: what was moved and how fast.
  void Finish(const std::string& verb);

 private:
  using Clock = std::chrono::steady_clock;

  void Draw(int64_t done, Clock::time_point now);

  const std::string label;
  const int64_t total;
  const bool visible;
  const Clock::time_point start;
  Clock::time_point drawn;
  int64_t drawnDone = 0;
  double rate = 0;  ///< bytes per second, smoothed
  bool onScreen = false;
};

}  // namespace host
