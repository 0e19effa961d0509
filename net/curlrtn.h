// The result record of one HTTP transfer.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <string>

class CURLImpl;

struct _CURLRTN {
  CURLcode code = CURLE_OK;       ///< CURLE_FAILED_INIT when the request object has no handle
  std::string errorText;          ///< libcurl's own words, when the request object collects them
  long status = 0;                ///< HTTP status; 0 when the transfer failed
  std::shared_ptr<char> body;     ///< not terminated; null when empty or given to a callback
  uint32_t bodyLength = 0;        ///< bytes
  std::shared_ptr<char> headers;  ///< raw header lines of every response, then one NUL; or null
  uint32_t headerLength = 0;      ///< bytes, without the NUL
  double uploadSpeed = 0;         ///< bytes per second
  double downloadSpeed = 0;       ///< bytes per second
  /// The request that made this; set only while the query driver hands the record to a logger.
  std::shared_ptr<CURLImpl> request;
};
