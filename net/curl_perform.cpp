// The transfers of a request object.
#include <algorithm>
#include <cstdlib>

#include "net/callback_guard.h"
#include "net/curl_impl.h"
#include "net/memory_callbacks.h"

namespace {

EvbufferPtr NewBuffer() {
  EvbufferPtr buffer(evbuffer_new());
  if (!buffer) throw std::bad_alloc();
  return buffer;
}

/// Moves `length` bytes out of the buffer into a block with `extra` zero bytes behind them.
std::shared_ptr<char> MoveOut(evbuffer* buffer, size_t length, size_t extra) {
  std::shared_ptr<char> block(static_cast<char*>(calloc(1, length + extra)), free);
  if (!block) throw std::bad_alloc();
  evbuffer_remove(buffer, block.get(), length);
  return block;
}

template <class F>
class Finally {
 public:
  explicit Finally(F function) : action(std::move(function)) {}
  ~Finally() { action(); }
  Finally(const Finally&) = delete;
  Finally& operator=(const Finally&) = delete;

 private:
  F action;
};

}  // namespace

_CURLRTN CURLImpl::PerformGet(void* writeFunction, void* writeData) {
  _CURLRTN failed;
  failed.code = CURLE_FAILED_INIT;
  if (!easy) return failed;
  EvbufferPtr own;
  if (writeFunction == nullptr) {
    own = NewBuffer();
    writeFunction = reinterpret_cast<void*>(&write_callback_ev_func);
    writeData = own.get();
  }
  UseMethod("GET");
  SetOption(CURLOPT_HTTPGET, 1L);
  SetOption(CURLOPT_HEADER, own ? 1L : 0L);
  SetOption(CURLOPT_WRITEDATA, writeData);
  SetOption(CURLOPT_WRITEFUNCTION, writeFunction);
  SetOption(CURLOPT_URL, BuildURL(true).c_str());
  return Transfer(own.get());
}

_CURLRTN CURLImpl::PerformPost(std::string body) {
  MemorySource source{body.data(), 0, static_cast<long long>(body.size())};
  return PerformPost(reinterpret_cast<void*>(&read_callback_buf_func), &source, -1);
}

_CURLRTN CURLImpl::PerformPost(void* readFunction, void* readData, long long size) {
  _CURLRTN failed;
  failed.code = CURLE_FAILED_INIT;
  if (!easy) return failed;
  const EvbufferPtr own = NewBuffer();
  const std::string form = readFunction ? std::string() : BuildQueryString(true);
  if (readData != nullptr && size == -1) {
    size = static_cast<MemorySource*>(readData)->length;
    if (readFunction) SetSeek(reinterpret_cast<void*>(&read_callback_buf_seek_func), readData);
  }
  if (size == -1) size = static_cast<long long>(form.size());
  UseMethod("POST");
  SetOption(CURLOPT_URL, readFunction ? BuildURL(true).c_str() : url.c_str());
  SetOption(CURLOPT_POST, 1L);
  SetOption(CURLOPT_HEADER, 1L);
  SetOption(CURLOPT_WRITEDATA, own.get());
  SetOption(CURLOPT_WRITEFUNCTION, &write_callback_ev_func);
  if (post != nullptr) {
    SetOption(CURLOPT_MIMEPOST, post);
  } else {
    SetOption(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
  }
  if (readFunction) {
    SetOption(CURLOPT_READFUNCTION, readFunction);
    if (readData) SetOption(CURLOPT_READDATA, readData);
  } else if (post == nullptr) {
    SetOption(CURLOPT_POSTFIELDS, form.c_str());
  }
  return Transfer(own.get());
}

_CURLRTN CURLImpl::PerformHead() {
  _CURLRTN failed;
  failed.code = CURLE_FAILED_INIT;
  if (!easy) return failed;
  const EvbufferPtr own = NewBuffer();
  lastRequest = "HEAD";
  SetOption(CURLOPT_CUSTOMREQUEST, "HEAD");
  SetOption(CURLOPT_URL, BuildURL(true).c_str());
  SetOption(CURLOPT_HTTPGET, 1L);
  SetOption(CURLOPT_NOBODY, 1L);
  SetOption(CURLOPT_HEADER, 1L);
  SetOption(CURLOPT_WRITEDATA, own.get());
  SetOption(CURLOPT_WRITEFUNCTION, &write_callback_ev_func);
  return Transfer(own.get());
}

void CURLImpl::UseMethod(const char* fallback) {
  if (request.empty()) {
    lastRequest = fallback;
    SetOption(CURLOPT_CUSTOMREQUEST, nullptr);
  } else {
    lastRequest = request;
    SetOption(CURLOPT_CUSTOMREQUEST, request.c_str());
  }
}

/// Runs the transfer that the options describe; `own` holds headers and body when not null.
_CURLRTN CURLImpl::Transfer(evbuffer* own) {
  const HeaderList list(BuildHeader());
  const Finally letGo([this] { ResetBodyOptions(); });
  SetOption(CURLOPT_HTTPHEADER, list.get());
  errorBuffer[0] = '\0';
  _CURLRTN result;
  CallbackScope scope;
  result.code = curl_easy_perform(easy.get());
  scope.Rethrow();
  if (result.code == CURLE_OK) ReadResult(result, own);
  result.errorText = errorBuffer;
  return result;
}

void CURLImpl::ReadResult(_CURLRTN& result, evbuffer* own) {
  curl_off_t download = 0;
  curl_off_t upload = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &result.status);
  curl_easy_getinfo(easy.get(), CURLINFO_SPEED_DOWNLOAD_T, &download);
  curl_easy_getinfo(easy.get(), CURLINFO_SPEED_UPLOAD_T, &upload);
  result.downloadSpeed = static_cast<double>(download);
  result.uploadSpeed = static_cast<double>(upload);
  if (own == nullptr) return;
  long headerSize = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_HEADER_SIZE, &headerSize);
  // libcurl also counts header bytes that it does not deliver.
  result.headerLength = static_cast<uint32_t>(
      std::min(static_cast<size_t>(std::max(headerSize, 0L)), evbuffer_get_length(own)));
  if (result.headerLength != 0) result.headers = MoveOut(own, result.headerLength, 1);
  result.bodyLength = static_cast<uint32_t>(evbuffer_get_length(own));
  if (result.bodyLength != 0) result.body = MoveOut(own, result.bodyLength, 0);
}
