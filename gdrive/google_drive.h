// One mounted Google Drive account.
//
// All operations of IProtocol_V2 may be called from several host threads at once; each blocks its
// thread for the requests that it makes. Texts are UTF-8, times RFC 3339, sizes bytes.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "gdrive/about.h"
#include "net/curl_auth.h"
#include "net/query_logger.h"
#include "plugin/host_interfaces.h"
#include "policy/query_driver.h"
#include "util/clock.h"
#include "util/json_object.h"

class PushConnection;

/// Ids of the folders that exist only inside the plug-in.
inline constexpr char kVirtualRoot[] = "virtual_root";
inline constexpr char kTeamDrives[] = "teamdrive";
inline constexpr char kShared[] = "shared";
bool IsVirtualId(const std::string& id);

inline constexpr char kFolderMimeType[] = "application/vnd.google-apps.folder";
/// The members of a file resource that FillData reads.
#define VORMLANE_FILE_FIELDS \
  "id,mimeType,createdTime,modifiedTime,size,webViewLink,version,name,shared,parents"
inline constexpr char kFileFields[] = VORMLANE_FILE_FIELDS;
inline constexpr char kListFields[] = "nextPageToken,files(" VORMLANE_FILE_FIELDS ")";
inline constexpr char kJsonType[] = "application/json; charset=UTF-8";

class GoogleDrive : public IProtocol_V2 {
 public:
  GoogleDrive(const char* name, IProtocolManager* manager);

  void Release() override;
  AERROR GetUserInfo(char* buffer, int* length) override;
  AERROR GetQuota(unsigned long long* total, unsigned long long* used) override;
  AERROR SetQuota(unsigned long long total, unsigned long long used) override;
  AERROR GetType(char** type) override;
  AERROR GetFileList(const char* id, IFileList* list, char** message) override;
  AERROR GetChanges(IFileChanges* sink, char** message) override;
  AERROR GetFileInfo(const char* id, _FS_FILE_V2* out, char** message) override;
  AERROR Rename(const char* id, const char* newName, _FS_FILE_V2* file, char** message) override;
  AERROR Move(const char* source, const char* destination, _FS_FILE_V2* file,
              char** message) override;
  AERROR MoveDir(const char* source, const char* destination, _FS_FILE_V2* file,
                 char** message) override;
  AERROR CreateDirectory(const char* parent, _FS_FILE_V2* file, char** message) override;
  AERROR Delete(_FS_FILE_V2* file, char** message) override;
  AERROR DeleteDirectory(_FS_FILE_V2* file, char** message) override;
  AERROR Read(const char* id, long long offset, long long length,
              std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
              char** message) override;
  AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                _FS_FILE_V2* file, UPLOAD_FLAG flags, char** message) override;
  AERROR SetFileTime(const char* id, std::string creation, std::string access,
                     std::string modification, _FS_FILE_V2* file, char** message) override;
  AERROR SetOpt(const char* key, const char* value) override;
  AERROR GetCredential(char* buffer, int* length) override;
  int GetFeature() override;
  AERROR SetQuotaCallback(void* context,
                          bool (*callback)(void*, void*, long long*, long long*)) override;
  void FreeMsg(char* message) override;
  AERROR Connect(IProtocolAuth* auth, const char* credential) override;
  AERROR GetIdentifier(char* buffer, int* length) override;
  AERROR GetRootID(char* buffer, int* length) override;
  AERROR SetChangesCallback(IFileChanges* sink) override;

  static int GetAuthType();
  static AERROR GetAuthFields(char* buffer, int* length);
  static AERROR GetOptFields(char* buffer, int* length);

  /// Renews the access token through the host: RETRY when it was renewed, also by another thread
  /// meanwhile; FAILED when that was refused, failed, or had been done less than 1,860 s ago.
  AERROR RefreshAuth();

  /// Converts a file resource into a record. Throws when a member has the wrong kind.
  /// https://developers.google.com/drive/api/reference/rest/v3/files
  void FillData(JsonObject file, _FS_FILE_V2* out) const;

  /// Changes an item's parents and restates its name; a null parent is left out.
  AERROR DoParentWork(_FS_FILE_V2* file, const char* removeParents, const char* addParents,
                      char** message);
  /// The parents that the service reports, last first; empty when it cannot be asked.
  std::deque<std::string> GetParents(std::string id);

  /// All changes after the cursor, as the text of {"changes": [...]}. Advances the cursor.
  std::string GetChangeList(int unused);
  /// Takes the cursor from the profile, or a fresh one from the service.
  void GetLargestChangeId();

  // What the operations share; also used by About.

  /// Runs a request through the driver with the session's logger bound and its 401 handler added.
  /// FAILED without a request before Connect.
  template <class Backoff>
  AERROR Query(const char* name, std::function<_CURLRTN(std::shared_ptr<GoogleCURL>)> build,
               HandlerMap ranges, HandlerMap statuses, TransferErrorMap transfers);
  std::string Api(const char* path) const;
  void Sign(CURLImpl& request) const;

 private:
  friend class PushConnection;
  using ChangeVisitor = std::function<void(const JsonObject& change)>;

  ~GoogleDrive() override;

  _FS_FILE_V1 VirtualFolder(const char* id, const char* name) const;
  std::shared_ptr<CURLAuth> Auth() const;
  std::shared_ptr<About> Account() const;
  std::string RootId() const;
  std::string ProfileId() const;
  std::string ProfileValue(const char* key) const;
  void SetProfileValue(const char* key, const std::string& value, int flag) const;
  void BindLogger() const;
  void ReadEndpoints();
  /// RefreshAuth for a request that was signed with the token of `generation`: RETRY without asking
  /// the host when the token has been renewed since, as the new one has not been refused yet.
  AERROR RefreshAuthSince(uint64_t generation);
  AERROR RenewCredential();
  void ApplyOptionFields(const char* text);

  AERROR ListVirtualRoot(IFileList* list);
  AERROR ListFiles(const std::string& folder, const std::string& query, IFileList* list);
  AERROR ListTeamDrives(IFileList* list);
  AERROR ReadPage(_CURLRTN& result, const std::string& folder, IFileList* list,
                  std::string* pageToken) const;
  void FillWebLocation(const JsonObject& file, const std::string& typeName, _FS_FILE_V2* out) const;

  void EndAfterPoll();
  AERROR FetchChanges(const ChangeVisitor& visit);
  AERROR ReadChangePage(_CURLRTN& result, const std::unordered_set<std::string>& asked,
                        const ChangeVisitor& visit);
  void CollectChanges(IFileChanges* sink);
  std::string Cursor() const;
  void MoveCursor(const std::string& token);

  AERROR OpenUploadSession(const std::string& parent, const _FS_FILE_V2& file, std::string* url);
  AERROR SendContent(const std::string& url, const std::shared_ptr<_FS_HANDLE>& handle,
                     ICacheIO* cache, _FS_FILE_V2* file, char** message);

  struct PushSubscription {
    std::string webhookUrl;
    std::string channel;
  };
  /// With pushLock held.
  AERROR OpenPush(IFileChanges* sink);
  AERROR Subscribe(PushSubscription* subscription);
  void TakeCursorForPush();
  AERROR WatchChanges(const std::string& address);
  struct Channel {
    std::string id, address, resourceId, resourceUri;
    bool IsOpen() const {
      return !id.empty() && !address.empty() && !resourceId.empty() && !resourceUri.empty();
    }
  };
  /// Makes `replacement` the session's channel and stops the one that it replaces.
  void ReplaceChannel(Channel replacement);

  const std::unordered_map<std::string, std::string> appTypeNames;
  const std::unordered_map<std::string, std::string> exportTypes;
  IProtocolManager* const manager;

  std::atomic<long long> speedLimit{0};  ///< bytes per second; 0 is unlimited
  std::atomic<bool> showShared{true};
  std::atomic<bool> useTeamDrive{true};
  std::atomic<int> listPageSize{100};

  /// Guards the members of this group; never held over a transfer or a call of the host.
  mutable std::mutex lock;
  std::shared_ptr<CURLAuth> auth;  ///< empty until Connect
  std::shared_ptr<About> about;    ///< empty until Connect
  std::string lastChangeId;
  std::string profileId;
  IProtocolAuth* protocolAuth = nullptr;
  std::string credential;
  std::string apiUrl;
  std::string pushUrl;
  Channel channel;  ///< the open watch channel, if any
  _FS_FILE_V1 rootRecord;
  std::shared_ptr<IQueryLogger> queryLogger;

  const _FS_FILE_V1 virtualRoot;
  const _FS_FILE_V1 teamDrives;
  const _FS_FILE_V1 sharedFiles;

  std::mutex refreshLock;  ///< held for a whole renewal, so that of many only one is made
  SteadyTime lastRefresh;  ///< guarded by refreshLock
  std::atomic<std::thread::id> refreshingThread;
  std::atomic<uint64_t> tokenGeneration{0};

  std::mutex changeLock;  ///< held for a whole poll
  std::atomic<std::thread::id> pollingThread;
  /// Release was called from inside a poll's sink: the object ends when that poll does.
  std::atomic<bool> releaseRequested{false};

  std::mutex pushLock;  ///< guards the next three; held while push is set up
  bool released = false;
  std::shared_ptr<PushConnection> push;
  std::string webhookUrl;  ///< where the push service takes notices for this drive
};

template <class Backoff>
AERROR GoogleDrive::Query(const char* name,
                          std::function<_CURLRTN(std::shared_ptr<GoogleCURL>)> build,
                          HandlerMap ranges, HandlerMap statuses, TransferErrorMap transfers) {
  if (!Auth()) return AERROR::FAILED;
  uint64_t generation = 0;
  auto remember = [&](std::shared_ptr<GoogleCURL> request) {
    generation = tokenGeneration;
    return build(std::move(request));
  };
  auto unauthorized = [&](_CURLRTN&) { return RefreshAuthSince(generation); };
  statuses.insert_or_assign(401, ResponseHandler(unauthorized, ""));
  BindLogger();
  return QueryWithBackoff<Backoff>(cq, RequestBuilder(remember, name), std::move(ranges),
                                   std::move(statuses), std::move(transfers));
}
