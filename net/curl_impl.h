// One reusable HTTP request over one libcurl easy handle.
//
// Fill it (URL, method, query, headers, limits), perform it, read the record, Clear it. Its
// connection stays open for the next request. Used by one thread at a time. Nothing here reports an
// error: a transfer's outcome is in its record. Times are in seconds, sizes and speeds in bytes and
// bytes per second.
#pragma once

#include <curl/curl.h>

#include <functional>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "net/curlrtn.h"
#include "net/field_map.h"
#include "plugin/host_interfaces.h"

struct HeaderListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListFree>;

/// What libcurl hands back to the progress callbacks.
struct ProgressContext {
  void (*progress)(long long total, long long now, void* user, double bytesPerSecond) = nullptr;
  void* user = nullptr;
  CURL* easy = nullptr;
};

class CURLImpl {
 public:
  CURLImpl();
  virtual ~CURLImpl();
  CURLImpl(const CURLImpl&) = delete;
  CURLImpl& operator=(const CURLImpl&) = delete;

  /// Back to the just-built state, the proxy included; the open connection is kept.
  virtual void Clear();
  /// GET. With a null write function the body is collected in the record, else the libcurl write
  /// callback receives it.
  virtual _CURLRTN PerformGet(void* writeFunction, void* writeData);
  /// POST (or the method set) of a body held in memory.
  virtual _CURLRTN PerformPost(std::string body);
  /// POST of a streamed body. Without a read function the query becomes a form-encoded body. A size
  /// of -1 takes it from `readData`, which must then be a MemorySource.
  virtual _CURLRTN PerformPost(void* readFunction, void* readData, long long size);
  virtual _CURLRTN PerformHead();

  CURL* GetCURL() const { return easy.get(); }

  void SetURL(const char* text) { url = text; }
  std::string GetURL() const { return url; }
  /// Any method name; empty means the default of the Perform operation.
  void SetRequest(const char* method);
  std::string GetRequest() const { return request; }
  /// The method that the last transfer used.
  std::string GetLastRequest() const { return lastRequest; }

  /// A name given twice keeps the later value and the earlier place.
  template <class T>
  void AddQuery(const char* name, T value) {
    query.Set(name, Text(value));
  }
  template <class T>
  void AddHeader(const char* name, T value) {
    headers.Set(name, Text(value));
  }
  void RemoveQuery(const char* name) { query.Remove(name); }
  std::unordered_map<std::string, std::string> GetQuery() const { return query.ToMap(); }
  std::unordered_map<std::string, std::string> GetHeader() const { return headers.ToMap(); }

  /// Takes ownership; Clear frees the form.
  void SetPost(curl_mime* form) { post = form; }

  /// "name=value&..."; names are never escaped.
  std::string BuildQueryString(bool escape) const;
  /// The caller frees the list with curl_slist_free_all.
  curl_slist* BuildHeader() const;
  std::string Escape(const char* text) const;
  std::string Unescape(const char* text) const;

  /// `type` as ProtocolUtil::curlProxyType gives it; 0 or an empty host means no proxy.
  void SetProxy(int type, std::string host, int port, std::string user, std::string password);
  /// Verifies servers against the certificate bundle that travels with the host program.
  void SetSSLDefaults();
  /// Both directions; 0 is unlimited. Holds on average over a transfer: what its first second may
  /// move, or 100 KiB if that is more, passes at once.
  void SetSpeedLimit(long long bytesPerSecond);
  /// How long a transfer may move less than a byte per second, the waits of its speed limit apart.
  void SetLowSpeedTimeout(long seconds);
  void SetSendBuffer();
  void SetPostFileSize(long long size);
  /// How libcurl rewinds a streamed body; lasts for the next transfer.
  void SetSeek(void* seekFunction, void* seekData);
  /// Report the transfer's progress to the handle's progress function. The handle is not kept.
  void BindHandle(std::shared_ptr<_FS_HANDLE> handle);
  void BindHandleForDownload(std::shared_ptr<_FS_HANDLE> handle);

  /// The URL that the last transfer ended at.
  std::string GetEffectiveURL() const;
  std::string GetScheme() const;
  static std::string ErrorString(CURLcode code);

 protected:
  /// libcurl's options are untyped: only what it can really take passes.
  template <class T>
  void SetOption(CURLoption option, T value) {
    static_assert(std::is_same_v<T, long> || std::is_same_v<T, curl_off_t> ||
                  std::is_pointer_v<T> || std::is_null_pointer_v<T>);
    if constexpr (std::is_null_pointer_v<T>) {
      curl_easy_setopt(easy.get(), option, static_cast<void*>(nullptr));
    } else {
      curl_easy_setopt(easy.get(), option, value);
    }
  }
  /// The URL with the query appended.
  std::string BuildURL(bool escape) const;
  char* ErrorBuffer() { return errorBuffer; }

 private:
  template <class T>
  static std::string Text(const T& value) {
    if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, const char*>) {
      return value;
    } else {
      std::ostringstream stream;
      stream.imbue(std::locale::classic());  // the host's locale may group digits
      stream << value;
      return stream.str();
    }
  }
  void ResetBodyOptions();
  void SetBlocks(long long receive, long long send);
  void BindProgress(const std::shared_ptr<_FS_HANDLE>& handle, curl_xferinfo_callback callback);
  void UseMethod(const char* fallback);
  _CURLRTN Transfer(struct evbuffer* own);
  void ReadResult(_CURLRTN& result, struct evbuffer* own);

  std::shared_ptr<CURL> easy;
  curl_mime* post = nullptr;
  ProgressContext progress;
  FieldMap query;
  FieldMap headers;
  std::string url;
  std::string request;
  std::string lastRequest;
  long connectTimeout = 10;
  long stallTime = 20;
  long long speedLimit = 0;
  char errorBuffer[CURL_ERROR_SIZE] = {};
};

int _CURL_PROGRESS(void* context, curl_off_t downloadTotal, curl_off_t downloaded,
                   curl_off_t uploadTotal, curl_off_t uploaded);
int _CURL_PROGRESS_DOWNLOAD(void* context, curl_off_t downloadTotal, curl_off_t downloaded,
                            curl_off_t uploadTotal, curl_off_t uploaded);

namespace ProtocolUtil {
/// "SOCKS4" 1, "SOCKS5" 2, "HTTP with TUNNEL" 3, "HTTP without TUNNEL" 4, anything else 0.
int curlProxyType(const std::string& type);
}  // namespace ProtocolUtil
