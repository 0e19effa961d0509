// The plug-in's jobs on a few threads.
//
// A job that is accepted sees exactly one of Process and Canceled, with the context it came with;
// the queue never owns it. Enqueue may be called from any thread, from inside a job too.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "plugin/host_interfaces.h"

namespace host {

class JobQueue final : public IAsyncQueue {
 public:
  explicit JobQueue(int threads);
  ~JobQueue();
  JobQueue(const JobQueue&) = delete;
  JobQueue& operator=(const JobQueue&) = delete;

  /// Waits for the jobs that run, tells the waiting ones that they are cancelled, and refuses new
  /// ones. Not to be called from a job. Calling it again does nothing.
  void Stop();

  // IAsyncQueue. SUCCESS, ASYNCQ_NULLOBJECT for a null job, ASYNCQ_STOPPED after Stop.
  void Reserved0() override {}
  AERROR Enqueue(IAsyncObj* job, void* context) override;

 private:
  struct Entry {
    IAsyncObj* job;
    void* context;
  };

  void Work();

  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Entry> waiting;  // guarded by mutex
  bool stopping = false;      // guarded by mutex
  std::vector<std::thread> threads;
};

}  // namespace host
