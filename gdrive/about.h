// The account record of a session: name, address, quota and root folder, fetched at most once a
// minute. https://developers.google.com/drive/api/reference/rest/v2/about/get
//
// Safe from any thread.
#pragma once

#include <mutex>
#include <string>

#include "plugin/host_interfaces.h"
#include "util/clock.h"

class GoogleDrive;

class About : public IAsyncObj {
 public:
  /// Fetches the record at once, on the calling thread. The session must outlive the object's use.
  explicit About(GoogleDrive* session);

  /// Fetches the record unless it is younger than 60 s. A failure keeps the old values.
  AERROR Process(void* context) override;
  void Canceled(void*) override {}
  /// Bytes; either pointer may be null. Refreshes first, and answers from the old values when that
  /// fails.
  virtual AERROR GetQuota(unsigned long long* total, unsigned long long* used);

  std::string GetRootID() const;
  void SetRootID(const char* id);
  std::string GetName() const;
  std::string GetEMail() const;

 private:
  AERROR Read(struct _CURLRTN& result);

  std::string rootId;
  std::string name;
  std::string email;
  unsigned long long quotaTotal = 0;
  unsigned long long quotaUsed = 0;
  mutable std::mutex mutex;  // guards all members but `session`
  SteadyTime lastFetch;
  GoogleDrive* session;
};
