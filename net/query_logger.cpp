#include "net/query_logger.h"

#include <string>

#include "net/curl_impl.h"
#include "net/logging.h"
#include "util/compress.h"

namespace {

thread_local std::weak_ptr<IQueryLogger> __query_with_backoff_logger__;

std::string Compressed(const std::string& text) {
  return compress_string(text.data(), text.size());
}

std::string WithURL(const _CURLRTN& result, const char* data, size_t length) {
  return result.request->GetEffectiveURL() + "\n\n" + std::string(data, length);
}

}  // namespace

void HeaderLog::DoLog(const char* name, _CURLRTN& result) {
  if (result.headerLength == 0) return;
  const std::string text = WithURL(result, result.headers.get(), result.headerLength);
  __LOG__A(logger, kLogDetail, "[PROTOCOL  ] %s >>%s", name, ("\n" + Compressed(text)).c_str());
}

void BodyLog::DoLog(const char* name, _CURLRTN& result) {
  if (result.bodyLength == 0) return;
  const std::string text = WithURL(result, result.body.get(), result.bodyLength);
  __LOG__A(logger, kLogDetail, "[PROTOCOL  ] %s >> %s", name, Compressed(text).c_str());
}

void FullLog::DoLog(const char* name, _CURLRTN& result) {
  if (result.headerLength == 0 && result.bodyLength == 0) return;
  std::string text = compress_string(result.headers.get(), result.headerLength);
  if (result.bodyLength != 0) {
    text += "\n" + compress_string(result.body.get(), result.bodyLength);
  }
  __LOG__A(logger, kLogDetail, "[PROTOCOL  ] %s >>\n%s", name, text.c_str());
}

void BindQueryLogger(std::shared_ptr<IQueryLogger> queryLogger) {
  __query_with_backoff_logger__ = queryLogger;
}

std::shared_ptr<IQueryLogger> GetQueryLogger() { return __query_with_backoff_logger__.lock(); }

__Auto_Unbind_Logger__::~__Auto_Unbind_Logger__() { __query_with_backoff_logger__.reset(); }
