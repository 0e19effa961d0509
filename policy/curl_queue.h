// A pool of request objects that keeps their connections warm.
//
// Any thread may borrow and return. The pool never blocks and has no upper bound: it grows to the
// most requests ever in flight at once. A borrowed object belongs to its borrower alone.
#pragma once

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "net/curl_impl.h"

/// The proxy that every borrowed object is given. `type` is one of the words that
/// ProtocolUtil::curlProxyType knows; anything else means none. `port` is decimal.
struct ProxySettings {
  std::string type;
  std::string host;
  std::string port;
  std::string user;
  std::string password;
};

template <class Request>
class CURLQueue {
 public:
  /// Makes `count` objects at once.
  explicit CURLQueue(int count) {
    for (int i = 0; i < count; ++i) free.push_back(CURLQueue::AllocCURL());
  }
  virtual ~CURLQueue() = default;
  CURLQueue(const CURLQueue&) = delete;
  CURLQueue& operator=(const CURLQueue&) = delete;

  /// A cleared object with the proxy applied. Last returned, first lent: its connection is the
  /// likeliest to be open.
  virtual std::shared_ptr<Request> GetCURL() {
    std::shared_ptr<Request> request;
    ProxySettings settings;
    {
      const std::lock_guard guard(mutex);
      settings = proxy;
      if (!free.empty()) {
        request = std::move(free.back());
        free.pop_back();
      }
    }
    if (!request) request = AllocCURL();
    const int type = ProtocolUtil::curlProxyType(settings.type);
    if (type != 0) {
      request->SetProxy(type, settings.host, atoi(settings.port.c_str()), settings.user,
                        settings.password);
    }
    return request;
  }

  virtual void PutCURL(std::shared_ptr<Request> request) {
    if (!request) return;
    request->Clear();
    const std::lock_guard guard(mutex);
    free.push_back(std::move(request));
  }

  virtual std::shared_ptr<Request> AllocCURL() { return std::make_shared<Request>(); }

  void SetProxySettings(ProxySettings settings) {
    const std::lock_guard guard(mutex);
    std::swap(proxy, settings);
  }

 private:
  std::mutex mutex;
  std::vector<std::shared_ptr<Request>> free;
  ProxySettings proxy;
};

/// Returns a borrowed object at the end of a scope. A failure there ends the process.
template <class Request>
class AutoPutCURL {
 public:
  AutoPutCURL(std::shared_ptr<Request> borrowed, CURLQueue<Request>* lender)
      : request(std::move(borrowed)), pool(lender) {}
  ~AutoPutCURL() { pool->PutCURL(request); }
  AutoPutCURL(const AutoPutCURL&) = delete;
  AutoPutCURL& operator=(const AutoPutCURL&) = delete;

 private:
  std::shared_ptr<Request> request;
  CURLQueue<Request>* pool;
};
