// What moves between the mount and the service, and how fast.
//
// Thread-safe; no function is called with the mutex of State held.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "host/mount/content_store.h"
#include "host/mount/upload_queue.h"

namespace host::mount {

class TrafficMeter {
 public:
  struct Rates {
    int64_t down = 0, up = 0;  ///< bytes per second
  };
  /// A file that is being sent or fetched.
  struct Transfer {
    bool up = false;
    Inode ino = 0;
    int64_t size = 0, done = 0;  ///< bytes
    int64_t rate = 0;            ///< bytes per second; 0 while it is not known
  };

  TrafficMeter(Remote& itsRemote, State& itsState, ContentStore& itsStore, UploadQueue& itsQueue)
      : remote(itsRemote), state(itsState), store(itsStore), queue(itsQueue) {}

  /// The rates are those between the last two calls.
  void Measure();
  Rates Overall();
  std::vector<Transfer> Transfers();

 private:
  using Clock = std::chrono::steady_clock;
  using Key = std::pair<bool, Inode>;  // up, and which file
  struct Course {
    int64_t done = 0;
    int64_t rate = 0;
  };

  std::vector<Transfer> UnderWay();

  Remote& remote;
  State& state;
  ContentStore& store;
  UploadQueue& queue;
  std::mutex mutex;  // a leaf; guards all below
  Clock::time_point measured = Clock::now();
  Rates rates, counted;  // `counted`: bytes so far
  std::map<Key, Course> courses;
};

}  // namespace host::mount
