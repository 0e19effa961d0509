// Transfers that go wrong: each leaves an empty record and a request object that still works.
#include <gtest/gtest.h>

#include <string>

#include "net/curl_logger.h"
#include "tests/plugin/unit/recording_log.h"
#include "tests/plugin/unit/wire_server.h"

namespace {

void ExpectEmpty(const _CURLRTN& result) {
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.body, nullptr);
  EXPECT_EQ(result.headers, nullptr);
  EXPECT_EQ(result.bodyLength + result.headerLength, 0u);
  EXPECT_EQ(result.uploadSpeed + result.downloadSpeed, 0);
}

struct FaultCase {
  const char* name;
  Answer answer;
  CURLcode code;
};

const FaultCase kFaults[] = {
    {"ClosedBeforeAnswer", {"", After::kClose}, CURLE_GOT_NOTHING},
    {"ResetBeforeAnswer", {"", After::kReset}, CURLE_RECV_ERROR},
    {"ClosedInHeaders", {"HTTP/1.1 200 OK\r\nX-Cut: ", After::kClose}, CURLE_OK},
    {"ClosedInBody",
     {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", After::kClose},
     CURLE_PARTIAL_FILE},
    {"ResetInBody",
     {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", After::kReset},
     CURLE_RECV_ERROR},
    {"StalledBeforeAnswer", {"", After::kStall}, CURLE_OPERATION_TIMEDOUT},
    {"StalledInBody",
     {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", After::kStall},
     CURLE_OPERATION_TIMEDOUT},
    {"NotHttp", {"\x01\xFF garbage\r\n\r\n", After::kClose}, CURLE_UNSUPPORTED_PROTOCOL},
    {"ZeroByteInHeader",
     {std::string("HTTP/1.1 200 OK\r\nX: a\0b\r\n\r\n", 27), After::kClose},
     CURLE_WEIRD_SERVER_REPLY},
    {"HeaderWithoutColon",
     {"HTTP/1.1 200 OK\r\nno colon\r\n\r\n", After::kClose},
     CURLE_WEIRD_SERVER_REPLY},
    {"LengthThatIsNone",
     {"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n", After::kClose},
     CURLE_WEIRD_SERVER_REPLY},
    {"BrokenChunks",
     {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nZZ\r\n", After::kClose},
     CURLE_RECV_ERROR},
    {"BrokenGzip", Http(200, "not zipped at all", "Content-Encoding: gzip\r\n"),
     CURLE_BAD_CONTENT_ENCODING},
    {"RedirectWithoutEnd", Http(302, "", "Location: /again\r\n"), CURLE_TOO_MANY_REDIRECTS}};

class TransferFault : public testing::TestWithParam<FaultCase> {};
INSTANTIATE_TEST_SUITE_P(Faults, TransferFault, testing::ValuesIn(kFaults),
                         [](const auto& fault) { return fault.param.name; });

TEST_P(TransferFault, IsReportedAndTheObjectStillWorks) {
  const FaultCase& fault = GetParam();
  WireServer server;
  CURLImpl request;
  for (const bool post : {false, true}) {
    if (post && fault.answer.after == After::kStall) break;  // each takes its seconds
    server.SetFallback(fault.answer);
    request.Clear();
    request.SetURL((server.Origin() + "/").c_str());
    request.SetLowSpeedTimeout(1);
    const _CURLRTN result =
        post ? request.PerformPost("body") : request.PerformGet(nullptr, nullptr);
    EXPECT_EQ(result.code, fault.code) << CURLImpl::ErrorString(result.code);
    if (fault.code != CURLE_OK) ExpectEmpty(result);
    server.SetFallback(Http(200, "ok"));
    request.Clear();
    request.SetURL((server.Origin() + "/").c_str());
    EXPECT_EQ(request.PerformGet(nullptr, nullptr).bodyLength, 2u);
  }
}

TEST(TransferFaults, OddHeadersPassAsTheyCame) {
  WireServer server;
  const std::string head =
      "HTTP/1.1 200 \xFF\xFE\r\n: no name\r\nX-\xC3\xA9: \x01\x02\r\n"
      "Content-Length: 2\r\n\r\n";
  server.Play({{head + "ok"}});
  CURLImpl request;
  request.SetURL(server.Origin().c_str());
  const _CURLRTN result = request.PerformGet(nullptr, nullptr);
  EXPECT_EQ(std::string(result.headers.get(), result.headerLength), head);
  EXPECT_EQ(std::string(result.body.get(), result.bodyLength), "ok");
}

TEST(TransferFaults, ARefusedConnectionKeepsLibcurlsWords) {
  const RefusedPort refused;
  CURLLogger request;
  request.SetURL(refused.Origin().c_str());
  for (const _CURLRTN& result :
       {request.PerformGet(nullptr, nullptr), request.PerformHead(), request.PerformPost("body")}) {
    EXPECT_EQ(result.code, CURLE_COULDNT_CONNECT);
    EXPECT_NE(result.errorText.find("Failed to connect"), std::string::npos) << result.errorText;
    ExpectEmpty(result);
  }
  WireServer server;
  request.SetURL(server.Origin().c_str());
  EXPECT_EQ(request.PerformGet(nullptr, nullptr).errorText, "");
}

TEST(TransferFaults, AResetWhileTheBodyIsSentIsReported) {
  WireServer server;
  server.Play({{"", After::kResetOnHead}});
  CURLImpl request;
  request.SetURL(server.Origin().c_str());
  const _CURLRTN result = request.PerformPost(std::string(900000, 'b'));
  EXPECT_TRUE(result.code == CURLE_SEND_ERROR || result.code == CURLE_RECV_ERROR) << result.code;
  ExpectEmpty(result);
}

}  // namespace
