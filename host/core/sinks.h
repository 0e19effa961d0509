// Host interfaces made of functions, so that a caller can write a lambda where the plug-in wants
// an object.
//
// No exception of a function reaches the plug-in: the first one is kept, later items are dropped,
// and Rethrow throws it on the caller's side after the operation. A sink is used by one operation
// at a time, except ChangeSink.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "plugin/host_interfaces.h"

namespace host {

/// Keeps the first exception of a series of calls. One thread at a time.
class KeptException {
 public:
  /// False when the function threw now or an earlier one did (it is then not called).
  template <typename Function>
  bool Guard(Function&& function) noexcept {
    if (kept) return false;
    try {
      function();
      return true;
    } catch (...) {
      kept = std::current_exception();
      return false;
    }
  }
  void Rethrow() const {
    if (kept) std::rethrow_exception(kept);
  }

 private:
  std::exception_ptr kept;
};

/// Items of a listing.
class ListSink final : public IFileList {
 public:
  using Function = std::function<void(const _FS_FILE_V2&)>;
  explicit ListSink(Function receiver) : function(std::move(receiver)) {}

  void Add(_FS_FILE_V2* file) override {
    exception.Guard([&] { function(*file); });
  }
  void Rethrow() const { exception.Rethrow(); }

 private:
  Function function;
  KeptException exception;
};

/// Ids of changed folders, from whichever thread noticed; calls are serialised. An exception ends
/// nothing: the function should catch what it can, the rest is dropped.
class ChangeSink final : public IFileChanges {
 public:
  using Function = std::function<void(const std::string& folderId)>;
  explicit ChangeSink(Function receiver) : function(std::move(receiver)) {}

  void Reserved0() override {}
  void Reserved1() override {}
  void Reserved2() override {}
  void Changed(const char* folderId) noexcept override;

 private:
  std::mutex mutex;
  Function function;  // called under mutex
};

/// Bytes of a download. A throwing function abandons the transfer through the handle.
class FetchSink final : public IFetchCallback {
 public:
  using Function = std::function<void(int64_t offset, std::span<const char> bytes)>;
  FetchSink(std::shared_ptr<_FS_HANDLE> openFile, Function receiver)
      : handle(std::move(openFile)), function(std::move(receiver)) {}

  void OnData(long long offset, const char* data, unsigned long long length,
              long long* extra) override;
  void Rethrow() const { exception.Rethrow(); }

 private:
  std::shared_ptr<_FS_HANDLE> handle;
  Function function;
  KeptException exception;
};

/// Bytes for an upload. The function fills the buffer from the offset on and returns how many
/// bytes it wrote, 0 at the end. A throwing function stops the upload.
class UploadSource final : public ICacheIO {
 public:
  using Function = std::function<uint64_t(int64_t offset, std::span<char> buffer)>;
  explicit UploadSource(Function receiver) : function(std::move(receiver)) {}

  int32_t Read(CacheReadRequest* request) override;
  void Rethrow() const { exception.Rethrow(); }

 private:
  Function function;
  KeptException exception;
};

}  // namespace host
