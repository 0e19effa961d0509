#include "gdrive/about.h"

#include <cstdlib>

#include "gdrive/google_drive.h"

namespace {
constexpr auto kMaximumAge = std::chrono::seconds(60);
constexpr auto kLongAgo = std::chrono::hours(24);
}  // namespace

About::About(GoogleDrive* owner) : lastFetch(SteadyNow() - kLongAgo), session(owner) {
  About::Process(nullptr);
}

AERROR About::Process(void*) {
  {
    const std::lock_guard guard(mutex);
    if (SteadyNow() - lastFetch < kMaximumAge) return AERROR::SUCCESS;
  }
  const AERROR code = session->Query<GoogleDriveExponentialBackoff>(
      "Process",
      [this](std::shared_ptr<GoogleCURL> request) {
        // The third version of the API has no quota in this form and no root folder id.
        request->SetURL(session->Api("/drive/v2/about").c_str());
        request->AddQuery("fields",
                          "name,quotaBytesTotal,quotaBytesUsedAggregate,rootFolderId,user");
        session->Sign(*request);
        return request->PerformGet(nullptr, nullptr);
      },
      {}, {{200, {[this](_CURLRTN& result) { return Read(result); }, ""}}}, {});
  if (code == AERROR::SUCCESS) {
    const std::lock_guard guard(mutex);
    lastFetch = SteadyNow();
  }
  return code;
}

AERROR About::Read(_CURLRTN& result) {
  try {
    const JsonObject body(result.body.get(), result.bodyLength);
    const std::lock_guard guard(mutex);
    name = std::string(body.GetObject("/user/displayName"));
    email = std::string(body.GetObject("/user/emailAddress"));
    quotaTotal = strtoull(std::string(body.GetObject("/quotaBytesTotal")).c_str(), nullptr, 10);
    quotaUsed =
        strtoull(std::string(body.GetObject("/quotaBytesUsedAggregate")).c_str(), nullptr, 10);
    rootId = std::string(body.GetObject("/rootFolderId"));
    return AERROR::SUCCESS;
  } catch (...) {
    return AERROR::FAILED;
  }
}

AERROR About::GetQuota(unsigned long long* total, unsigned long long* used) {
  try {
    Process(nullptr);
  } catch (...) {
    return AERROR::ACCESS_VIOLATION;
  }
  const std::lock_guard guard(mutex);
  if (total != nullptr) *total = quotaTotal;
  if (used != nullptr) *used = quotaUsed;
  return AERROR::SUCCESS;
}

std::string About::GetRootID() const {
  const std::lock_guard guard(mutex);
  return rootId;
}

void About::SetRootID(const char* id) {
  const std::lock_guard guard(mutex);
  rootId = id;
}

std::string About::GetName() const {
  const std::lock_guard guard(mutex);
  return name;
}

std::string About::GetEMail() const {
  const std::lock_guard guard(mutex);
  return email;
}
