#include "emulator/journal.h"

#include <chrono>
#include <cstdio>

#include "emulator/times.h"

namespace emulator {

namespace {

constexpr size_t kMostEntries = 100'000;
// Of all bodies together; the oldest are dropped first.
constexpr size_t kMostBodyBytes = 32 << 20;

double Now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void Print(const JournalEntry& entry) {
  const std::string time = Rfc3339(static_cast<int64_t>(entry.startSeconds * 1000)).substr(11, 12);
  std::printf("%s  c%-4llu %-6s %-28s %3d  up %lld down %lld  %.1f ms  %s %s%s%s\n", time.c_str(),
              static_cast<unsigned long long>(entry.connection), entry.httpMethod.c_str(),
              entry.method.c_str(), entry.status, static_cast<long long>(entry.requestBytes),
              static_cast<long long>(entry.responseBytes), entry.seconds * 1000,
              entry.user.empty() ? "-" : entry.user.c_str(), entry.path.c_str(),
              entry.query.empty() ? "" : "?", entry.query.c_str());
  std::fflush(stdout);
}

}  // namespace

JournalEntry RequestJournal::Begin(const std::string& method, uint64_t connection,
                                   bool countsConnection) {
  JournalEntry entry;
  entry.method = method;
  entry.connection = connection;
  entry.startSeconds = Now();
  const std::lock_guard lock(mutex);
  entry.id = ++lastId;
  ++counts[method];
  ++counts["*"];
  if (countsConnection) connections.insert(connection);
  return entry;
}

void RequestJournal::End(JournalEntry entry) {
  entry.seconds = Now() - entry.startSeconds;
  const std::lock_guard lock(mutex);
  if (echoing) Print(entry);
  bodyBytes += entry.requestBody.size();
  ended.push_back(std::move(entry));
  for (; bodyBytes > kMostBodyBytes; ++withoutBody) {
    bodyBytes -= ended[withoutBody].requestBody.size();
    std::string().swap(ended[withoutBody].requestBody);
  }
  if (ended.size() <= kMostEntries) return;
  bodyBytes -= ended.front().requestBody.size();
  ended.pop_front();
  if (withoutBody > 0) --withoutBody;
}

int RequestJournal::Count(const std::string& method) const {
  const std::lock_guard lock(mutex);
  const auto found = counts.find(method);
  return found == counts.end() ? 0 : found->second;
}

std::vector<JournalEntry> RequestJournal::Entries(const std::string& method) const {
  const std::lock_guard lock(mutex);
  std::vector<JournalEntry> found;
  for (const JournalEntry& entry : ended) {
    if (method.empty() || method == "*" || entry.method == method) found.push_back(entry);
  }
  return found;
}

int RequestJournal::Connections() const {
  const std::lock_guard lock(mutex);
  return static_cast<int>(connections.size());
}

void RequestJournal::Clear() {
  const std::lock_guard lock(mutex);
  counts.clear();
  connections.clear();
  ended.clear();
  bodyBytes = withoutBody = 0;
}

}  // namespace emulator
