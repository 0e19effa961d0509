#include "gdrive/endpoints.h"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <memory>

namespace {

struct UrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::string Part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
  std::string copy = text;
  curl_free(text);
  return copy;
}

bool IsLoopback(const std::string& host) {
  in_addr address{};
  if (inet_pton(AF_INET, host.c_str(), &address) == 1) return ntohl(address.s_addr) >> 24 == 127;
  return host == "[::1]" || host == "localhost";
}

}  // namespace

bool IsAllowedEndpoint(const std::string& url, const std::string& scheme) {
  const std::unique_ptr<CURLU, UrlFree> parsed(curl_url());
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
                     CURLUE_OK) {
    return false;
  }
  // A user name or a query would change what is appended to the base.
  if (!Part(parsed.get(), CURLUPART_USER).empty() ||
      url.find_first_of("?#@") != std::string::npos) {
    return false;
  }
  const std::string actual = Part(parsed.get(), CURLUPART_SCHEME);
  const std::string host = Part(parsed.get(), CURLUPART_HOST);
  if (actual == scheme + "s") return !host.empty();
  return actual == scheme && IsLoopback(host);
}
