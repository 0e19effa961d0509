#include "net/curl_logger.h"

#include <algorithm>
#include <limits>

#include "net/logging.h"
#include "net/memory_callbacks.h"

namespace {

/// Bytes per second for a log line; a short transfer can look faster than an int holds.
int Whole(double speed) {
  return static_cast<int>(std::min(speed, static_cast<double>(std::numeric_limits<int>::max())));
}

}  // namespace

CURLLogger::CURLLogger() { SetOption(CURLOPT_ERRORBUFFER, ErrorBuffer()); }

void CURLLogger::InstallLogger() {
  if (logger == nullptr) return;
  if (logger->IsVerbose()) {
    SetOption(CURLOPT_VERBOSE, 1L);
    SetOption(CURLOPT_DEBUGFUNCTION, &CURLDebug);
  } else {
    SetOption(CURLOPT_VERBOSE, 0L);
    SetOption(CURLOPT_DEBUGFUNCTION, nullptr);
  }
}

void CURLLogger::Prepare() {
  InstallLogger();
  lastURL = Unescape(BuildURL(false).c_str());
}

_CURLRTN CURLLogger::PerformGet(void* writeFunction, void* writeData) {
  Prepare();
  _CURLRTN result = CURLImpl::PerformGet(writeFunction, writeData);
  __LOG__A(logger, kLogDetail, "[PERF      ] Download %db/s : %s(%d bytes)",
           Whole(result.downloadSpeed), GetURL().c_str(), static_cast<int>(result.bodyLength));
  return result;
}

_CURLRTN CURLLogger::PerformPost(std::string body) {
  Prepare();
  MemorySource source{body.data(), 0, static_cast<long long>(body.size())};
  // The base's stream form, not ours: one transfer, one line.
  _CURLRTN result =
      CURLImpl::PerformPost(reinterpret_cast<void*>(&read_callback_buf_func), &source, -1);
  LogUpload(result, static_cast<long long>(body.size()));
  return result;
}

_CURLRTN CURLLogger::PerformPost(void* readFunction, void* readData, long long size) {
  Prepare();
  _CURLRTN result = CURLImpl::PerformPost(readFunction, readData, size);
  LogUpload(result, size);
  return result;
}

void CURLLogger::LogUpload(const _CURLRTN& result, long long sent) {
  __LOG__A(logger, kLogDetail, "[PERF      ] Upload %db/s / Download %db/s : %s(%d / %d bytes)",
           Whole(result.uploadSpeed), Whole(result.downloadSpeed), GetURL().c_str(),
           static_cast<int>(sent), static_cast<int>(result.bodyLength));
}
