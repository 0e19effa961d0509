#include "bench/library/canned_service.h"

namespace bench {
namespace {

std::string Item(int number) {
  const std::string n = std::to_string(number);
  return R"({"id": "1aBcDeFgHiJkLmNoPqRsTuVwXyZ)" + n + R"(", "name": "Some document )" + n +
         R"(.pdf", "mimeType": "application/pdf", "createdTime": "2024-01-02T03:04:05.678Z",)"
         R"( "modifiedTime": "2024-05-06T07:08:09.123Z", "size": "123456", "webViewLink":)"
         R"( "https://drive.example/file/d/1aBcDeFgHiJkLmNoPqRsTuVwXyZ/view?usp=drivesdk",)"
         R"( "version": "42", "shared": false, "parents": ["folder"]})";
}

/// 10,000 items in pages of a hundred; the token of a page is its number.
std::vector<std::string> Pages(const std::string& list, const std::string& prefix,
                               const std::string& suffix, const std::string& lastToken) {
  std::vector<std::string> pages;
  for (int page = 0; page < 100; ++page) {
    std::string text =
        page < 99 ? R"({"nextPageToken": ")" + std::to_string(page + 1) + "\", " : "{" + lastToken;
    text += "\"" + list + "\": [";
    for (int i = 0; i < 100; ++i) {
      text += (i > 0 ? ", " : "") + prefix + Item(page * 100 + i) + suffix;
    }
    pages.push_back(text + "]}");
  }
  return pages;
}

}  // namespace

const std::vector<std::string> kListing = Pages("files", "", "", "");
const std::vector<std::string> kChanges = Pages("changes", R"({"kind": "drive#change", "file": )",
                                                "}", R"("newStartPageToken": "end", )");

namespace {

RawServer::Reply Range(const std::string& head) {
  const size_t at = head.find("Range: bytes=") + 13;
  const long long first = std::stoll(head.substr(at));
  const long long last = std::stoll(head.substr(head.find('-', at) + 1));
  return {"HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(last - first + 1) +
              "\r\n\r\n",
          "", last - first + 1};
}

RawServer::Reply Page(const std::vector<std::string>& pages, const std::string& line) {
  const size_t at = line.find("pageToken=");
  if (at == std::string::npos) return RawServer::Ok(pages.front());
  if (line.compare(at + 10, 3, "end") == 0) {
    return RawServer::Ok(R"({"newStartPageToken": "end", "changes": []})");
  }
  return RawServer::Ok(pages.at(std::stoul(line.substr(at + 10))));
}

}  // namespace

RawServer::Reply Answer(const std::string& line, const std::string& head) {
  const auto has = [&line](const char* part) { return line.find(part) != std::string::npos; };
  if (has("alt=media")) return Range(head);
  if (has("/drive/v3/changes?")) return Page(kChanges, line);
  if (has("uploadType=resumable")) {
    const size_t host = head.find("Host: ") + 6;
    const std::string server = head.substr(host, head.find("\r\n", host) - host);
    return RawServer::Ok("", "Location: http://" + server + "/session\r\n");
  }
  if (has("/drive/v3/files?")) return Page(kListing, line);
  if (has("/about")) {
    return RawServer::Ok(R"({"rootFolderId": "root", "quotaBytesTotal": "1",)"
                         R"( "quotaBytesUsedAggregate": "1",)"
                         R"( "user": {"displayName": "n", "emailAddress": "e"}})");
  }
  return RawServer::Ok(Item(1));
}

}  // namespace bench
