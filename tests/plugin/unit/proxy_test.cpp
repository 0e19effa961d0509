// Proxies: how requests go through them and what must not stay behind.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "net/curl_impl.h"
#include "tests/plugin/unit/wire_server.h"

namespace {

constexpr int kTunnel = 3;
constexpr int kPlain = 4;
constexpr int kUntyped = 5;
constexpr char kChallenge[] = "Proxy-Authenticate: Basic realm=\"p\"\r\n";
constexpr char kCredentials[] = "Proxy-Authorization: Basic dTpwdw==";  // u:pw

size_t Append(const char* data, size_t size, size_t count, std::string* to) {
  to->append(data, size * count);
  return size * count;
}

/// An environment variable for a scope.
class Variable {
 public:
  Variable(const char* variable, const char* value) : name(variable) { setenv(name, value, 1); }
  ~Variable() { unsetenv(name); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* name;
};

struct Proxy : testing::Test {
  WireServer proxy;
  CURLImpl request;

  void Use(WireServer& server, int type, const char* user = "", const char* password = "") {
    request.SetProxy(type, "127.0.0.1", server.Port(), user, password);
  }
  _CURLRTN Get(const std::string& url) {
    request.SetURL(url.c_str());
    return request.PerformGet(nullptr, nullptr);
  }
};

TEST_F(Proxy, PlainProxyIsAskedForTheWholeUrl) {
  Use(proxy, kPlain, "", "ignored without a user");
  EXPECT_EQ(Get("http://drive.test/files?a=1").status, 200);
  EXPECT_EQ(proxy.Only().Line(), "GET http://drive.test/files?a=1 HTTP/1.1");
  EXPECT_EQ(proxy.Only().Header("Proxy-Authorization"), "");
}

TEST_F(Proxy, ABodyIsSentAgainOnceTheProxyKnowsTheUser) {
  const std::string body(200000, 'b');
  proxy.Play({Http(407, "who are you", kChallenge)});
  Use(proxy, kPlain, "u", "pw");
  request.SetURL("http://drive.test/files");
  EXPECT_EQ(request.PerformPost(body).status, 200);
  EXPECT_EQ(proxy.Requests().back().Header("Proxy-Authorization"), kCredentials);
  EXPECT_TRUE(proxy.Requests().back().body == body);
}

TEST_F(Proxy, TunnelAuthenticatesToTheProxyOnly) {
  proxy.Play({Http(407, "no", kChallenge),
              {"HTTP/1.1 200 Go\r\nX-Proxy: 1\r\n\r\n"},
              Http(200, "through")});
  Use(proxy, kTunnel, "u", "pw");
  const _CURLRTN result = Get("http://drive.test/files");
  EXPECT_EQ(std::string(result.body.get(), result.bodyLength), "through");
  const auto seen = proxy.Requests();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].Line(), "CONNECT drive.test:80 HTTP/1.1");
  EXPECT_EQ(seen[0].Header("Proxy-Authorization"), "");
  EXPECT_EQ(seen[1].Line(), "CONNECT drive.test:80 HTTP/1.1");
  EXPECT_EQ(seen[1].Header("Proxy-Authorization"), kCredentials);
  EXPECT_EQ(seen[2].Line(), "GET /files HTTP/1.1");
  EXPECT_EQ(seen[2].Header("Proxy-Authorization"), "");
}

TEST_F(Proxy, ATunnelsOwnAnswerIsNotContent) {
  proxy.Play({{"HTTP/1.1 200 Go\r\nX-Proxy: 1\r\n\r\n"}, Http(200, "content")});
  Use(proxy, kTunnel);
  std::string written;
  request.SetURL("http://drive.test/file");
  request.PerformGet(reinterpret_cast<void*>(&Append), &written);
  EXPECT_EQ(written, "content");
}

TEST_F(Proxy, ARefusedTunnelIsATransferError) {
  proxy.SetFallback(Http(502, "bad"));
  Use(proxy, kTunnel);
  const _CURLRTN result = Get("http://drive.test/file");
  EXPECT_NE(result.code, CURLE_OK);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.body, nullptr);
}

TEST_F(Proxy, CredentialsAndTunnelStayWithTheirProxy) {
  proxy.Play({{"HTTP/1.1 200 Go\r\n\r\n"}, Http(200, "a")});
  Use(proxy, kTunnel, "u", "pw");
  Get("http://drive.test/");
  request.Clear();

  WireServer second;
  second.SetFallback(Http(407, "who are you", kChallenge));
  Use(second, kPlain);
  EXPECT_EQ(Get("http://drive.test/").status, 407);
  EXPECT_EQ(second.Only().Line(), "GET http://drive.test/ HTTP/1.1");
  EXPECT_EQ(second.Only().Header("Proxy-Authorization"), "");
  request.Clear();

  WireServer origin;
  EXPECT_EQ(Get(origin.Origin() + "/direct").status, 200);
  EXPECT_EQ(origin.Only().Line(), "GET /direct HTTP/1.1");
  EXPECT_EQ(origin.Only().Header("Proxy-Authorization"), "");
}

TEST_F(Proxy, AnotherProxyReplacesTheOneBeforeAlsoWithoutClear) {
  Use(proxy, kTunnel, "u", "pw");
  Use(proxy, 2, "u", "pw");  // SOCKS5, never used
  Use(proxy, kUntyped, "u");
  EXPECT_EQ(Get("http://drive.test/").status, 200);
  EXPECT_EQ(proxy.Only().Line(), "GET http://drive.test/ HTTP/1.1");
  EXPECT_EQ(proxy.Only().Header("Proxy-Authorization"), "Proxy-Authorization: Basic dTo=");
  Use(proxy, 0);
  WireServer origin;
  EXPECT_EQ(Get(origin.Origin()).status, 200);
  request.SetProxy(kPlain, "", proxy.Port(), "u", "pw");  // no host: no proxy
  EXPECT_EQ(Get(origin.Origin()).status, 200);
  EXPECT_EQ(origin.Requests().size(), 2u);
  EXPECT_EQ(origin.Requests()[1].Header("Proxy-Authorization"), "");
  EXPECT_EQ(proxy.Requests().size(), 1u);
}

TEST_F(Proxy, TheEnvironmentExemptsNothingFromTheUsersProxy) {
  const Variable exempt("no_proxy", "*");
  Use(proxy, kPlain);
  WireServer origin;
  EXPECT_EQ(Get(origin.Origin() + "/").status, 200);
  EXPECT_EQ(origin.Connections(), 0);
  EXPECT_EQ(proxy.Only().Line(), "GET " + origin.Origin() + "/ HTTP/1.1");
}

}  // namespace
