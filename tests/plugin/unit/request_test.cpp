// What a request object sends and what it makes of the answers, seen from the wire.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <locale>
#include <string>
#include <thread>
#include <vector>

#include "net/curl_impl.h"
#include "tests/plugin/unit/wire_server.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string Body(const _CURLRTN& result) { return {result.body.get(), result.bodyLength}; }
std::string Headers(const _CURLRTN& result) { return {result.headers.get(), result.headerLength}; }

std::string Gzip(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string packed(text.size() + 100, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

size_t Append(const char* data, size_t size, size_t count, std::string* to) {
  to->append(data, size * count);
  return size * count;
}

struct Request : testing::Test {
  WireServer server;
  CURLImpl request;

  _CURLRTN Get(const std::string& path) {
    request.SetURL((server.Origin() + path).c_str());
    return request.PerformGet(nullptr, nullptr);
  }
  _CURLRTN Post(const std::string& path, const std::string& body) {
    request.SetURL((server.Origin() + path).c_str());
    return request.PerformPost(body);
  }
};

TEST_F(Request, QueryIsSentInOrderOfInsertionWithEscapedValues) {
  request.AddQuery("q", "old");
  request.AddQuery("fields", "a(b,c)");
  request.AddQuery("gone", "x");
  request.AddQuery("empty", std::string());
  request.AddQuery("q", "'\xC3\xA9' in a&b+c");
  request.AddQuery("odd[name]", "1");
  request.RemoveQuery("gone");
  request.RemoveQuery("never there");
  EXPECT_EQ(request.BuildQueryString(false),
            "q='\xC3\xA9' in a&b+c&fields=a(b,c)&empty=&odd[name]=1");
  Get("/files");
  EXPECT_EQ(server.Only().Line(),
            "GET /files?q=%27%C3%A9%27%20in%20a%26b%2Bc&fields=a%28b%2Cc%29&empty=&odd[name]=1 "
            "HTTP/1.1");
}

TEST_F(Request, QueryJoinsAUrlThatHasOne) {
  request.AddQuery("name", "v");
  Get("/files?fields=id");
  EXPECT_EQ(server.Only().Line(), "GET /files?fields=id&name=v HTTP/1.1");
}

TEST_F(Request, EscapingRoundTripsAndAPlusStaysAPlus) {
  EXPECT_EQ(request.Escape("a b/~-._%"), "a%20b%2F~-._%25");
  EXPECT_EQ(request.Escape(""), "");
  EXPECT_EQ(request.Unescape("a%20b+c%2F"), "a b+c/");
}

TEST_F(Request, HeadersAreSentInOrderOfInsertion) {
  request.AddHeader("X-Zero", 0LL);
  request.AddHeader("X-Upload-Content-Length", 5368709120LL);
  request.AddHeader("A-Text", "replaced");
  request.AddHeader("X-Last", std::string("l"));
  request.AddHeader("A-Text", "text");
  Get("/");
  EXPECT_THAT(server.Only().head,
              EndsWith("\r\nX-Zero: 0\r\nX-Upload-Content-Length: 5368709120\r\nA-Text: "
                       "text\r\nX-Last: l"));
  EXPECT_EQ(server.Only().Header("User-Agent"), "User-Agent: Vormlane(gzip)");
  EXPECT_THAT(server.Only().Header("Accept-Encoding"), HasSubstr("gzip"));
}

struct GroupedDigits : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(Request, NumbersDoNotFollowTheHostsLocale) {
  const std::locale before =
      std::locale::global(std::locale(std::locale::classic(), new GroupedDigits));
  request.AddHeader("X-Size", 1234567LL);
  std::locale::global(before);
  EXPECT_EQ(request.GetHeader().at("X-Size"), "1234567");
}

TEST_F(Request, WithoutABodySourceTheQueryIsTheForm) {
  request.SetURL((server.Origin() + "/form").c_str());
  request.AddQuery("a", "1&2");
  request.AddQuery("b", "");
  request.PerformPost(nullptr, nullptr, -1);
  EXPECT_EQ(server.Only().Line(), "POST /form HTTP/1.1");
  EXPECT_EQ(server.Only().body, "a=1%262&b=");
  EXPECT_EQ(server.Only().Header("Content-Type"),
            "Content-Type: application/x-www-form-urlencoded");
  request.Clear();
  request.SetURL((server.Origin() + "/empty").c_str());
  request.PerformPost(nullptr, nullptr, -1);
  EXPECT_EQ(server.Requests().back().Header("Content-Length"), "Content-Length: 0");
}

TEST_F(Request, MethodsFollowEachOtherOnOneHandleWithoutClear) {
  server.Play({{"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n"}, Http(200, "got")});
  request.SetURL((server.Origin() + "/x").c_str());
  const _CURLRTN head = request.PerformHead();
  EXPECT_EQ(request.GetLastRequest(), "HEAD");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(Headers(head), "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
  EXPECT_EQ(head.body, nullptr);
  EXPECT_EQ(Body(Get("/x")), "got");
  EXPECT_EQ(request.GetLastRequest(), "GET");
  Post("/x", "sent");
  request.SetRequest("DELETE");
  Get("/x");
  request.SetRequest("PATCH");
  request.AddQuery("k", "v");
  Post("/x", R"({"name":"n"})");
  EXPECT_EQ(request.GetRequest(), "PATCH");

  const auto seen = server.Requests();
  ASSERT_EQ(seen.size(), 5u);
  EXPECT_EQ(seen[0].Line(), "HEAD /x HTTP/1.1");
  EXPECT_EQ(seen[1].Line(), "GET /x HTTP/1.1");
  EXPECT_EQ(seen[2].Line() + seen[2].body, "POST /x HTTP/1.1sent");
  EXPECT_EQ(seen[3].Line() + seen[3].body, "DELETE /x HTTP/1.1");
  EXPECT_EQ(seen[3].Header("Content-Length"), "");
  EXPECT_EQ(seen[4].Line() + seen[4].body, R"(PATCH /x?k=v HTTP/1.1{"name":"n"})");
  EXPECT_EQ(server.Connections(), 1);
}

TEST_F(Request, ClearLeavesNothingOfTheRequestBefore) {
  request.SetRequest("PUT");
  request.AddQuery("q", "1");
  request.AddHeader("X-Secret", "s");
  curl_mime* form = curl_mime_init(request.GetCURL());
  curl_mime_data(curl_mime_addpart(form), "part", CURL_ZERO_TERMINATED);
  request.SetPost(form);
  Post("/form", "");
  EXPECT_THAT(server.Only().body, HasSubstr("part"));
  const std::string plain = "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.Port());
  request.Clear();
  EXPECT_EQ(request.GetURL() + request.GetRequest() + request.GetLastRequest(), "");
  EXPECT_TRUE(request.GetQuery().empty());
  EXPECT_TRUE(request.GetHeader().empty());
  EXPECT_EQ(Body(Get("/")), "ok");
  EXPECT_THAT(server.Requests()[1].head, StartsWith(plain));
  EXPECT_EQ(server.Requests()[1].Header("X-Secret"), "");
  request.Clear();
  Post("/", "body");
  EXPECT_EQ(server.Requests()[2].Line() + server.Requests()[2].body, "POST / HTTP/1.1body");
  EXPECT_EQ(server.Connections(), 1);
}

TEST_F(Request, EveryRedirectIsFollowedWithTheMethodAndTheWholeBody) {
  const std::string body(100000, 'b');
  for (const int status : {301, 302, 303, 307, 308}) {
    server.Play({Http(status, "elsewhere", "Location: /there\r\n"), Http(200, "done")});
    request.SetRequest("PATCH");
    const _CURLRTN result = Post("/here", body);
    ASSERT_EQ(Body(result), "done") << status;
    EXPECT_THAT(Headers(result), StartsWith("HTTP/1.1 " + std::to_string(status)));
    EXPECT_THAT(Headers(result), EndsWith("HTTP/1.1 200 Said\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ(result.headers.get()[result.headerLength], '\0');
    EXPECT_EQ(request.GetEffectiveURL(), server.Origin() + "/there");
    EXPECT_EQ(server.Requests().back().Line(), "PATCH /there HTTP/1.1");
    EXPECT_TRUE(server.Requests().back().body == body) << status;
  }
}

TEST_F(Request, ATokenIsNotSentToAnotherServer) {
  WireServer other;
  server.Play({Http(302, "", "Location: " + other.Origin() + "/there\r\n")});
  request.AddHeader("Authorization", "Bearer t");
  EXPECT_EQ(Get("/").status, 200);
  EXPECT_EQ(server.Only().Header("Authorization"), "Authorization: Bearer t");
  EXPECT_EQ(other.Only().Header("Authorization"), "");
}

TEST_F(Request, BodiesArriveDecodedAndWhole) {
  const std::string text(5000, 'z');
  server.Play({Http(200, Gzip(text), "Content-Encoding: gzip\r\n"),
               {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nTrailer: X-Sum\r\n\r\n"
                "3\r\nabc\r\n2\r\nde\r\n0\r\nX-Sum: 12345678901234567890\r\n\r\n"},
               {"HTTP/1.1 103 Early\r\nLink: </x>\r\n\r\n" + Http(200, "final").bytes},
               Http(200, std::string("n\0l", 3)),
               {"HTTP/1.1 204 No Content\r\nX-Seen: 1\r\n\r\n"}});
  EXPECT_TRUE(Body(Get("/gzip")) == text);
  EXPECT_EQ(Body(Get("/chunked")), "abcde");
  EXPECT_EQ(Body(Get("/early")), "final");
  EXPECT_EQ(Body(Get("/binary")), std::string("n\0l", 3));
  const _CURLRTN none = Get("/none");
  EXPECT_EQ(none.status, 204);
  EXPECT_EQ(Headers(none), "HTTP/1.1 204 No Content\r\nX-Seen: 1\r\n\r\n");
  EXPECT_EQ(none.body, nullptr);
  EXPECT_EQ(none.bodyLength, 0u);
}

TEST_F(Request, ACallersWriteFunctionGetsTheBodyAndNothingElse) {
  Get("/headers-in-the-body");
  server.Play({Http(302, "moved", "Location: /real\r\n"), Http(404, "not here")});
  std::string written;
  request.SetURL((server.Origin() + "/").c_str());
  const _CURLRTN result = request.PerformGet(reinterpret_cast<void*>(&Append), &written);
  EXPECT_EQ(written, "not here");
  EXPECT_EQ(result.status, 404);
  EXPECT_EQ(result.headers, nullptr);
  EXPECT_EQ(result.headerLength + result.bodyLength, 0u);
  EXPECT_EQ(result.body, nullptr);
}

TEST_F(Request, AConnectionThatDiedWhileIdleIsReplaced) {
  server.Play({{Http(200, "first").bytes, After::kClose}, Http(200, "second")});
  Get("/");
  const std::string body(500, 'b');
  EXPECT_EQ(Body(Post("/", body)), "second");
  EXPECT_TRUE(server.Requests().back().body == body);
  EXPECT_EQ(server.Connections(), 2);
}

struct ProgressSeen {
  long long total = 0, now = 0;
  int calls = 0;
};

void KeepProgress(long long total, long long now, void* user, double speed) {
  auto* seen = static_cast<ProgressSeen*>(user);
  *seen = {total, now, seen->calls + 1};
  EXPECT_GE(speed, 0);
}

TEST_F(Request, ProgressIsReportedForTheBoundDirectionUntilClear) {
  ProgressSeen seen;
  const auto handle = std::make_shared<_FS_HANDLE>();
  handle->progress = &KeepProgress;
  handle->progressUser = &seen;
  server.Play({Http(200, std::string(3000, 'd')), Http(200, "short")});
  request.BindHandleForDownload(handle);
  Get("/");
  EXPECT_EQ(seen.total, 3000);
  EXPECT_EQ(seen.now, 3000);
  request.Clear();
  request.BindHandle(handle);
  Post("/", std::string(7000, 'u'));
  EXPECT_EQ(seen.total, 7000);
  EXPECT_EQ(seen.now, 7000);
  request.Clear();
  const int calls = seen.calls;
  Get("/");
  EXPECT_EQ(seen.calls, calls);
  request.BindHandle(nullptr);
  request.BindHandle(std::make_shared<_FS_HANDLE>());  // nobody listens
  EXPECT_EQ(Get("/").status, 200);
}

TEST_F(Request, ASpeedLimitHoldsTheTransferBack) {
  constexpr long long kLimit = 1 << 20;  // bytes per second
  server.Play({Http(200, std::string(2 * kLimit, 'd'))});
  request.SetSpeedLimit(kLimit);
  request.SetSendBuffer();
  request.SetPostFileSize(0);
  EXPECT_LT(Get("/").downloadSpeed, 4.0 * kLimit);
  EXPECT_GT(Post("/", "x").uploadSpeed, 0);
}

TEST_F(Request, ASlowSpeedLimitIsNoStandstill) {
  // Half a minute's standstill is compressed: a peer is given a second, the limit waits for eight.
  constexpr long long kLimit = 12'000;
  server.Play({Http(200, std::string(120'000, 'd'))});
  request.SetLowSpeedTimeout(1);
  request.SetSpeedLimit(kLimit);
  WireServer other;
  std::thread sender([&] {
    CURLImpl upload;
    upload.SetURL(other.Origin().c_str());
    upload.SetSpeedLimit(2'000);
    upload.SetLowSpeedTimeout(1);
    EXPECT_EQ(upload.PerformPost(std::string(17'000, 'u')).code, CURLE_OK);
  });
  const _CURLRTN result = Get("/");
  sender.join();
  EXPECT_EQ(result.code, CURLE_OK);
  EXPECT_EQ(result.bodyLength, 120'000u);
  EXPECT_LT(result.downloadSpeed, 2.0 * kLimit);
}

TEST(ProxyTypes, AreMatchedExactly) {
  const std::pair<const char*, int> words[] = {{"SOCKS4", 1},
                                               {"SOCKS5", 2},
                                               {"HTTP with TUNNEL", 3},
                                               {"HTTP without TUNNEL", 4},
                                               {"socks5", 0},
                                               {"HTTP with TUNNEL ", 0},
                                               {"", 0}};
  for (const auto& [word, type] : words) EXPECT_EQ(ProtocolUtil::curlProxyType(word), type) << word;
}

}  // namespace
