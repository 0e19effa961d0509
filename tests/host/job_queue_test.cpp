#include "host/core/job_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>

namespace host {
namespace {

struct CountingJob final : IAsyncObj {
  AERROR Process(void* given) override {
    context = given;
    ++processed;
    if (wait) wait->wait();
    if (fail) throw std::runtime_error("a job's own trouble");
    return AERROR::SUCCESS;
  }
  void Canceled(void*) override { ++canceled; }

  std::atomic<int> processed{0};
  std::atomic<int> canceled{0};
  std::atomic<void*> context{nullptr};
  std::shared_future<void>* wait = nullptr;
  bool fail = false;
};

TEST(JobQueue, EachJobSeesExactlyOneOfItsTwoEnds) {
  std::vector<std::unique_ptr<CountingJob>> jobs;
  for (int i = 0; i < 200; ++i) jobs.push_back(std::make_unique<CountingJob>());
  std::atomic<int> refused{0};
  {
    JobQueue queue(3);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        for (size_t i = static_cast<size_t>(t); i < jobs.size(); i += 4)
          if (queue.Enqueue(jobs[i].get(), nullptr) != AERROR::SUCCESS) ++refused;
      });
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(refused, 0);
  for (const auto& job : jobs) EXPECT_EQ(job->processed + job->canceled, 1);
}

TEST(JobQueue, StopWaitsForTheRunningJobAndCancelsTheWaitingOne) {
  std::promise<void> release;
  std::shared_future<void> released(release.get_future());
  CountingJob running;
  running.wait = &released;
  CountingJob waiting;
  JobQueue queue(1);
  int context = 0;
  ASSERT_EQ(queue.Enqueue(&running, &context), AERROR::SUCCESS);
  while (running.processed == 0) std::this_thread::yield();
  ASSERT_EQ(queue.Enqueue(&waiting, nullptr), AERROR::SUCCESS);
  auto stopped = std::async(std::launch::async, [&] { queue.Stop(); });
  CountingJob late;
  while (queue.Enqueue(&late, nullptr) == AERROR::SUCCESS) std::this_thread::yield();
  release.set_value();
  stopped.get();
  EXPECT_EQ(running.context, &context);
  EXPECT_EQ(running.canceled, 0);
  EXPECT_EQ(waiting.processed, 0);
  EXPECT_EQ(waiting.canceled, 1);
  EXPECT_EQ(late.processed, 0);
}

TEST(JobQueue, RefusesNothingnessAndWorkAfterItsEnd) {
  CountingJob job;
  JobQueue queue(1);
  EXPECT_EQ(queue.Enqueue(nullptr, nullptr), AERROR::ASYNCQ_NULLOBJECT);
  queue.Stop();
  EXPECT_EQ(queue.Enqueue(&job, nullptr), AERROR::ASYNCQ_STOPPED);
  EXPECT_EQ(job.processed + job.canceled, 0);
}

TEST(JobQueue, AThrowingJobDoesNotTakeItsThreadAlong) {
  CountingJob bad;
  bad.fail = true;
  CountingJob good;
  {
    JobQueue queue(1);
    queue.Enqueue(&bad, nullptr);
    queue.Enqueue(&good, nullptr);
    while (good.processed == 0) std::this_thread::yield();
  }
  EXPECT_EQ(good.processed, 1);
}

}  // namespace
}  // namespace host
