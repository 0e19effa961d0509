#include "policy/query_driver.h"

#include <chrono>
#include <optional>

#include "net/logging.h"
#include "net/query_logger.h"
#include "util/clock.h"

namespace {

/// One call of the driver. Each step returns the request's outcome, or nothing to try again.
class Query {
 public:
  Query(IBackoff& backoffPolicy, GoogleCURLQueue& requestPool, const RequestBuilder& requestBuilder,
        const HandlerMap& ranges, const HandlerMap& statuses, const TransferErrorMap& transfers)
      : policy(backoffPolicy),
        pool(requestPool),
        builder(requestBuilder),
        rangeHandlers(ranges),
        statusHandlers(statuses),
        transferErrors(transfers) {}

  std::optional<AERROR> Try() {
    _CURLRTN result = Perform();
    if (result.code != CURLE_OK) return TransferFailed(result.code);
    if (policy.IsBackoffCode(static_cast<int>(result.status))) return WaitForRetry();
    return Dispatch(result);
  }

  AERROR Failed() const {
    __LOG__A(logger, kLogError, "[PROTOCOL  ] %s >> Exception", Name());
    return AERROR::FAILED;
  }

 private:
  const char* Name() const { return builder.name.c_str(); }

  /// The object goes back before the answer is handled: a handler that asks further then uses the
  /// same connection, and a wait holds none.
  _CURLRTN Perform() {
    const std::shared_ptr<GoogleCURL> request = pool.GetCURL();
    const AutoPutCURL<GoogleCURL> putBack(request, &pool);
    const SteadyTime begin = SteadyNow();
    _CURLRTN result = builder(request);
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(SteadyNow() - begin);
    if (result.code != CURLE_OK) return result;
    __LOG__A(logger, kLogInformation, "[PROTOCOL  ] %s >> %s %s >> %d : %s(%d) - %dms", Name(),
             request->GetScheme().c_str(), request->GetLastRequest().c_str(),
             static_cast<int>(result.status), request->GetURL().c_str(),
             static_cast<int>(result.bodyLength), static_cast<int>(elapsed.count()));
    if (const auto queryLogger = GetQueryLogger()) {
      result.request = request;
      queryLogger->DoLog(Name(), result);
      result.request.reset();
    }
    return result;
  }

  AERROR TransferFailed(CURLcode code) const {
    const std::string text = CURLImpl::ErrorString(code);
    const auto mapped = transferErrors.find(code);
    if (mapped == transferErrors.end()) {
      __LOG__A(logger, kLogError, "[PROTOCOL  ] %s >> %s(%d)", Name(), text.c_str(), code);
      return AERROR::FAILED;
    }
    __LOG__A(logger, kLogDetail, "[PROTOCOL  ] %s >> %s(%d) treat as %s", Name(), text.c_str(),
             code, GetAERRORA(mapped->second));
    return mapped->second;
  }

  std::optional<AERROR> WaitForRetry() {
    if (!policy.IsAvaliable()) {
      __LOG__A(logger, kLogError, "[PROTOCOL  ] %s >> No more backoff", Name());
      return AERROR::FAILED;
    }
    __LOG__A(logger, kLogInformation, "[PROTOCOL  ] %s >> %d time(s) backoff left", Name(),
             policy.GetLeft());
    if (policy.Backoff() != kBackoffDone) {
      __LOG__A(logger, kLogDetail, "[PROTOCOL  ] %s >> Backoff returns error", Name());
      return AERROR::FAILED;
    }
    __LOG__A(logger, kLogDetail, "[PROTOCOL  ] %s >> Backoff done. Retry", Name());
    return std::nullopt;
  }

  std::optional<AERROR> Dispatch(_CURLRTN& result) const {
    const int status = static_cast<int>(result.status);
    const int range = status / 100 * 100;
    if (const auto exact = statusHandlers.find(status); exact != statusHandlers.end()) {
      const AERROR code = exact->second(result);
      __LOG__A(logger, LevelOf(code), "[PROTOCOL  ] %s >> ON HTTP %d : %s(0x%08X)", Name(), status,
               GetAERRORA(code), static_cast<unsigned>(code));
      return Outcome(code);
    }
    if (const auto any = statusHandlers.find(kAnyStatus); any != statusHandlers.end()) {
      const AERROR code = any->second(result);
      __LOG__A(logger, LevelOf(code), "[PROTOCOL  ] %s >> ON HTTP(for any code) %d : %s(0x%08X)",
               Name(), status, GetAERRORA(code), static_cast<unsigned>(code));
      return Outcome(code);
    }
    if (const auto ranged = rangeHandlers.find(range); ranged != rangeHandlers.end()) {
      const AERROR code = ranged->second(result);
      __LOG__A(logger, LevelOf(code), "[PROTOCOL  ] %s >> ON HTTP RANGE %d(%d) : %s(0x%08X)",
               Name(), range, status, GetAERRORA(code), static_cast<unsigned>(code));
      return Outcome(code);
    }
    if (status < 400) return AERROR::SUCCESS;
    __LOG__A(logger, kLogError, "[PROTOCOL  ] %s >> HTTP %d", Name(), status);
    return AERROR::FAILED;
  }

  static LOGLEVEL LevelOf(AERROR code) {
    return code == AERROR::SUCCESS || code == AERROR::RETRY ? kLogDetail : kLogError;
  }

  static std::optional<AERROR> Outcome(AERROR code) {
    if (code == AERROR::RETRY) return std::nullopt;
    return code;
  }

  IBackoff& policy;
  GoogleCURLQueue& pool;
  const RequestBuilder& builder;
  const HandlerMap& rangeHandlers;
  const HandlerMap& statusHandlers;
  const TransferErrorMap& transferErrors;
};

}  // namespace

AERROR RunQuery(IBackoff& policy, GoogleCURLQueue& pool, RequestBuilder builder,
                const HandlerMap& rangeHandlers, const HandlerMap& statusHandlers,
                const TransferErrorMap& transferErrors) {
  if (!builder) return AERROR::INVALID_PARAMETER;
  if (builder.name.empty()) builder.name = "QueryWithBackoff";
  const __Auto_Unbind_Logger__ unbind;
  Query query(policy, pool, builder, rangeHandlers, statusHandlers, transferErrors);
  try {
    while (true) {
      if (const auto outcome = query.Try()) return *outcome;
    }
  } catch (...) {
    try {
      return query.Failed();
    } catch (...) {
      return AERROR::FAILED;  // the host's logger throws
    }
  }
}
