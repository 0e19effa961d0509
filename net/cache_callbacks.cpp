#include "net/cache_callbacks.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "net/callback_guard.h"

bool IsAbandoned(const _FS_HANDLE* handle) { return handle != nullptr && handle->status >= 3; }

void DownloadContext::Flush() {
  callback->OnData(offset, staging.get(), static_cast<unsigned long long>(buffered), nullptr);
}

void DownloadContext::Deliver() {
  Flush();
  offset += buffered;
  remaining -= buffered;
  buffered = 0;
}

namespace {

bool IsContent(CURL* easy) {
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  return status >= 200 && status <= 299;
}

void Stage(DownloadContext& context, const char* data, size_t length) {
  while (length > 0 && !IsAbandoned(context.handle.get())) {
    const size_t room = static_cast<size_t>(kStagingSize - context.buffered);
    const size_t copied = std::min(length, room);
    memcpy(context.staging.get() + context.buffered, data, copied);
    context.buffered += static_cast<int32_t>(copied);
    data += copied;
    length -= copied;
    if (context.buffered == kStagingSize || context.buffered == context.remaining) {
      context.Deliver();
    }
  }
}

}  // namespace

size_t write_callback_cache_func(const void* data, size_t size, size_t count,
                                 DownloadContext* context) {
  const size_t total = size * count;
  return GuardCallback<size_t>(0, [&]() -> size_t {
    if (IsContent(context->easy)) Stage(*context, static_cast<const char*>(data), total);
    if (IsAbandoned(context->handle.get())) return 0;
    context->received += total;
    return total;
  });
}

namespace {

size_t ReadFromCache(UploadContext& context, void* destination, size_t room) {
  CacheReadRequest request;
  request.buffer = destination;
  request.offset = context.offset;
  request.wanted = room;
  request.handle = context.handle;
  request.fileSize = context.fileSize;
  if (context.cache->Read(&request) != 0 || request.read > room) return CURL_READFUNC_ABORT;
  // Ending a body early would leave the service waiting for the rest until the transfer stalls.
  if (request.read == 0 && context.offset < context.fileSize) return CURL_READFUNC_ABORT;
  context.offset += static_cast<long long>(request.read);
  if (context.handle) context.handle->transferred = context.offset;
  return request.read;
}

}  // namespace

size_t read_callback_cache_func(void* destination, size_t size, size_t count,
                                UploadContext* context) {
  return GuardCallback<size_t>(CURL_READFUNC_ABORT, [&]() -> size_t {
    if (IsAbandoned(context->handle.get())) return CURL_READFUNC_ABORT;
    return ReadFromCache(*context, destination, size * count);
  });
}

int read_callback_cache_seek_func(UploadContext* context, curl_off_t offset, int origin) {
  if (origin != SEEK_SET || offset != 0) return CURL_SEEKFUNC_CANTSEEK;
  context->offset = 0;
  if (context->handle) context->handle->transferred = 0;
  return CURL_SEEKFUNC_OK;
}
