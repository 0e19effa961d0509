// The lines of the network layer, word for word, and the query loggers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "net/curl_logger.h"
#include "net/query_logger.h"
#include "tests/plugin/unit/recording_log.h"
#include "tests/plugin/unit/wire_server.h"
#include "util/compress.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TEST(DebugCallback, LogsRemarksAndHeaderLinesOnly) {
  const struct {
    curl_infotype type;
    const char* data;
    const char* line;  // null: nothing is logged
  } cases[] = {{CURLINFO_TEXT, "remark %s\n", "1 [NETWORK   ] [INFORMATION] remark %s\n"},
               {CURLINFO_TEXT, "\rremark", "1 [NETWORK   ] [INFORMATION] \rremark"},
               {CURLINFO_HEADER_IN, "A: b\r\n", "1 [NETWORK   ] [HEADER   >>] A: b\r\n"},
               {CURLINFO_HEADER_IN, "PASS x", "1 [NETWORK   ] [HEADER   >>] PASS x"},
               {CURLINFO_HEADER_IN, "\r\n", nullptr},
               {CURLINFO_HEADER_OUT, "GET /\r\n", "1 [NETWORK   ] [HEADER   <<] GET /\r\n"},
               {CURLINFO_HEADER_OUT, "PASSWORD", "1 [NETWORK   ] [HEADER   <<] PASSWORD"},
               {CURLINFO_HEADER_OUT, "PASS secret\r\n", nullptr},
               {CURLINFO_HEADER_OUT, "\r\nrest", nullptr},
               {CURLINFO_DATA_IN, "body", nullptr},
               {CURLINFO_DATA_OUT, "body", nullptr},
               {CURLINFO_SSL_DATA_IN, "tls", nullptr},
               {CURLINFO_SSL_DATA_OUT, "tls", nullptr}};
  for (const auto& one : cases) {
    RecordingLog log;
    std::string data = one.data;
    data += "beyond the size";
    EXPECT_EQ(CURLDebug(nullptr, one.type, data.data(), strlen(one.data), nullptr), 0);
    if (one.line) {
      EXPECT_THAT(log.Lines(), ElementsAre(one.line));
    } else {
      EXPECT_THAT(log.Lines(), IsEmpty()) << one.data;
    }
  }
}

struct Logged : testing::Test {
  WireServer server;
  CURLLogger request;

  void SetUp() override {
    server.SetFallback(Http(200, "12345"));
    request.SetURL((server.Origin() + "/f").c_str());
    request.AddQuery("q", "a b");
  }
};

TEST_F(Logged, EachTransferIsOnePerformanceLine) {
  RecordingLog log;
  request.PerformGet(nullptr, nullptr);
  EXPECT_EQ(request.GetLastURL(), server.Origin() + "/f?q=a b");
  request.PerformPost("123");
  const std::string url = server.Origin() + "/f";
  EXPECT_THAT(log.Lines(),
              ElementsAre(testing::MatchesRegex("1 \\[PERF      \\] Download [0-9]+b/s : " + url +
                                                "\\(5 bytes\\)"),
                          testing::MatchesRegex("1 \\[PERF      \\] Upload [0-9]+b/s / Download "
                                                "[0-9]+b/s : " +
                                                url + "\\(3 / 5 bytes\\)")));
}

TEST_F(Logged, AVerboseLoggerSeesHeadersAndNoBodies) {
  {
    RecordingLog log(true);
    request.PerformPost("sent body");
    EXPECT_THAT(log.Lines(),
                Contains(StartsWith("1 [NETWORK   ] [HEADER   <<] POST /f?q=a%20b HTTP/1.1\r\n")));
    EXPECT_THAT(log.Lines(), Contains("1 [NETWORK   ] [HEADER   >>] HTTP/1.1 200 Said\r\n"));
    EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr("sent body"))));
    EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr("12345"))));
  }
  request.PerformGet(nullptr, nullptr);  // nobody is bound: the setting stays, nothing is written
  RecordingLog quiet(false);
  request.PerformGet(nullptr, nullptr);
  EXPECT_THAT(quiet.Lines(), ElementsAre(StartsWith("1 [PERF ")));
}

TEST_F(Logged, QueryLoggersWriteWhatTheLogsReaderUnpacks) {
  const auto answered = std::make_shared<CURLImpl>();
  answered->SetURL((server.Origin() + "/f").c_str());
  _CURLRTN result = answered->PerformGet(nullptr, nullptr);
  result.request = answered;
  const std::string headers(result.headers.get(), result.headerLength);
  const std::string prefix = server.Origin() + "/f\n\n";
  const auto packed = [](const std::string& text) {
    return compress_string(text.data(), text.size());
  };
  const auto line = [&](IQueryLogger&& queryLogger) {
    RecordingLog log;
    queryLogger.DoLog("List", result);
    return log.Lines().size() == 1 ? log.Lines()[0] : "";
  };
  EXPECT_EQ(line(HeaderLog()), "1 [PROTOCOL  ] List >>\n" + packed(prefix + headers));
  EXPECT_EQ(line(BodyLog()), "1 [PROTOCOL  ] List >> " + packed(prefix + "12345"));
  EXPECT_EQ(line(FullLog()), "1 [PROTOCOL  ] List >>\n" + packed(headers) + "\n" + packed("12345"));
  result.bodyLength = 0;
  EXPECT_EQ(line(BodyLog()), "");
  EXPECT_EQ(line(FullLog()), "1 [PROTOCOL  ] List >>\n" + packed(headers));
  result.headerLength = 0;
  EXPECT_EQ(line(HeaderLog()), "");
  EXPECT_EQ(line(FullLog()), "");
}

TEST(OwnThreadLog, ALoggerMayUnbindItselfWhileItWritesAndThrow) {
  RecordingLog log;
  log.onWrite = [] {
    SetLogger(nullptr);
    throw std::out_of_range("host");
  };
  std::thread([] {
    LogFromOwnThread(kLogDetail, "first");
    LogFromOwnThread(kLogDetail, "second");
  }).join();
  EXPECT_THAT(log.Lines(), ElementsAre("1 first"));
}

TEST(QueryLoggerBinding, BelongsToItsThreadAndKeepsNobodyAlive) {
  auto mine = std::make_shared<BodyLog>();
  BindQueryLogger(mine);
  EXPECT_EQ(GetQueryLogger(), mine);
  std::thread([] {
    EXPECT_EQ(GetQueryLogger(), nullptr);
    BindQueryLogger(std::make_shared<BodyLog>());
    EXPECT_EQ(GetQueryLogger(), nullptr);  // it has gone already
  }).join();
  EXPECT_EQ(GetQueryLogger(), mine);
  { const __Auto_Unbind_Logger__ unbind; }
  EXPECT_EQ(GetQueryLogger(), nullptr);
  BindQueryLogger(mine);
  mine.reset();
  EXPECT_EQ(GetQueryLogger(), nullptr);
}

}  // namespace
