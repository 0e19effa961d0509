// The pooled request object of the Drive protocol, its pool, and the process-wide rate limiter.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "net/curl_impl.h"
#include "policy/curl_queue.h"
#include "util/clock.h"

class GoogleCURL : public CURLImpl {
 public:
  /// `quotaUser` is sent as the "quotaUser" query parameter unless empty: from the first Clear on,
  /// so not with the first request of all.
  /// https://cloud.google.com/apis/docs/capping-api-usage
  explicit GoogleCURL(const std::string& quotaUser = {});

  void Clear() override;

  /// Waits until another request may start: at most five calls in the first period of about a
  /// second. Every later period starts its count at two, so that bursts after a full one are
  /// smaller. Any thread; callers queue up behind one another.
  static void CheckQuotaLimit();

 private:
  std::string quota_user;
};

class GoogleCURLQueue : public CURLQueue<GoogleCURL> {
 public:
  explicit GoogleCURLQueue(int count);

  std::shared_ptr<GoogleCURL> AllocCURL() override;

  /// Gives objects made from now on a new opaque quota user, salted with `seed`.
  void SetID(const std::string& seed);
  std::string GetID() const;

  /// 128 random letters and digits.
  static std::string GetRandomString();
  /// RFC 4648 base64 without line breaks; null for null or empty input. The text is valid until the
  /// next call. One thread at a time.
  static const char* base64(const unsigned char* data, size_t length);

 private:
  mutable std::mutex idMutex;
  std::string id;
};

extern "C" {
/// The one pool of the process.
VORMLANE_EXPORT extern GoogleCURLQueue cq;
VORMLANE_EXPORT extern std::mutex _curlm;              ///< guards the next two
VORMLANE_EXPORT extern SteadyTime _curlbegin;          ///< start of the rate limiter's period
VORMLANE_EXPORT extern std::atomic<int64_t> _curlcnt;  ///< requests counted in the period
}
