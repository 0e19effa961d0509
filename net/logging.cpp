#include "net/logging.h"

#include <cstring>
#include <mutex>
#include <string>

#include "net/callback_guard.h"

void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...) {
  if (log == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  log->Write(level, format, arguments);
  va_end(arguments);
}

namespace {
std::recursive_mutex ownThreadGate;  // the host's logger may unbind itself while it writes
}  // namespace

void SetLogger(ILog* log) {
  const std::lock_guard guard(ownThreadGate);
  logger = log;
}

void LogFromOwnThread(LOGLEVEL level, const char* format, ...) {
  const std::lock_guard guard(ownThreadGate);
  if (logger == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  try {
    logger->Write(level, format, arguments);
  } catch (...) {
    // Below is a thread of our own, and nobody who could be told.
  }
  va_end(arguments);
}

namespace {

void LogDebug(curl_infotype type, const std::string& text) {
  const bool endsHeaders = text.compare(0, 1, "\r") == 0;
  if (type == CURLINFO_TEXT) {
    __LOG__A(logger, kLogDetail, "[NETWORK   ] [INFORMATION] %s", text.c_str());
  } else if (type == CURLINFO_HEADER_IN && !endsHeaders) {
    __LOG__A(logger, kLogDetail, "[NETWORK   ] [HEADER   >>] %s", text.c_str());
  } else if (type == CURLINFO_HEADER_OUT && !endsHeaders && text.compare(0, 5, "PASS ") != 0) {
    __LOG__A(logger, kLogDetail, "[NETWORK   ] [HEADER   <<] %s", text.c_str());
  }
}

}  // namespace

int CURLDebug(CURL*, curl_infotype type, char* data, size_t size, void*) {
  return GuardCallback(0, [&] {
    LogDebug(type, std::string(data, size));
    return 0;
  });
}
