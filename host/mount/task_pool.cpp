#include "host/mount/task_pool.h"

#include <utility>

namespace host::mount {

TaskPool::TaskPool(int count, int backgroundThreads) : backgroundLimit(backgroundThreads) {
  for (int i = 0; i < count; ++i) threads.emplace_back([this] { Work(); });
}

TaskPool::~TaskPool() { Stop(); }

bool TaskPool::Submit(Urgency urgency, Task task) {
  {
    std::lock_guard lock(mutex);
    if (stopping) return false;
    (urgency == Urgency::kInteractive ? interactive : waiting).push_back(std::move(task));
  }
  wake.notify_one();
  return true;
}

size_t TaskPool::Backlog() const {
  std::lock_guard lock(mutex);
  return waiting.size();
}

void TaskPool::Stop() {
  std::deque<Task> dropped[2];
  {
    std::lock_guard lock(mutex);
    stopping = true;
    dropped[0].swap(interactive);
    dropped[1].swap(waiting);
  }
  wake.notify_all();
  for (std::thread& thread : threads)
    if (thread.joinable()) thread.join();
}

bool TaskPool::CanRun() const {
  return !interactive.empty() || (!waiting.empty() && backgroundRunning < backgroundLimit);
}

TaskPool::Task TaskPool::Take(bool& background) {
  background = interactive.empty();
  std::deque<Task>& from = background ? waiting : interactive;
  Task task = std::move(from.front());
  from.pop_front();
  return task;
}

void TaskPool::Work() {
  std::unique_lock lock(mutex);
  for (;;) {
    wake.wait(lock, [this] { return stopping || CanRun(); });
    if (stopping) return;
    bool background = false;
    Task task = Take(background);
    backgroundRunning += background;
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
    backgroundRunning -= background;
    // A thread that was woken for a background task over the limit went back to sleep.
    if (background) wake.notify_one();
  }
}

}  // namespace host::mount
