#include "host/mount/upload_queue.h"

#include <algorithm>
#include <cerrno>

namespace host::mount {
namespace {

/// Blocked entries are looked at again after this even when nobody released them.
constexpr Milliseconds kBlockedAtMost{5000};

}  // namespace

void UploadQueue::Start() {
  std::vector<JournalRow> rows;
  {
    std::lock_guard lock(state.mutex);
    rows = state.journal.All();
  }
  std::lock_guard lock(mutex);
  for (const JournalRow& row : rows) ScheduleLocked(row.ino, Milliseconds(0));
  for (int i = 0; i < settings.uploads; ++i) threads.emplace_back([this] { Work(); });
}

void UploadQueue::Stop() {
  {
    std::lock_guard lock(mutex);
    stopping = true;
    for (auto& [ino, entry] : entries)
      if (entry.sending) Abandon(entry.sending->transfer);
  }
  wake.notify_all();
  idle.notify_all();
  for (std::thread& thread : threads) thread.join();
  threads.clear();
}

void UploadQueue::TakeUp() {
  std::vector<Inode> owed;
  {
    std::lock_guard lock(state.mutex);
    owed.swap(state.newlyOwed);
  }
  std::lock_guard lock(mutex);
  for (const Inode ino : owed) ScheduleLocked(ino, Milliseconds(0));
}

void UploadQueue::Committed(Inode ino, bool heldOpen) {
  Schedule(ino, heldOpen ? settings.heldOpenDelay : settings.uploadDelay);
}

void UploadQueue::Schedule(Inode ino, Milliseconds delay) {
  bool owed = false;
  {
    std::lock_guard lock(state.mutex);
    owed = state.journal.Has(ino);
  }
  std::lock_guard lock(mutex);
  // One that was waiting for a program's close may owe nothing any more: a step finds out.
  if (owed || entries.count(ino) != 0) ScheduleLocked(ino, hurrying > 0 ? Milliseconds(0) : delay);
}

void UploadQueue::ScheduleLocked(Inode ino, Milliseconds delay) {
  Entry& entry = entries[ino];
  entry.waiting = false;
  if (entry.running) {
    entry.again = true;
    entry.delay = delay;
    return;
  }
  Unschedule(ino, entry);
  entry.scheduled = true;
  entry.due = Clock::now() + delay;
  timetable.emplace(entry.due, ino);
  wake.notify_one();
}

void UploadQueue::Unschedule(Inode ino, Entry& entry) {
  if (entry.scheduled) timetable.erase({entry.due, ino});
  entry.scheduled = false;
}

void UploadQueue::Work() {
  std::unique_lock lock(mutex);
  while (!stopping) {
    if (timetable.empty()) {
      wake.wait(lock);
      continue;
    }
    const auto [due, ino] = *timetable.begin();
    if (due > Clock::now())
      wake.wait_until(lock, due);
    else
      RunOne(lock, ino);
  }
}

void UploadQueue::RunOne(std::unique_lock<std::mutex>& lock, Inode ino) {
  Entry& entry = entries[ino];
  Unschedule(ino, entry);
  entry.running = true;
  entry.again = false;
  entry.sending = std::make_shared<Sending>();
  const std::shared_ptr<Sending> sending = entry.sending;
  lock.unlock();
  Verdict verdict;
  bool progress = false;
  try {
    for (;;) {
      verdict = settler.Step(ino, *sending);
      if (verdict.kind != Verdict::kProgress || sending->transfer->status >= 3) break;
      progress = true;
    }
    if (verdict.kind == Verdict::kFailed && sending->transfer->status < 3)
      settler.NoteFailure(ino, verdict.error);
  } catch (const std::exception& failure) {
    verdict = {.kind = Verdict::kFailed, .error = failure.what()};
    NoteRefusal(ino, verdict.error);
  }
  TakeUp();
  lock.lock();
  // What waits for this one may go on, if only to see that it must wait longer.
  if (progress || verdict.kind != Verdict::kBlocked) Release(entries[ino]);
  Conclude(ino, verdict);
}

/// The tables or the files refused; perhaps they take the reason.
void UploadQueue::NoteRefusal(Inode ino, const std::string& why) {
  try {
    settler.NoteFailure(ino, why);
  } catch (const std::exception&) {
    // It is tried again all the same.
  }
}

void UploadQueue::Conclude(Inode ino, const Verdict& verdict) {
  Entry& entry = entries[ino];
  entry.running = false;
  entry.sending.reset();
  if (verdict.kind != Verdict::kFailed) entry.failures = 0;
  if (entry.again) return ScheduleLocked(ino, entry.delay);
  switch (verdict.kind) {
    case Verdict::kSettled:
      entries.erase(ino);
      break;
    case Verdict::kProgress:
      ScheduleLocked(ino, Milliseconds(0));
      break;
    case Verdict::kBlocked: {
      const auto other = entries.find(verdict.on);
      const bool there = other != entries.end() && verdict.on != ino;
      if (there) other->second.dependents.insert(ino);
      ScheduleLocked(ino, there ? kBlockedAtMost : settings.uploadDelay);
      break;
    }
    case Verdict::kWaiting:
      entry.waiting = true;
      break;
    case Verdict::kPause:
      ScheduleLocked(ino, verdict.pause);
      break;
    case Verdict::kFailed: {
      const int doublings = std::min(entry.failures++, 16);
      ScheduleLocked(ino, std::min(settings.retryFirst * (1 << doublings), settings.retryLast));
      break;
    }
  }
  idle.notify_all();
}

void UploadQueue::Release(Entry& entry) {
  const std::set<Inode> released = std::move(entry.dependents);
  entry.dependents.clear();
  for (const Inode ino : released)
    if (entries.count(ino) != 0) ScheduleLocked(ino, Milliseconds(0));
}

void UploadQueue::Hurry() {
  std::lock_guard lock(mutex);
  for (auto& [ino, entry] : entries)
    if (entry.scheduled) ScheduleLocked(ino, Milliseconds(0));
}

bool UploadQueue::Quiet() const {
  return std::all_of(entries.begin(), entries.end(),
                     [](const auto& entry) { return entry.second.waiting; });
}

bool UploadQueue::Drain(Milliseconds limit) {
  std::unique_lock lock(mutex);
  // What fails keeps its growing waits: asking more often would not help a service in trouble.
  for (auto& [ino, entry] : entries)
    if (entry.scheduled && entry.failures == 0) ScheduleLocked(ino, Milliseconds(0));
  ++hurrying;
  const bool quiet = idle.wait_for(lock, limit, [this] { return stopping || Quiet(); });
  --hurrying;
  return quiet && !stopping;
}

int UploadQueue::AwaitSettled(Inode ino) {
  Hurry();
  std::unique_lock lock(mutex);
  const auto over = [&] {
    const auto at = entries.find(ino);
    return stopping || at == entries.end() || at->second.waiting || at->second.failures > 0;
  };
  if (!idle.wait_for(lock, settings.patience * 10, over)) return ETIMEDOUT;
  const auto at = entries.find(ino);
  return at == entries.end() || at->second.waiting ? 0 : EIO;
}

int64_t UploadQueue::Pending() {
  std::lock_guard lock(mutex);
  return static_cast<int64_t>(entries.size());
}

std::vector<UploadQueue::Transferring> UploadQueue::Transfers() {
  std::lock_guard lock(mutex);
  std::vector<Transferring> running;
  for (const auto& [ino, entry] : entries)
    if (entry.sending && entry.sending->size > 0)
      running.push_back({ino, entry.sending->size, entry.sending->sent});
  return running;
}

}  // namespace host::mount
