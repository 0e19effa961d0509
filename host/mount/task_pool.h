// Threads for requests to the service, those that a program waits for first.
//
// Background tasks never take more than their share of the threads, so that a program that asks
// for something finds one free. All operations may be called from any thread, tasks included.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace host::mount {

enum class Urgency { kInteractive, kBackground };

class TaskPool {
 public:
  using Task = std::function<void()>;

  /// At most `backgroundThreads` of `threads` run background tasks at a time.
  TaskPool(int threads, int backgroundThreads);
  ~TaskPool();
  TaskPool(const TaskPool&) = delete;
  TaskPool& operator=(const TaskPool&) = delete;

  /// False after Stop: the task is dropped. Tasks must not throw.
  bool Submit(Urgency urgency, Task task);
  /// Background tasks that have not begun.
  size_t Backlog() const;
  /// Drops the tasks that have not begun and waits for those that run.
  void Stop();

 private:
  void Work();
  bool CanRun() const;
  Task Take(bool& background);

  mutable std::mutex mutex;
  std::condition_variable wake;
  std::deque<Task> interactive, waiting;  // guarded by mutex, as is all below
  const int backgroundLimit;
  int backgroundRunning = 0;
  bool stopping = false;
  std::vector<std::thread> threads;
};

}  // namespace host::mount
