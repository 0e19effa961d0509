#include "emulator/fault_queue.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

#include "emulator/routes.h"

namespace emulator {

namespace {

constexpr std::array<std::string_view, 15> kKinds{
    "status",      "delay",    "delay-body", "reset-before",         "reset-body",
    "reset-after", "truncate", "double",     "applied-not-answered", "garbage",
    "drip",        "redirect", "rate-limit", "content-length",       "expire-token-at"};

void Require(bool condition, const std::string& complaint) {
  if (!condition) throw std::invalid_argument("fault: " + complaint);
}

void Validate(const Fault& fault) {
  const std::string& kind = fault.kind;
  Require(std::find(kKinds.begin(), kKinds.end(), kind) != kKinds.end(),
          "\"" + kind + "\" is no kind of fault");
  Require(fault.method == "*" || IsMethodName(fault.method),
          "\"" + fault.method + "\" is no method; see the coverage table");
  Require(fault.times >= 1, "times must be at least 1");
  Require(fault.delay.count() >= 0, "delay must not be negative");
  Require(fault.at >= 0 || kind == "content-length", "at must not be negative");
  Require(fault.header.empty() ? fault.headerValue.empty() : true, "headerValue without header");
  if (kind == "status")
    Require(fault.status >= 400 && fault.status <= 599, "status must be 400-599");
  if (kind == "redirect") {
    Require(fault.status >= 300 && fault.status <= 399, "a redirect's status must be 300-399");
    Require(!fault.location.empty(), "a redirect needs a location");
  }
  if (kind == "rate-limit") {
    Require(fault.status == 403 || fault.status == 429, "a rate limit's status is 403 or 429");
    Require(fault.at >= 1, "a rate limit needs at, the requests per second");
  }
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool Matches(const Fault& fault, const std::string& method,
             const std::map<std::string, std::string>& headers) {
  if (fault.method != "*" && fault.method != method) return false;
  if (fault.header.empty()) return true;
  const auto found = headers.find(Lower(fault.header));
  return found != headers.end() &&
         (fault.headerValue.empty() || found->second == fault.headerValue);
}

}  // namespace

void FaultQueue::Add(const Fault& fault) {
  Validate(fault);
  const std::lock_guard lock(mutex);
  if (fault.kind == "rate-limit") {
    limits.push_back(fault);
  } else {
    queue.push_back(fault);
  }
}

std::optional<Fault> FaultQueue::Take(const std::string& method,
                                      const std::map<std::string, std::string>& headers) {
  const std::lock_guard lock(mutex);
  const auto found = std::find_if(queue.begin(), queue.end(), [&](const Fault& fault) {
    return Matches(fault, method, headers);
  });
  if (found == queue.end()) return std::nullopt;
  Fault fault = *found;
  if (--found->times == 0) queue.erase(found);
  return fault;
}

std::optional<Fault> FaultQueue::OverLimit(const std::string& method, const std::string& user,
                                           Clock::time_point now) {
  const std::lock_guard lock(mutex);
  for (const Fault& limit : limits) {
    if (limit.method != "*" && limit.method != method) continue;
    const auto rate = static_cast<double>(limit.at);
    const auto [found, fresh] = buckets.try_emplace(user, Bucket{rate, now});
    Bucket& bucket = found->second;
    const double passed = std::chrono::duration<double>(now - bucket.filled).count();
    bucket.tokens = std::min(rate, bucket.tokens + passed * rate);
    bucket.filled = now;
    if (bucket.tokens < 1) return limit;
    bucket.tokens -= 1;
  }
  return std::nullopt;
}

std::vector<Fault> FaultQueue::Pending() const {
  const std::lock_guard lock(mutex);
  std::vector<Fault> pending(queue.begin(), queue.end());
  pending.insert(pending.end(), limits.begin(), limits.end());
  return pending;
}

void FaultQueue::Clear() {
  const std::lock_guard lock(mutex);
  queue.clear();
  limits.clear();
  buckets.clear();
}

}  // namespace emulator
