#include "host/mount/traffic_meter.h"

#include <algorithm>
#include <optional>

namespace host::mount {
namespace {

/// Bytes that are there of a file that is being fetched; nothing when it is not.
std::optional<int64_t> FetchedSoFar(Content& content) {
  std::lock_guard lock(content.mutex);
  if (content.fetches.empty()) return std::nullopt;
  return std::min(content.pages.PresentPages() * kPageBytes, content.Size());
}

}  // namespace

std::vector<TrafficMeter::Transfer> TrafficMeter::UnderWay() {
  std::vector<Transfer> transfers;
  for (const UploadQueue::Transferring& upload : queue.Transfers())
    transfers.push_back({.up = true, .ino = upload.ino, .size = upload.size, .done = upload.done});
  for (const ContentPtr& content : store.Live()) {
    const std::optional<int64_t> done = FetchedSoFar(*content);
    if (!done) continue;
    std::lock_guard lock(state.mutex);
    if (const std::optional<ContentRow> row = state.contents.Find(content->number))
      transfers.push_back({.up = false, .ino = row->ino, .size = content->Size(), .done = *done});
  }
  return transfers;
}

void TrafficMeter::Measure() {
  const std::vector<Transfer> transfers = UnderWay();
  const Rates now{remote.Counted().down, remote.Counted().up};
  std::lock_guard lock(mutex);
  const auto passed = std::chrono::duration<double>(Clock::now() - measured).count();
  measured = Clock::now();
  const auto rate = [passed](int64_t from, int64_t to) {
    return static_cast<int64_t>(static_cast<double>(std::max<int64_t>(to - from, 0)) / passed);
  };
  rates = {rate(counted.down, now.down), rate(counted.up, now.up)};
  counted = now;
  std::map<Key, Course> before;
  courses.swap(before);
  for (const Transfer& transfer : transfers) {
    const Key key{transfer.up, transfer.ino};
    const auto known = before.find(key);
    // Some of what is fetched now may have been there already; what is sent begins at its start.
    const int64_t unmoved = transfer.up ? 0 : transfer.done;
    const int64_t from = known == before.end() ? unmoved : known->second.done;
    courses[key] = {transfer.done, rate(from, transfer.done)};
  }
}

TrafficMeter::Rates TrafficMeter::Overall() {
  std::lock_guard lock(mutex);
  return rates;
}

std::vector<TrafficMeter::Transfer> TrafficMeter::Transfers() {
  std::vector<Transfer> transfers = UnderWay();
  std::lock_guard lock(mutex);
  for (Transfer& transfer : transfers)
    if (const auto course = courses.find({transfer.up, transfer.ino}); course != courses.end())
      transfer.rate = course->second.rate;
  return transfers;
}

}  // namespace host::mount
