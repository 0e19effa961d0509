// The binary boundary as a host that was built elsewhere declares it: nothing of the plug-in's own
// headers is included, so that a moved slot or member shows.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace mirror {

using Code = int32_t;

struct Handle {
  int32_t reserved = 0;
  std::atomic<int32_t> status{0};
  int64_t transferred = 0;
  void (*progress)(long long, long long, void*, double) = nullptr;
  void* progressUser = nullptr;
  std::string content;
};
static_assert(offsetof(Handle, status) == 4 && offsetof(Handle, transferred) == 8);
static_assert(offsetof(Handle, progress) == 16 && offsetof(Handle, content) == 32);
using HandlePtr = std::shared_ptr<Handle>;

struct OldRecord {
  std::string id;
  uint32_t attributes = 0;
  int64_t size = 0;
  std::string time1, time2, time3, name, content;
};
struct Record : OldRecord {
  std::deque<std::string> parents;
  std::string parentId;
};

struct CacheRequest {
  void* buffer;
  int64_t offset;
  uint64_t wanted;
  uint64_t read;
  HandlePtr handle;
  int64_t fileSize;
  int64_t zero;
};

}  // namespace mirror

// The interfaces bear the boundary's names, as sanitizers compare classes by name across it. It
// counts slots: no destructor may stand among them.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

struct ILog {
  virtual void Slot0() {}
  virtual bool IsVerbose() = 0;
  virtual void Write(int32_t level, const char* format, va_list arguments) = 0;
};
struct IAsyncObj {
  virtual mirror::Code Process(void* context) = 0;
  virtual void Canceled(void* context) = 0;
  virtual ~IAsyncObj() = default;
};
struct IAsyncQueue {
  virtual void Slot0() {}
  virtual mirror::Code Enqueue(IAsyncObj* job, void* context) = 0;
};
struct IProtocolManager {
  virtual int GetProfileID(const char* module, char* buffer, int* length) = 0;
  virtual int SetValue(const char* profile, const char* key, const char* value, int flag) = 0;
  virtual int GetValue(const char* profile, const char* key, char* buffer, int* length) = 0;
};
struct IProtocolAuth {
  virtual const char* Renew(void* protocol, const char* credential) = 0;
  virtual void Free(const char* credential) = 0;
};
struct IFileList {
  virtual void Add(mirror::Record* file) = 0;
};
struct IFileChanges {
  virtual void Slot0() {}
  virtual void Slot1() {}
  virtual void Slot2() {}
  virtual void Changed(const char* folder) = 0;
};
struct IFetchCallback {
  virtual void OnData(long long offset, const char* data, unsigned long long length,
                      long long* extra) = 0;
};
struct ICacheIO {
  virtual int32_t Read(mirror::CacheRequest* request) = 0;
};

struct IProtocol_V2 {
  virtual void Release() = 0;
  virtual mirror::Code GetUserInfo(char*, int*) = 0;
  virtual mirror::Code GetQuota(unsigned long long*, unsigned long long*) = 0;
  virtual mirror::Code SetQuota(unsigned long long, unsigned long long) = 0;
  virtual mirror::Code GetType(char**) = 0;
  virtual mirror::Code GetFileList(const char*, IFileList*, char**) = 0;
  virtual mirror::Code GetChanges(IFileChanges*, char**) = 0;
  virtual mirror::Code GetFileInfo(const char*, mirror::Record*, char**) = 0;
  virtual mirror::Code Rename(const char*, const char*, mirror::Record*, char**) = 0;
  virtual mirror::Code Move(const char*, const char*, mirror::Record*, char**) = 0;
  virtual mirror::Code MoveDir(const char*, const char*, mirror::Record*, char**) = 0;
  virtual mirror::Code CreateDirectory(const char*, mirror::Record*, char**) = 0;
  virtual mirror::Code Delete(mirror::Record*, char**) = 0;
  virtual mirror::Code DeleteDirectory(mirror::Record*, char**) = 0;
  virtual mirror::Code Read(const char*, long long, long long, mirror::HandlePtr, IFetchCallback*,
                            char**) = 0;
  virtual mirror::Code Upload(const char*, mirror::HandlePtr, ICacheIO*, mirror::Record*,
                              int32_t flags, char**) = 0;
  virtual mirror::Code SetFileTime(const char*, std::string, std::string, std::string,
                                   mirror::Record*, char**) = 0;
  virtual mirror::Code SetOpt(const char*, const char*) = 0;
  virtual mirror::Code GetCredential(char*, int*) = 0;
  virtual int GetFeature() = 0;
  virtual mirror::Code SetQuotaCallback(void*, bool (*)(void*, void*, long long*, long long*)) = 0;
  virtual void FreeMsg(char*) = 0;
  virtual mirror::Code Connect(IProtocolAuth*, const char*) = 0;
  virtual mirror::Code GetIdentifier(char*, int*) = 0;
  virtual mirror::Code GetRootID(char*, int*) = 0;
  virtual mirror::Code SetChangesCallback(IFileChanges*) = 0;
};
