// Says which thread is inside a scope, for code that may be entered again from within.
#pragma once

#include <atomic>
#include <thread>

/// Marks the calling thread in `owner` while it lives.
class ThreadMark {
 public:
  explicit ThreadMark(std::atomic<std::thread::id>& mark) : owner(mark) {
    owner = std::this_thread::get_id();
  }
  ~ThreadMark() { owner = std::thread::id(); }
  ThreadMark(const ThreadMark&) = delete;
  ThreadMark& operator=(const ThreadMark&) = delete;

 private:
  std::atomic<std::thread::id>& owner;
};
