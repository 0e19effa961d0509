#include "net/memory_callbacks.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

size_t write_callback_ev_func(const void* data, size_t size, size_t count, evbuffer* buffer) {
  // A buffer that cannot grow ends the transfer with libcurl's write error.
  return evbuffer_add(buffer, data, size * count) == 0 ? size * count : 0;
}

size_t read_callback_buf_func(void* destination, size_t size, size_t count, MemorySource* source) {
  if (source->position < 0 || source->position >= source->length) return 0;
  const auto left = static_cast<size_t>(source->length - source->position);
  const size_t copied = std::min(size * count, left);
  if (copied == 0) return 0;
  memcpy(destination, source->data + source->position, copied);
  source->position += static_cast<long long>(copied);
  return copied;
}

int read_callback_buf_seek_func(MemorySource* source, long long offset, int origin) {
  if (source == nullptr) return CURL_SEEKFUNC_FAIL;
  if (origin == SEEK_SET) source->position = offset;
  if (origin == SEEK_CUR) source->position += offset;
  if (origin == SEEK_END) source->position = source->length + offset;
  return CURL_SEEKFUNC_OK;
}
