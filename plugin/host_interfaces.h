// The binary boundary between a host and this plug-in.
//
// Everything here is matched by slot order and by layout between two separately compiled binaries:
// members are never reordered, removed or given default arguments. Slots named ReservedN belong to
// the host and are never called by the plug-in. All texts are NUL-terminated UTF-8.
//
// Threads: the host may call one protocol object from several threads at once, and the plug-in
// calls the host's objects from any of those threads (IFileChanges also from the push thread).
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "plugin/aerror.h"
#include "plugin/fs_file.h"

/// Root marker of objects that host and plug-in show to each other.
struct IRefObject {};

/// One open file of the host, passed to Read and Upload by shared pointer and kept for the call.
struct _FS_HANDLE {
  int32_t reserved = 0;
  std::atomic<int32_t> status{0};  ///< 3 or more: the host has abandoned the transfer
  int64_t transferred = 0;         ///< bytes of an upload read from the cache so far
  /// Called during a transfer with (bytes in all, bytes so far, progressUser, bytes per second).
  void (*progress)(long long total, long long now, void* user, double bytesPerSecond) = nullptr;
  void* progressUser = nullptr;
  std::string content;  ///< when not empty, the file's bytes; no request is made to read it
};
static_assert(std::atomic<int32_t>::is_always_lock_free && sizeof(std::atomic<int32_t>) == 4);
#if defined(__clang__)
#pragma clang diagnostic push
// A record with a std::string member is not of standard layout everywhere; the compilers this is
// built with define its offsets all the same, and the host relies on them.
#pragma clang diagnostic ignored "-Winvalid-offsetof"
#endif
static_assert(offsetof(_FS_HANDLE, status) == 4);
static_assert(offsetof(_FS_HANDLE, transferred) == 8);
static_assert(offsetof(_FS_HANDLE, content) == 32);
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

enum LOGLEVEL : int32_t {
  kLogDetail = 1,
  kLogInformation = 2,
  kLogError = 8,
};

/// How a file came to be uploaded. The plug-in treats every value alike.
enum UPLOAD_FLAG : int32_t { kUploadDefault = 0 };

// Interfaces that the host implements and owns. None has a virtual destructor, so that the slots
// count from the first operation; the protected ones keep anybody from deleting through them.

/// The host's logger. Called from any thread.
class ILog {
 public:
  virtual void Reserved0() = 0;
  virtual bool IsVerbose() = 0;
  virtual void Write(LOGLEVEL level, const char* format, va_list arguments) = 0;

 protected:
  ~ILog() = default;
};

/// A job handed to the host's queue: exactly one of the two operations is called.
class IAsyncObj : public IRefObject {
 public:
  virtual AERROR Process(void* context) = 0;
  virtual void Canceled(void* context) = 0;
  virtual ~IAsyncObj() = default;
};

/// The host's job queue.
class IAsyncQueue {
 public:
  virtual void Reserved0() = 0;
  virtual AERROR Enqueue(IAsyncObj* job, void* context) = 0;

 protected:
  ~IAsyncQueue() = default;
};

/// The host's profile store: texts by (profile id, key).
class IProtocolManager {
 public:
  /// Writes the profile id of this plug-in instance. `*length`: buffer size in, text length out.
  virtual int GetProfileID(const char* module, char* buffer, int* length) = 0;
  virtual int SetValue(const char* profile, const char* key, const char* value, int flag) = 0;
  /// Returns 0 when the value was found.
  virtual int GetValue(const char* profile, const char* key, char* buffer, int* length) = 0;

 protected:
  ~IProtocolManager() = default;
};

class IProtocol_V2;

/// Renews credentials for a protocol object.
class IProtocolAuth {
 public:
  /// A newly allocated credential text, to be given back through Free; null when refused.
  virtual const char* Renew(IProtocol_V2* protocol, const char* credential) = 0;
  virtual void Free(const char* credential) = 0;

 protected:
  ~IProtocolAuth() = default;
};

/// Receives the items of a listing. The record is valid for the length of the call only.
class IFileList {
 public:
  virtual void Add(_FS_FILE_V2* file) = 0;

 protected:
  ~IFileList() = default;
};

/// Receives the ids of folders whose listing changed.
class IFileChanges {
 public:
  virtual void Reserved0() = 0;
  virtual void Reserved1() = 0;
  virtual void Reserved2() = 0;
  virtual void Changed(const char* folderId) = 0;

 protected:
  ~IFileChanges() = default;
};

/// Receives downloaded bytes in ascending, gap-free order. A retried transfer starts over at the
/// range's first byte, so blocks may be repeated.
class IFetchCallback {
 public:
  /// `offset` and `length` in bytes; `extra` is null when the bytes came over the network.
  virtual void OnData(long long offset, const char* data, unsigned long long length,
                      long long* extra) = 0;

 protected:
  ~IFetchCallback() = default;
};

/// One read of a cached file: the plug-in fills all but `read`, the cache fills `buffer`, `read`.
struct CacheReadRequest {
  void* buffer = nullptr;
  int64_t offset = 0;   ///< bytes from the start of the file
  uint64_t wanted = 0;  ///< bytes
  uint64_t read = 0;    ///< bytes; 0 at the end of the file
  std::shared_ptr<_FS_HANDLE> handle;
  int64_t fileSize = 0;
  int64_t zero = 0;
};

/// The host's cache as the source of an upload.
class ICacheIO {
 public:
  /// Returns 0 on success; anything else stops the upload.
  virtual int32_t Read(CacheReadRequest* request) = 0;

 protected:
  ~ICacheIO() = default;
};

// The interface that the plug-in implements.

class IProtocol_V1 : public IRefObject {};

/// One mounted drive. Made by GetProtocol, ended by Release. A `char**` message may be null; a text
/// that it receives goes back through FreeMsg.
class IProtocol_V2 : public IProtocol_V1 {
 public:
  virtual void Release() = 0;
  virtual AERROR GetUserInfo(char* buffer, int* length) = 0;
  virtual AERROR GetQuota(unsigned long long* total, unsigned long long* used) = 0;
  virtual AERROR SetQuota(unsigned long long total, unsigned long long used) = 0;
  virtual AERROR GetType(char** type) = 0;
  virtual AERROR GetFileList(const char* id, IFileList* list, char** message) = 0;
  virtual AERROR GetChanges(IFileChanges* sink, char** message) = 0;
  virtual AERROR GetFileInfo(const char* id, _FS_FILE_V2* out, char** message) = 0;
  virtual AERROR Rename(const char* id, const char* newName, _FS_FILE_V2* file, char** message) = 0;
  virtual AERROR Move(const char* source, const char* destination, _FS_FILE_V2* file,
                      char** message) = 0;
  virtual AERROR MoveDir(const char* source, const char* destination, _FS_FILE_V2* file,
                         char** message) = 0;
  virtual AERROR CreateDirectory(const char* parent, _FS_FILE_V2* file, char** message) = 0;
  virtual AERROR Delete(_FS_FILE_V2* file, char** message) = 0;
  virtual AERROR DeleteDirectory(_FS_FILE_V2* file, char** message) = 0;
  virtual AERROR Read(const char* id, long long offset, long long length,
                      std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                      char** message) = 0;
  virtual AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                        _FS_FILE_V2* file, UPLOAD_FLAG flags, char** message) = 0;
  virtual AERROR SetFileTime(const char* id, std::string creation, std::string access,
                             std::string modification, _FS_FILE_V2* file, char** message) = 0;
  virtual AERROR SetOpt(const char* key, const char* value) = 0;
  virtual AERROR GetCredential(char* buffer, int* length) = 0;
  virtual int GetFeature() = 0;
  virtual AERROR SetQuotaCallback(void* context,
                                  bool (*callback)(void*, void*, long long*, long long*)) = 0;
  virtual void FreeMsg(char* message) = 0;
  virtual AERROR Connect(IProtocolAuth* auth, const char* credential) = 0;
  virtual AERROR GetIdentifier(char* buffer, int* length) = 0;
  virtual AERROR GetRootID(char* buffer, int* length) = 0;
  virtual AERROR SetChangesCallback(IFileChanges* sink) = 0;
  virtual ~IProtocol_V2() = default;
};

// What the plug-in exports. Hosts look the functions up by name; the types are for them.

extern "C" {

VORMLANE_EXPORT extern const char* protocol_version;  ///< "1.0.0"
VORMLANE_EXPORT extern ILog* logger;                  ///< null: nothing is logged
VORMLANE_EXPORT extern IAsyncQueue* aq;               ///< null: jobs run at once

/// 3, the kinds of host that the plug-in serves.
VORMLANE_EXPORT int GetSupports();
/// Makes a protocol object for one drive; `manager` is not owned and must outlive it. False when
/// it could not be made; `*out` is then untouched.
VORMLANE_EXPORT bool GetProtocol(const char* name, IProtocolManager* manager, void** out);
/// "gdrive", to be freed with FreeP; also stored in `*out` unless that is null.
VORMLANE_EXPORT char* GetSupportProtocol(char** out);
VORMLANE_EXPORT void FreeP(void* pointer);
VORMLANE_EXPORT const char* GetProtocolVersion();
/// 2: authorisation in a browser.
VORMLANE_EXPORT int GetAuthType();
/// JSON for the host's login dialog. `*length`: buffer size in, text length out (without the NUL).
VORMLANE_EXPORT AERROR GetAuthFields(char* buffer, int* length);
/// JSON for the host's settings page; same buffer rule.
VORMLANE_EXPORT AERROR GetOptFields(char* buffer, int* length);
VORMLANE_EXPORT bool BindLogger(ILog* log);
VORMLANE_EXPORT void UnbindLogger();
VORMLANE_EXPORT bool BindAsyncQ(IAsyncQueue* queue);
VORMLANE_EXPORT void UnbindAsyncQ();

}  // extern "C"

VORMLANE_EXPORT void OnLoad();
/// Runs the job at once when no queue is bound, else hands it to the queue.
VORMLANE_EXPORT AERROR QueueAsync(IAsyncObj* job, void* context);
