// A request object that writes a performance line for each transfer and keeps the last URL.
#pragma once

#include <string>

#include "net/curl_impl.h"

class CURLLogger : public CURLImpl {
 public:
  CURLLogger();

  _CURLRTN PerformGet(void* writeFunction, void* writeData) override;
  _CURLRTN PerformPost(std::string body) override;
  _CURLRTN PerformPost(void* readFunction, void* readData, long long size) override;

  /// Switches libcurl's own debug output on or off, as the bound logger wants it.
  void InstallLogger();
  /// The last URL with its query, unescaped.
  std::string GetLastURL() const { return lastURL; }

 private:
  void Prepare();
  void LogUpload(const _CURLRTN& result, long long sent);

  std::string lastURL;
};
