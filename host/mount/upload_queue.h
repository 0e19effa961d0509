// When what is owed to the service is settled, and by which thread.
//
// Every item with a journal row has an entry: due at some time, being worked on, or blocked on
// another item. Failures are tried again after growing waits, for as long as it takes.
//
// Thread-safe; no function is called with the mutex of State held.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/mount/files.h"
#include "host/mount/settler.h"

namespace host::mount {

class UploadQueue final : public Owed {
 public:
  UploadQueue(State& itsState, Settler& itsSettler, const Settings& itsSettings)
      : state(itsState), settler(itsSettler), settings(itsSettings) {}
  ~UploadQueue() { Stop(); }

  /// Takes up what the journal holds and starts the threads.
  void Start();
  /// Abandons transfers, waits for the threads. What is owed stays in the journal.
  void Stop();

  /// A journal row was written or changed.
  void Changed(Inode ino) { Schedule(ino, settings.uploadDelay); }

  /// Takes up what State::newlyOwed holds.
  void TakeUp();

  // Owed
  void Committed(Inode ino, bool heldOpen) override;
  int AwaitSettled(Inode ino) override;

  /// Everything is due now, failures included.
  void Hurry();
  /// Waits until nothing is owed but files that programs are still writing; meanwhile nothing is
  /// put off that has not failed. False when the time passes first.
  bool Drain(Milliseconds limit);
  /// Items that are owed.
  int64_t Pending();

  struct Transferring {
    Inode ino = 0;
    int64_t size = 0;
    int64_t done = 0;  ///< bytes
  };
  std::vector<Transferring> Transfers();

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    Clock::time_point due;
    bool scheduled = false;
    bool running = false;
    bool again = false;    // changed while it ran
    bool waiting = false;  // for a program's close
    Milliseconds delay{0};
    int failures = 0;
    std::shared_ptr<Sending> sending;
    std::set<Inode> dependents;
  };

  void Schedule(Inode ino, Milliseconds delay);
  void ScheduleLocked(Inode ino, Milliseconds delay);
  void Unschedule(Inode ino, Entry& entry);
  void Work();
  void RunOne(std::unique_lock<std::mutex>& lock, Inode ino);
  void NoteRefusal(Inode ino, const std::string& why);
  void Conclude(Inode ino, const Verdict& verdict);
  void Release(Entry& entry);
  bool Quiet() const;

  State& state;
  Settler& settler;
  const Settings& settings;
  std::mutex mutex;  // a leaf; guards all below
  std::condition_variable wake, idle;
  std::map<Inode, Entry> entries;
  std::set<std::pair<Clock::time_point, Inode>> timetable;
  bool stopping = false;
  int hurrying = 0;  // callers of Drain: nothing is delayed
  std::vector<std::thread> threads;
};

}  // namespace host::mount
