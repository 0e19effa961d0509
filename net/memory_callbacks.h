// libcurl body callbacks between a transfer and memory.
//
// They run on the thread of the transfer, inside it, and let no exception out.
#pragma once

#include <event2/buffer.h>

#include <cstddef>
#include <memory>

struct EvbufferFree {
  void operator()(evbuffer* buffer) const { evbuffer_free(buffer); }
};
using EvbufferPtr = std::unique_ptr<evbuffer, EvbufferFree>;

/// A request body in memory. Does not own the bytes.
struct MemorySource {
  const char* data = nullptr;
  long long position = 0;  ///< bytes; may lie outside the content after a seek
  long long length = 0;    ///< bytes
};

size_t write_callback_ev_func(const void* data, size_t size, size_t count, evbuffer* buffer);
size_t read_callback_buf_func(void* destination, size_t size, size_t count, MemorySource* source);
int read_callback_buf_seek_func(MemorySource* source, long long offset, int origin);
