// A host of the tests' own: profile, authoriser, sinks and cache, each of which remembers what the
// drive did with it and can be told to misbehave.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "plugin/host_interfaces.h"

inline constexpr char kProfile[] = "profile-7";

/// A profile store that holds everything under kProfile.
class Profile final : public IProtocolManager {
 public:
  struct Write {
    std::string profile, key, value;
    int flag;
  };

  int GetProfileID(const char* module, char* buffer, int* length) override;
  int SetValue(const char* profile, const char* key, const char* value, int flag) override;
  int GetValue(const char* profile, const char* key, char* buffer, int* length) override;

  void Set(const std::string& key, const std::string& value);
  void Erase(const std::string& key);
  std::string Get(const std::string& key) const;
  std::vector<Write> Writes() const;
  std::string AskedModule() const;
  std::vector<std::string> KeysRead() const;

 private:
  mutable std::mutex mutex;
  std::map<std::string, std::string> values;
  std::vector<Write> writes;
  std::vector<std::string> keysRead;
  std::string askedModule;
};

/// Renews credentials by what `onRenew` returns; refuses while there is none.
class Authoriser final : public IProtocolAuth {
 public:
  using OnRenew = std::function<std::optional<std::string>(IProtocol_V2*, const char* credential)>;

  const char* Renew(IProtocol_V2* protocol, const char* credential) override;
  void Free(const char* credential) override;

  OnRenew onRenew;
  std::atomic<int> renewals{0};
  std::atomic<int> outstanding{0};  ///< texts handed out and not given back
};

class ItemList final : public IFileList {
 public:
  void Add(_FS_FILE_V2* file) override;

  std::vector<std::string> Names() const;
  const _FS_FILE_V2* Find(const std::string& name) const;

  std::vector<_FS_FILE_V2> items;
  std::function<void(const _FS_FILE_V2&)> onAdd;
};

/// A sink of changes that fails the test when it is called after it was closed.
class ChangeSink final : public IFileChanges {
 public:
  void Reserved0() override;
  void Reserved1() override;
  void Reserved2() override;
  void Changed(const char* folderId) override;

  std::vector<std::string> Ids() const;
  /// Waits up to 20 s; false when the sink has not heard of the folder by then.
  bool WaitFor(const std::string& folderId);
  /// From here on a call is an error.
  void Close();

  std::function<void(const std::string&)> onChanged;  ///< set before the sink is handed out

 private:
  mutable std::mutex mutex;
  std::condition_variable arrived;
  std::vector<std::string> ids;
  bool closed = false;
};

/// Puts downloaded blocks together. A block at the range's start begins anew, as after a retry.
class Fetched final : public IFetchCallback {
 public:
  void OnData(long long offset, const char* data, unsigned long long length,
              long long* extra) override;

  std::string bytes;
  std::vector<std::pair<long long, unsigned long long>> blocks;  ///< offset, length
  bool gap = false;
  bool inMemory = false;
  std::function<void()> onBlock;

 private:
  long long start = -1;
};

/// A cached file as the source of an upload.
class CachedFile final : public ICacheIO {
 public:
  explicit CachedFile(std::string bytes) : content(std::move(bytes)) {}
  int32_t Read(CacheReadRequest* request) override;

  const std::string content;
  std::function<int32_t(CacheReadRequest&)> onRead;  ///< anything but 0 is returned as is
  std::vector<int64_t> offsets;
};

/// Ends the session of a drive that was made by GetProtocol.
struct DriveRelease {
  void operator()(IProtocol_V2* drive) const { drive->Release(); }
};
