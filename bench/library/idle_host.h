// A host that keeps nothing, and a drive that it has connected.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "gdrive/google_drive.h"

namespace bench {

struct Profile final : IProtocolManager {
  int GetProfileID(const char*, char* buffer, int*) override {
    strcpy(buffer, "bench");
    return 0;
  }
  int SetValue(const char*, const char* key, const char* value, int) override {
    const std::lock_guard guard(mutex);
    values[key] = value;
    return 0;
  }
  int GetValue(const char*, const char* key, char* buffer, int*) override {
    const std::lock_guard guard(mutex);
    const auto found = values.find(key);
    if (found == values.end()) return 1;
    strcpy(buffer, found->second.c_str());
    return 0;
  }
  std::map<std::string, std::string> values;
  std::mutex mutex;
};

struct NoFetch final : IFetchCallback {
  void OnData(long long, const char*, unsigned long long length, long long*) override {
    bytes += length;
  }
  unsigned long long bytes = 0;
};

struct Counter final : IFileList {
  void Add(_FS_FILE_V2*) override { ++count; }
  int count = 0;
};

struct Zeroes final : ICacheIO {
  int32_t Read(CacheReadRequest* request) override {
    request->read = std::min<uint64_t>(request->wanted, request->fileSize - request->offset);
    memset(request->buffer, 0, request->read);
    return 0;
  }
};

struct Changes final : IFileChanges {
  void Reserved0() override {}
  void Reserved1() override {}
  void Reserved2() override {}
  void Changed(const char*) override {
    const std::lock_guard guard(mutex);
    ++count;
    arrived.notify_all();
  }
  bool WaitFor(int wanted) {
    std::unique_lock guard(mutex);
    return arrived.wait_for(guard, std::chrono::seconds(10), [&] { return count >= wanted; });
  }
  std::mutex mutex;
  std::condition_variable arrived;
  int count = 0;
};

struct End {
  void operator()(GoogleDrive* drive) const { drive->Release(); }
};
using Drive = std::unique_ptr<GoogleDrive, End>;

Drive Connected(Profile* profile, const std::string& url, const std::string& token = "t");

}  // namespace bench
