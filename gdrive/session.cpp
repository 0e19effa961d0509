// Construction, connection, token renewal and the small operations.
#include <cstdlib>
#include <ctime>

#include "gdrive/endpoints.h"
#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "gdrive/push_connection.h"
#include "gdrive/thread_mark.h"
#include "util/time_convert.h"

namespace {

/// How this module is known to hosts, whatever its file is called.
constexpr char kModule[] = "Vormlane3_google.dll_3.6.344.0";
constexpr auto kRenewalInterval = std::chrono::seconds(1860);
constexpr auto kLongAgo = std::chrono::hours(24);
constexpr int kFeatures = 69;

std::string ReadProfileId(IProtocolManager* manager) {
  if (manager == nullptr) return {};
  char buffer[256] = {};
  int length = sizeof(buffer);
  manager->GetProfileID(kModule, buffer, &length);
  buffer[sizeof(buffer) - 1] = '\0';
  return buffer;
}

}  // namespace

bool IsVirtualId(const std::string& id) {
  return id == kVirtualRoot || id == kTeamDrives || id == kShared;
}

GoogleDrive::GoogleDrive(const char*, IProtocolManager* profileManager)
    : appTypeNames{{"application/vnd.google-apps.document", "Google Docs"},
                   {"application/vnd.google-apps.drawing", "Google Drawing"},
                   {"application/vnd.google-apps.form", "Google Forms"},
                   {"application/vnd.google-apps.fusiontable", "Google Fusion Tables"},
                   {"application/vnd.google-apps.presentation", "Google Slides"},
                   {"application/vnd.google-apps.script", "Google Apps Scripts"},
                   {"application/vnd.google-apps.sites", "Google Sites"},
                   {"application/vnd.google-apps.spreadsheet", "Google Sheets"}},
      exportTypes{
          {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
          {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
          {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
          {"ppsx", "application/vnd.openxmlformats-officedocument.presentationml.slideshow"},
          {"sldx", "application/vnd.openxmlformats-officedocument.presentationml.slide"},
          {"one", "application/onenote"}},
      manager(profileManager),
      profileId(ReadProfileId(profileManager)),
      apiUrl(kDriveApiUrl),
      pushUrl(VORMLANE_PUSH_SERVER_URL),
      virtualRoot(VirtualFolder(kVirtualRoot, "")),
      teamDrives(VirtualFolder(kTeamDrives, "Team Drives")),
      sharedFiles(VirtualFolder(kShared, "Shared with me")),
      lastRefresh(SteadyNow() - kLongAgo) {}

GoogleDrive::~GoogleDrive() = default;

_FS_FILE_V1 GoogleDrive::VirtualFolder(const char* id, const char* name) const {
  const time_t now = time(nullptr);
  tm fields{};
  localtime_r(&now, &fields);
  _FS_FILE_V1 folder;
  folder.id = id;
  folder.name = name;
  folder.attributes = kFsFolder | kFsSynthesised;
  folder.time1 = folder.time2 = folder.time3 = TMToRFC3339(&fields);
  return folder;
}

std::shared_ptr<CURLAuth> GoogleDrive::Auth() const {
  const std::lock_guard guard(lock);
  return auth;
}

std::shared_ptr<About> GoogleDrive::Account() const {
  const std::lock_guard guard(lock);
  return about;
}

std::string GoogleDrive::RootId() const {
  const auto account = Account();
  return account ? account->GetRootID() : std::string();
}

std::string GoogleDrive::ProfileId() const {
  const std::lock_guard guard(lock);
  return profileId;
}

std::string GoogleDrive::ProfileValue(const char* key) const {
  if (manager == nullptr) return {};
  char buffer[1024] = {};
  int length = sizeof(buffer);
  if (manager->GetValue(ProfileId().c_str(), key, buffer, &length) != 0) return {};
  buffer[sizeof(buffer) - 1] = '\0';
  return buffer;
}

void GoogleDrive::SetProfileValue(const char* key, const std::string& value, int flag) const {
  if (manager != nullptr) manager->SetValue(ProfileId().c_str(), key, value.c_str(), flag);
}

std::string GoogleDrive::Api(const char* path) const {
  const std::lock_guard guard(lock);
  return apiUrl + path;
}

void GoogleDrive::Sign(CURLImpl& request) const {
  if (const auto current = Auth()) current->SignAuthentication(request);
}

void GoogleDrive::BindLogger() const {
  std::shared_ptr<IQueryLogger> current;
  {
    const std::lock_guard guard(lock);
    current = queryLogger;
  }
  BindQueryLogger(current);
}

void GoogleDrive::ReadEndpoints() {
  std::string api = ProfileValue("drive_api_url");
  const std::string webSocket = ProfileValue("push_server_url");
  while (!api.empty() && api.back() == '/') api.pop_back();
  const std::lock_guard guard(lock);
  if (IsAllowedEndpoint(api, "http")) apiUrl = api;
  if (IsAllowedEndpoint(webSocket, "ws")) pushUrl = webSocket;
}

AERROR GoogleDrive::Connect(IProtocolAuth* hostAuth, const char* text) {
  if (text == nullptr) return AERROR::AUTH_FAILED;
  try {
    {
      const std::lock_guard guard(lock);
      protocolAuth = hostAuth;
      credential = text;
    }
    JsonObject document(text);
    const auto newAuth = std::make_shared<CURLAuth>(document);
    if (document.HasObject("/args/client_id")) {
      const std::string clientId = document.GetObject("/args/client_id");
      newAuth->AddArg("cid", clientId.c_str());
    }
    {
      const std::lock_guard guard(lock);
      auth = newAuth;
    }
    ReadEndpoints();
    const auto account = std::make_shared<About>(this);
    _FS_FILE_V2 root;
    root.id = account->GetRootID();
    (void)GetFileInfo(std::string(root.id).c_str(), &root, nullptr);
    const std::string cursor = ProfileValue("lastchangeid");
    const std::lock_guard guard(lock);
    about = account;
    rootRecord = root;
    if (!cursor.empty()) lastChangeId = cursor;
    return AERROR::SUCCESS;
  } catch (...) {
    return AERROR::AUTH_FAILED;
  }
}

AERROR GoogleDrive::RefreshAuth() { return RefreshAuthSince(tokenGeneration); }

AERROR GoogleDrive::RefreshAuthSince(uint64_t generation) {
  // The host's renewal may ask this session something that meets a 401 itself.
  if (refreshingThread == std::this_thread::get_id()) return AERROR::FAILED;
  std::unique_lock guard(refreshLock, std::try_to_lock);
  if (!guard) {
    guard.lock();
    return AERROR::RETRY;  // whoever held the lock has just renewed
  }
  if (generation != tokenGeneration) return AERROR::RETRY;
  if (SteadyNow() - lastRefresh < kRenewalInterval) return AERROR::FAILED;
  const ThreadMark mark(refreshingThread);
  const AERROR code = Guarded([this] { return RenewCredential(); });
  lastRefresh = SteadyNow();
  return code;
}

AERROR GoogleDrive::RenewCredential() {
  IProtocolAuth* hostAuth = nullptr;
  std::string current;
  {
    const std::lock_guard guard(lock);
    hostAuth = protocolAuth;
    current = credential;
  }
  if (hostAuth == nullptr) return AERROR::FAILED;
  const auto release = [hostAuth](const char* renewed) { hostAuth->Free(renewed); };
  const std::unique_ptr<const char, decltype(release)> text(hostAuth->Renew(this, current.c_str()),
                                                            release);
  const auto target = Auth();
  if (!text || !target) return AERROR::FAILED;
  JsonObject document(text.get());
  target->SetAuth(document);
  ++tokenGeneration;
  return AERROR::RETRY;
}

void GoogleDrive::Release() {
  const bool insidePoll = pollingThread == std::this_thread::get_id();
  if (insidePoll) releaseRequested = true;
  (void)Guarded([&] {
    std::shared_ptr<PushConnection> closing;
    {
      const std::lock_guard guard(pushLock);
      released = true;
      closing = push;
    }
    if (closing && insidePoll) {
      closing->RequestClose();  // its own poll may be waiting for this thread's to end
    } else if (closing) {
      closing->Close();  // outside the lock, which the sink of the poll it waits for may want
    }
    ReplaceChannel({});
    return AERROR::SUCCESS;
  });
  if (!insidePoll) delete this;
}

AERROR GoogleDrive::GetUserInfo(char* buffer, int* length) {
  if (buffer == nullptr || length == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    const auto account = Account();
    return CopyText(account ? account->GetName() + "(" + account->GetEMail() + ")" : "()", buffer,
                    length);
  });
}

AERROR GoogleDrive::GetQuota(unsigned long long* total, unsigned long long* used) {
  return Guarded([&] {
    const auto account = Account();
    return account ? account->GetQuota(total, used) : AERROR::FS_NEED_AUTHORIZE;
  });
}

AERROR GoogleDrive::SetQuota(unsigned long long, unsigned long long) {
  return AERROR::NOT_SUPPORTED;
}

AERROR GoogleDrive::SetQuotaCallback(void*, bool (*)(void*, void*, long long*, long long*)) {
  return AERROR::SUCCESS;
}

AERROR GoogleDrive::GetType(char** type) {
  static char name[] = "gdrive";
  if (type == nullptr) return AERROR::INVALID_PARAMETER;
  *type = name;
  return AERROR::SUCCESS;
}

int GoogleDrive::GetFeature() { return kFeatures; }

AERROR GoogleDrive::GetIdentifier(char*, int*) { return AERROR::SUCCESS; }

AERROR GoogleDrive::GetRootID(char* buffer, int* length) {
  if (length == nullptr) return AERROR::ACCESS_DENIED;
  if (buffer == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    return CopyText(showShared || useTeamDrive ? kVirtualRoot : RootId(), buffer, length);
  });
}

AERROR GoogleDrive::GetCredential(char* buffer, int* length) {
  return Guarded([&] {
    if (!Auth()) return AERROR::FS_NEED_AUTHORIZE;
    if (buffer == nullptr || length == nullptr) return AERROR::INVALID_PARAMETER;
    std::string text;
    {
      const std::lock_guard guard(lock);
      text = credential;
    }
    const AERROR code = CopyText(text, buffer, length);
    if (code != AERROR::SUCCESS) return code;
    SetProfileValue("lastchangeid", Cursor(), 1);
    SetProfileValue("pid", ProfileId(), 1);
    return AERROR::SUCCESS;
  });
}

void GoogleDrive::FreeMsg(char* message) { free(message); }
