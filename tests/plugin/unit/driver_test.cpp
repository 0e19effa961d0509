// The query driver: which answer leads to what, and the lines that tell about it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "net/query_logger.h"
#include "policy/query_driver.h"
#include "tests/plugin/unit/manual_clock.h"
#include "tests/plugin/unit/recording_log.h"
#include "tests/plugin/unit/wire_server.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

ResponseHandler Returns(AERROR code) {
  return {[code](_CURLRTN&) { return code; }, "handler"};
}

struct Driver : testing::Test {
  WireServer server;
  ManualClock clock;
  RecordingLog log;
  GoogleCURLQueue pool{0};
  int built = 0;

  RequestBuilder Builder(const char* name = "Ask") {
    return {[this](std::shared_ptr<GoogleCURL> request) {
              ++built;
              request->SetURL((server.Origin() + "/").c_str());
              return request->PerformGet(nullptr, nullptr);
            },
            name};
  }
  template <class Policy = GoogleDriveExponentialBackoff>
  AERROR Run(HandlerMap ranges, HandlerMap statuses, TransferErrorMap transfers = {}) {
    return QueryWithBackoff<Policy>(pool, Builder(), ranges, statuses, transfers);
  }
  /// The line that sums an answer with the body "ok" up.
  std::string Summary(int status, const std::string& name = "Ask") {
    const auto request = pool.GetCURL();  // its last transfer tells how the scheme is written
    const AutoPutCURL<GoogleCURL> putBack(request, &pool);
    return "2 [PROTOCOL  ] " + name + " >> " + request->GetScheme() + " GET >> " +
           std::to_string(status) + " : " + server.Origin() + "/(2) - 0ms";
  }
};

struct DispatchCase {
  int status;
  std::optional<AERROR> exact, any, range;
  AERROR outcome;
  const char* line;  // after the summary; null when there is none
};

const DispatchCase kDispatch[] = {
    {200, {}, {}, {}, AERROR::SUCCESS, nullptr},
    {204, {}, {}, {}, AERROR::SUCCESS, nullptr},
    {304, {}, {}, {}, AERROR::SUCCESS, nullptr},
    {400, {}, {}, {}, AERROR::FAILED, "8 [PROTOCOL  ] Ask >> HTTP 400"},
    {409, {}, {}, {}, AERROR::FAILED, "8 [PROTOCOL  ] Ask >> HTTP 409"},
    {503, {}, {}, {}, AERROR::FAILED, "8 [PROTOCOL  ] Ask >> HTTP 503"},
    {200, AERROR::SUCCESS, AERROR::FAILED, AERROR::FAILED, AERROR::SUCCESS,
     "1 [PROTOCOL  ] Ask >> ON HTTP 200 : AERROR::SUCCESS(0x00000000)"},
    {404, AERROR::FILE_NOT_FOUND, AERROR::FAILED, AERROR::FAILED, AERROR::FILE_NOT_FOUND,
     "8 [PROTOCOL  ] Ask >> ON HTTP 404 : AERROR::FILE_NOT_FOUND(0x00000013)"},
    {404,
     {},
     AERROR::AUTH_FAILED,
     AERROR::FAILED,
     AERROR::AUTH_FAILED,
     "8 [PROTOCOL  ] Ask >> ON HTTP(for any code) 404 : AERROR::AUTH_FAILED(0x00001B5B)"},
    {200,
     {},
     AERROR::SUCCESS,
     AERROR::FAILED,
     AERROR::SUCCESS,
     "1 [PROTOCOL  ] Ask >> ON HTTP(for any code) 200 : AERROR::SUCCESS(0x00000000)"},
    {404,
     {},
     {},
     AERROR::TIMEDOUT,
     AERROR::TIMEDOUT,
     "8 [PROTOCOL  ] Ask >> ON HTTP RANGE 400(404) : AERROR::TIMEDOUT(0x0000002A)"},
    {299,
     {},
     {},
     static_cast<AERROR>(-1),
     static_cast<AERROR>(-1),
     "8 [PROTOCOL  ] Ask >> ON HTTP RANGE 200(299) : Unknown(0xFFFFFFFF)"}};

TEST_F(Driver, TheFirstThatAppliesDecides) {
  for (const DispatchCase& expected : kDispatch) {
    SCOPED_TRACE(expected.line ? expected.line : std::to_string(expected.status));
    const size_t before = log.Lines().size();
    const bool bodiless = expected.status == 204 || expected.status == 304;
    server.Play({bodiless ? Answer{"HTTP/1.1 " + std::to_string(expected.status) + " No\r\n\r\n"}
                          : Http(expected.status, "ok")});
    HandlerMap ranges;
    HandlerMap statuses;
    if (expected.exact) statuses[expected.status] = Returns(*expected.exact);
    if (expected.any) statuses[kAnyStatus] = Returns(*expected.any);
    if (expected.range) ranges[expected.status / 100 * 100] = Returns(*expected.range);
    EXPECT_EQ(Run(ranges, statuses), expected.outcome);
    Lines lines = log.Lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<long>(before));
    ASSERT_EQ(lines.size(), expected.line ? 2u : 1u);
    if (!bodiless) {
      EXPECT_EQ(lines[0], Summary(expected.status));
    }
    if (expected.line) {
      EXPECT_EQ(lines[1], expected.line);
    }
  }
  EXPECT_EQ(server.Connections(), 1);
}

TEST_F(Driver, BackoffComesBeforeHandlersAndEndsWithItsBudget) {
  server.SetFallback(Http(500, "ok"));
  EXPECT_EQ(Run({{500, Returns(AERROR::SUCCESS)}},
                {{500, Returns(AERROR::SUCCESS)}, {kAnyStatus, Returns(AERROR::SUCCESS)}}),
            AERROR::FAILED);
  EXPECT_EQ(built, 6);
  EXPECT_THAT(clock.Sleeps(), ElementsAre(1000, 2000, 4000, 8000, 16000));
  Lines expected;
  for (int left = 5; left > 0; --left) {
    expected.push_back(Summary(500));
    expected.push_back("2 [PROTOCOL  ] Ask >> " + std::to_string(left) + " time(s) backoff left");
    expected.push_back("1 [PROTOCOL  ] Ask >> Backoff done. Retry");
  }
  expected.push_back(Summary(500));
  expected.push_back("8 [PROTOCOL  ] Ask >> No more backoff");
  EXPECT_THAT(log.Lines(), ElementsAreArray(expected));
}

TEST_F(Driver, TheBudgetIsSharedByAllTriesOfACall) {
  server.Play(
      {Http(403), Http(429), Http(401), Http(500), Http(403), Http(200), Http(500), Http(500)});
  EXPECT_EQ(Run({}, {{401, Returns(AERROR::RETRY)}, {200, Returns(AERROR::RETRY)}}),
            AERROR::FAILED);
  EXPECT_THAT(clock.Sleeps(), ElementsAre(1000, 2000, 4000, 8000, 16000));
  EXPECT_EQ(built, 8);
}

TEST_F(Driver, NoBackoffLeavesEveryStatusToTheHandlers) {
  for (const int status : {403, 429, 500}) {
    server.Play({Http(status)});
    EXPECT_EQ(Run<NoBackoff>({}, {{status, Returns(AERROR::ACCESS_DENIED)}}),
              AERROR::ACCESS_DENIED);
  }
  EXPECT_THAT(clock.Sleeps(), IsEmpty());
}

struct Refusing : GoogleDriveExponentialBackoff {
  int Backoff() override { return kBackoffRefused; }
};

TEST_F(Driver, APolicyThatDoesNotWaitEndsTheRequest) {
  server.Play({Http(500, "ok")});
  EXPECT_EQ(Run<Refusing>({}, {}), AERROR::FAILED);
  EXPECT_THAT(log.Lines(), ElementsAre(Summary(500), "2 [PROTOCOL  ] Ask >> 5 time(s) backoff left",
                                       "1 [PROTOCOL  ] Ask >> Backoff returns error"));
}

TEST_F(Driver, AHandlerPagesByAskingAgain) {
  server.Play({Http(200, "p1"), Http(200, "p2"), Http(200, "p3")});
  std::string pages;
  const auto page = [&](_CURLRTN& result) {
    pages.append(result.body.get(), result.bodyLength);
    return pages.size() < 6 ? AERROR::RETRY : AERROR::SUCCESS;
  };
  EXPECT_EQ(Run({}, {{200, {page, ""}}}), AERROR::SUCCESS);
  EXPECT_EQ(pages, "p1p2p3");
  EXPECT_EQ(log.Lines()[1], "1 [PROTOCOL  ] Ask >> ON HTTP 200 : AERROR::RETRY(0x00000002)");
  EXPECT_EQ(server.Connections(), 1);
}

TEST_F(Driver, TransferFailuresAreMappedAndNeverRetried) {
  const RefusedPort refused;
  const auto run = [&](TransferErrorMap transfers) {
    const auto build = [&](std::shared_ptr<GoogleCURL> request) {
      request->SetURL(refused.Origin().c_str());
      return request->PerformGet(nullptr, nullptr);
    };
    return QueryWithBackoff<GoogleDriveExponentialBackoff>(pool, RequestBuilder(build, "Ask"), {},
                                                           {{kAnyStatus, Returns(AERROR::SUCCESS)}},
                                                           transfers);
  };
  const std::string text = CURLImpl::ErrorString(CURLE_COULDNT_CONNECT);
  EXPECT_EQ(run({}), AERROR::FAILED);
  EXPECT_EQ(run({{28, AERROR::CANCEL}}), AERROR::FAILED);
  EXPECT_EQ(run({{7, AERROR::TIMEDOUT}}), AERROR::TIMEDOUT);
  EXPECT_THAT(
      log.Lines(),
      ElementsAre("8 [PROTOCOL  ] Ask >> " + text + "(7)", "8 [PROTOCOL  ] Ask >> " + text + "(7)",
                  "1 [PROTOCOL  ] Ask >> " + text + "(7) treat as AERROR::TIMEDOUT"));
  EXPECT_THAT(clock.Sleeps(), IsEmpty());
}

TEST_F(Driver, ABuilderWithoutACallableIsRefusedAndOneWithoutANameGetsOne) {
  const auto run = [&](RequestBuilder builder) {
    return QueryWithBackoff<NoBackoff>(pool, builder, {}, {}, {});
  };
  EXPECT_EQ(run({nullptr, "Ask"}), AERROR::INVALID_PARAMETER);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_EQ(run(Builder("")), AERROR::SUCCESS);
  EXPECT_THAT(log.Lines(), ElementsAre(Summary(200, "QueryWithBackoff")));
}

TEST_F(Driver, ExceptionsBecomeFailures) {
  const auto fail = [](_CURLRTN&) -> AERROR { throw AERROR::ACCESS_VIOLATION; };
  const std::string line = "8 [PROTOCOL  ] Ask >> Exception";
  EXPECT_EQ(Run({}, {{200, {fail, ""}}}), AERROR::FAILED);
  EXPECT_EQ(Run({}, {{200, {nullptr, ""}}}), AERROR::FAILED);  // an entry that holds no callable
  const auto build = [](std::shared_ptr<GoogleCURL>) -> _CURLRTN { throw std::bad_alloc(); };
  EXPECT_EQ(QueryWithBackoff<NoBackoff>(pool, RequestBuilder(build, "Ask"), {}, {}, {}),
            AERROR::FAILED);
  EXPECT_THAT(log.Lines(), ElementsAre(Summary(200), line, Summary(200), line, line));
  log.onWrite = [] { throw std::runtime_error("the host's log is full"); };
  EXPECT_EQ(Run({}, {}), AERROR::FAILED);
  log.onWrite = nullptr;
  EXPECT_EQ(Run({}, {}), AERROR::SUCCESS);
  EXPECT_EQ(server.Connections(), 1);  // the object always came back
}

TEST_F(Driver, TheObjectIsBackInThePoolWhenAHandlerAsksFurther) {
  const auto ask = [this](_CURLRTN&) { return Run({}, {}); };
  EXPECT_EQ(Run({}, {{200, {ask, ""}}}), AERROR::SUCCESS);
  EXPECT_EQ(server.Requests().size(), 2u);
  EXPECT_EQ(server.Connections(), 1);
}

struct Names final : IQueryLogger {
  void DoLog(const char* name, _CURLRTN& result) override {
    seen.push_back(std::string(name) + " " + result.request->GetEffectiveURL());
  }
  Lines seen;
};

TEST_F(Driver, TheBoundQueryLoggerSeesEveryAnswerOfItsCallOnly) {
  server.Play({Http(500), Http(200)});
  const auto names = std::make_shared<Names>();
  BindQueryLogger(names);
  const auto check = [](_CURLRTN& result) {
    return result.request ? AERROR::FAILED : AERROR::SUCCESS;  // the object is lent no longer
  };
  EXPECT_EQ(Run({}, {{200, {check, ""}}}), AERROR::SUCCESS);
  EXPECT_EQ(GetQueryLogger(), nullptr);
  Run({}, {});
  const std::string line = "Ask " + server.Origin() + "/";
  EXPECT_THAT(names->seen, ElementsAre(line, line));
}

TEST_F(Driver, ManyThreadsShareOnePool) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      const auto build = [&](std::shared_ptr<GoogleCURL> request) {
        request->SetURL((server.Origin() + "/" + std::to_string(t)).c_str());
        return request->PerformGet(nullptr, nullptr);
      };
      for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(QueryWithBackoff<GoogleDriveExponentialBackoff>(
                      pool, RequestBuilder(build, "Ask"), {}, {{200, Returns(AERROR::CANCEL)}}, {}),
                  AERROR::CANCEL);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(server.Requests().size(), 80u);
}

}  // namespace
