#include "host/core/job_queue.h"

#include <algorithm>
#include <utility>

namespace host {

JobQueue::JobQueue(int count) {
  for (int i = 0; i < std::max(count, 1); ++i) threads.emplace_back([this] { Work(); });
}

JobQueue::~JobQueue() { Stop(); }

void JobQueue::Stop() {
  std::deque<Entry> left;
  {
    std::lock_guard lock(mutex);
    stopping = true;
    left.swap(waiting);
  }
  wake.notify_all();
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  for (const Entry& entry : left) {
    try {
      entry.job->Canceled(entry.context);
    } catch (...) {
      // The others must still be told.
    }
  }
}

AERROR JobQueue::Enqueue(IAsyncObj* job, void* context) {
  if (job == nullptr) return AERROR::ASYNCQ_NULLOBJECT;
  {
    std::lock_guard lock(mutex);
    if (stopping) return AERROR::ASYNCQ_STOPPED;
    waiting.push_back({job, context});
  }
  wake.notify_one();
  return AERROR::SUCCESS;
}

void JobQueue::Work() {
  for (;;) {
    std::unique_lock lock(mutex);
    wake.wait(lock, [this] { return stopping || !waiting.empty(); });
    if (stopping) return;
    const Entry entry = waiting.front();
    waiting.pop_front();
    lock.unlock();
    try {
      entry.job->Process(entry.context);
    } catch (...) {
      // A job has nobody to report to; the thread goes on to the next.
    }
  }
}

}  // namespace host
