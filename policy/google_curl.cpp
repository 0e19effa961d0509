#include "policy/google_curl.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

namespace {
constexpr auto kPeriod = std::chrono::nanoseconds(1000999999);
constexpr int64_t kCallsInPeriod = 5;
}  // namespace

GoogleCURL::GoogleCURL(const std::string& quotaUser) : quota_user(quotaUser) {
  SetSSLDefaults();
  const std::lock_guard guard(_curlm);
  _curlbegin = SteadyNow();
}

void GoogleCURL::Clear() {
  CURLImpl::Clear();
  if (!quota_user.empty()) AddQuery("quotaUser", quota_user);
}

void GoogleCURL::CheckQuotaLimit() {
  using std::chrono::milliseconds;
  const std::lock_guard guard(_curlm);  // held while waiting: the others queue up behind
  const auto elapsed = SteadyNow() - _curlbegin;
  if (elapsed <= kPeriod) {
    if (_curlcnt < kCallsInPeriod) {
      ++_curlcnt;
      return;
    }
    const auto passed = std::chrono::duration_cast<milliseconds>(elapsed);
    if (passed < milliseconds(1000)) SleepFor(milliseconds(1000) - passed);
  }
  _curlcnt = 1;
  _curlbegin = SteadyNow();
  ++_curlcnt;
}

GoogleCURLQueue::GoogleCURLQueue(int count) : CURLQueue<GoogleCURL>(count) {}

std::shared_ptr<GoogleCURL> GoogleCURLQueue::AllocCURL() {
  return std::make_shared<GoogleCURL>(GetID());
}

std::string GoogleCURLQueue::GetID() const {
  const std::lock_guard guard(idMutex);
  return id;
}

void GoogleCURLQueue::SetID(const std::string& seed) {
  const std::string key = GetRandomString();
  std::string message = GetRandomString();
  message.replace(0, std::min(seed.size(), message.size()), seed, 0, message.size());
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &length);
  const std::lock_guard guard(idMutex);
  id = base64(digest, length);
}

std::string GoogleCURLQueue::GetRandomString() {
  static constexpr char kLetters[] =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  std::mt19937 generator(
      static_cast<uint32_t>(std::chrono::system_clock::now().time_since_epoch().count()));
  std::uniform_int_distribution<int> pick(0, 61);
  std::string text(128, '\0');
  std::generate(text.begin(), text.end(), [&] { return kLetters[pick(generator)]; });
  return text;
}

const char* GoogleCURLQueue::base64(const unsigned char* data, size_t length) {
  static std::vector<unsigned char> result;
  if (data == nullptr || length == 0) return nullptr;
  result.assign((length + 2) / 3 * 4 + 1, '\0');
  EVP_EncodeBlock(result.data(), data, static_cast<int>(length));
  return reinterpret_cast<const char*>(result.data());
}
