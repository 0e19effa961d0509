// Runs one logical request: builds, performs, classifies, waits and tries again, logs, and reduces
// the outcome to one AERROR. All policy about retries and error codes is here; an operation says
// only which answers mean what.
//
// Blocks the calling thread for transfers and waits. Lets no exception out. What decides an answer,
// in this order: the backoff policy, the handler of the exact status, the catch-all handler, the
// handler of the status class, then 400 and above is FAILED and anything else SUCCESS.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "net/curlrtn.h"
#include "policy/backoff.h"
#include "policy/google_curl.h"

template <class Signature>
class __vl_funcext;

/// A callable with a name; the request builder's name stands for the request in every log line.
template <class Result, class... Arguments>
class __vl_funcext<Result(Arguments...)> {
 public:
  __vl_funcext() = default;
  __vl_funcext(std::function<Result(Arguments...)> callable, const char* text)
      : function(std::move(callable)), name(text) {}

  /// Throws std::bad_function_call when it holds no callable.
  Result operator()(Arguments... arguments) const {
    return function(std::forward<Arguments>(arguments)...);
  }
  explicit operator bool() const { return static_cast<bool>(function); }

  std::function<Result(Arguments...)> function;
  std::string name;
};

/// Fills a borrowed, cleared request object and performs it; called once for each try.
using RequestBuilder = __vl_funcext<_CURLRTN(std::shared_ptr<GoogleCURL>)>;
/// Reads an answer. RETRY sends the request again (the next page, the new token); anything else
/// ends it with that value.
using ResponseHandler = __vl_funcext<AERROR(_CURLRTN&)>;
using HandlerMap = std::unordered_map<int, ResponseHandler>;
using TransferErrorMap = std::unordered_map<int, AERROR>;

/// Key in the map of exact statuses that matches every status.
constexpr int kAnyStatus = -1;

/// QueryWithBackoff with the policy as an object.
AERROR RunQuery(IBackoff& policy, GoogleCURLQueue& pool, RequestBuilder builder,
                const HandlerMap& rangeHandlers, const HandlerMap& statusHandlers,
                const TransferErrorMap& transferErrors);

/// `range_handlers` by a status class's hundred (400 for 400..499), `status_handlers` by exact
/// status, `transfer_errors` by libcurl code. Policy objects are made fresh for each call.
template <class Backoff, class Pool>
AERROR QueryWithBackoff(Pool& pool, RequestBuilder builder, HandlerMap range_handlers,
                        HandlerMap status_handlers, TransferErrorMap transfer_errors) {
  Backoff policy;
  return RunQuery(policy, pool, std::move(builder), range_handlers, status_handlers,
                  transfer_errors);
}
