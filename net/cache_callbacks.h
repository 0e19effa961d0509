// libcurl body callbacks between a transfer and the host's cache.
//
// They run on the thread of the transfer, inside it. An exception of the host's object stops the
// transfer and is rethrown by it.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "plugin/host_interfaces.h"

/// The host has given the transfer up.
bool IsAbandoned(const _FS_HANDLE* handle);

/// Blocks in which downloads reach the host: few large writes, whatever libcurl delivers.
constexpr int32_t kStagingSize = 524288;  // bytes

struct FreeDeleter {
  void operator()(void* memory) const { free(memory); }
};
using StagingBuffer = std::unique_ptr<char, FreeDeleter>;

/// Where a ranged download stands. One lives per read operation, reset before every try.
struct DownloadContext {
  long long offset = 0;             ///< file offset of the first byte not yet delivered
  long long remaining = 0;          ///< bytes of the range not yet delivered
  long long start = 0;              ///< first byte wanted
  unsigned long long received = 0;  ///< bytes accepted in this try
  std::shared_ptr<_FS_HANDLE> handle;
  StagingBuffer staging;
  int32_t buffered = 0;  ///< bytes in `staging`
  IFetchCallback* callback = nullptr;
  /// The transfer's handle: an answer that is not 2xx is an error text, not the file's content.
  CURL* easy = nullptr;

  /// Hands what is staged to the host. `Flush` leaves the counters, as nothing follows it.
  void Flush();
  void Deliver();
};

size_t write_callback_cache_func(const void* data, size_t size, size_t count,
                                 DownloadContext* context);

/// Where an upload stands. One lives per try.
struct UploadContext {
  long long offset = 0;  ///< bytes read from the cache so far
  std::shared_ptr<_FS_HANDLE> handle;
  ICacheIO* cache = nullptr;
  long long fileSize = 0;  ///< bytes announced; a cache that ends before aborts the upload
};

size_t read_callback_cache_func(void* destination, size_t size, size_t count,
                                UploadContext* context);
/// Rewinds to byte 0 when libcurl must send the body again; nothing else is possible.
int read_callback_cache_seek_func(UploadContext* context, curl_off_t offset, int origin);
