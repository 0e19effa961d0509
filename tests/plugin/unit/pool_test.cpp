// The pool of request objects, the rate limiter and the backoff policies.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "policy/backoff.h"
#include "policy/google_curl.h"
#include "tests/plugin/unit/manual_clock.h"
#include "tests/plugin/unit/wire_server.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

_CURLRTN Get(GoogleCURL& request, const std::string& url) {
  request.SetURL(url.c_str());
  return request.PerformGet(nullptr, nullptr);
}

TEST(Pool, LendsTheLastReturnedFirstAndClearsIt) {
  GoogleCURLQueue pool(0);
  const auto first = pool.GetCURL();
  const auto second = pool.GetCURL();
  ASSERT_NE(first, second);
  second->AddQuery("q", "1");
  second->SetURL("http://used");
  pool.PutCURL(first);
  { const AutoPutCURL<GoogleCURL> putBack(second, &pool); }
  pool.PutCURL(nullptr);
  EXPECT_EQ(pool.GetCURL(), second);
  EXPECT_EQ(pool.GetCURL(), first);
  EXPECT_EQ(second->GetURL(), "");
  EXPECT_TRUE(second->GetQuery().empty());
}

TEST(Pool, AQuotaUserIsSentOnceWithEveryRequestOnAClearedObject) {
  GoogleCURLQueue pool(0);
  const auto before = pool.GetCURL();
  pool.SetID("account");
  const std::string id = pool.GetID();
  const auto request = pool.GetCURL();
  EXPECT_TRUE(request->GetQuery().empty());  // not cleared yet
  for (int i = 0; i < 2; ++i) {
    pool.PutCURL(request);
    EXPECT_EQ(pool.GetCURL(), request);
    EXPECT_EQ(request->BuildQueryString(false), "quotaUser=" + id);
  }
  pool.PutCURL(before);
  EXPECT_EQ(pool.GetCURL()->BuildQueryString(false), "");  // made before there was an id
}

TEST(Pool, TheProxyAppliesToEveryLoanUntilItIsTakenAway) {
  WireServer proxy;
  WireServer origin;
  GoogleCURLQueue pool(1);
  const std::string port = std::to_string(proxy.Port());
  const auto lend = [&] {
    const auto request = pool.GetCURL();
    const AutoPutCURL<GoogleCURL> putBack(request, &pool);
    Get(*request, origin.Origin() + "/");
  };
  pool.SetProxySettings({"HTTP without TUNNEL", "127.0.0.1", port, "", ""});
  lend();
  lend();
  EXPECT_EQ(proxy.Requests().size(), 2u);
  for (const char* none : {"http without tunnel", ""}) {
    pool.SetProxySettings({none, "127.0.0.1", port, "", ""});
    lend();
  }
  EXPECT_EQ(proxy.Requests().size(), 2u);
  EXPECT_EQ(origin.Requests().size(), 2u);
}

TEST(Pool, ServesManyThreadsWithOneObjectEach) {
  constexpr int kThreads = 8;
  constexpr int kRequests = 25;
  WireServer server;
  GoogleCURLQueue pool(0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRequests; ++i) {
        const auto request = pool.GetCURL();
        const AutoPutCURL<GoogleCURL> putBack(request, &pool);
        EXPECT_EQ(Get(*request, server.Origin() + "/").bodyLength, 2u);
      }
    });
  }
  for (int i = 0; i < kRequests; ++i) pool.SetProxySettings({"", "unused", "1", "u", "p"});
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(server.Requests().size(), static_cast<size_t>(kThreads * kRequests));
  EXPECT_LE(server.Connections(), kThreads);  // never more objects than requests in flight
}

TEST(Pool, MakesOpaqueIds) {
  const struct {
    const char* bytes;
    const char* text;
  } cases[] = {{"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFB\xEF\xBE\xFF", "++++/w=="}};
  for (const auto& one : cases) {
    EXPECT_STREQ(GoogleCURLQueue::base64(reinterpret_cast<const unsigned char*>(one.bytes),
                                         strlen(one.bytes)),
                 one.text);
  }
  EXPECT_EQ(GoogleCURLQueue::base64(nullptr, 3), nullptr);
  EXPECT_EQ(GoogleCURLQueue::base64(reinterpret_cast<const unsigned char*>("x"), 0), nullptr);

  GoogleCURLQueue pool(0);
  std::set<std::string> ids;
  for (const std::string& seed : {std::string(), std::string("s"), std::string(500, 's')}) {
    pool.SetID(seed);
    EXPECT_EQ(pool.GetID().size(), 28u);
    EXPECT_EQ(pool.GetID().find('='), 27u);
    ids.insert(pool.GetID());
  }
  EXPECT_EQ(ids.size(), 3u);
  const std::string random = GoogleCURLQueue::GetRandomString();
  EXPECT_EQ(random.size(), 128u);
  EXPECT_EQ(
      random.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"),
      std::string::npos);
}

TEST(RateLimiter, AdmitsFiveThenThreeMoreAfterEachNewPeriod) {
  ManualClock clock;
  const GoogleCURL opensThePeriod;
  _curlcnt = 0;
  for (int i = 0; i < 5; ++i) GoogleCURL::CheckQuotaLimit();
  EXPECT_THAT(clock.Sleeps(), IsEmpty());
  EXPECT_EQ(_curlcnt, 5);
  clock.Advance(std::chrono::microseconds(300900));
  GoogleCURL::CheckQuotaLimit();
  EXPECT_THAT(clock.Sleeps(), ElementsAre(700));
  EXPECT_EQ(_curlcnt, 2);
  for (int i = 0; i < 3; ++i) GoogleCURL::CheckQuotaLimit();
  EXPECT_EQ(clock.Sleeps().size(), 1u);
  GoogleCURL::CheckQuotaLimit();
  EXPECT_THAT(clock.Sleeps(), ElementsAre(700, 1000));
  EXPECT_EQ(_curlcnt, 2);
}

TEST(RateLimiter, ThePeriodEndsALittleAfterItsSecond) {
  ManualClock clock;
  const GoogleCURL opensThePeriod;
  _curlcnt = 5;
  clock.Advance(std::chrono::nanoseconds(1000999999));  // still inside, but nothing left to wait
  GoogleCURL::CheckQuotaLimit();
  EXPECT_EQ(_curlcnt, 2);
  clock.Advance(std::chrono::nanoseconds(1000999999));
  GoogleCURL::CheckQuotaLimit();
  EXPECT_EQ(_curlcnt, 3);
  clock.Advance(std::chrono::nanoseconds(1));
  GoogleCURL::CheckQuotaLimit();
  EXPECT_EQ(_curlcnt, 2);
  EXPECT_THAT(clock.Sleeps(), IsEmpty());
}

TEST(Backoff, DrivePresetWaitsTwiceAsLongEachTime) {
  ManualClock clock;
  GoogleDriveExponentialBackoff policy;
  for (int left = 5; left > 0; --left) {
    EXPECT_EQ(policy.GetLeft(), left);
    EXPECT_TRUE(policy.IsAvaliable());
    EXPECT_EQ(policy.Backoff(), 2);
  }
  EXPECT_FALSE(policy.IsAvaliable());
  EXPECT_THAT(clock.Sleeps(), ElementsAre(1000, 2000, 4000, 8000, 16000));
}

TEST(Backoff, EachPolicyHasItsCodesAndBudget) {
  ManualClock clock;
  NoBackoff none;
  ExponentialBackoff standard;
  GoogleDriveExponentialBackoff drive;
  ExponentialBackoff empty({}, 5);
  for (int code = 200; code < 600; ++code) {
    EXPECT_FALSE(none.IsBackoffCode(code));
    EXPECT_FALSE(empty.IsBackoffCode(code));
    EXPECT_EQ(standard.IsBackoffCode(code), code == 429);
    EXPECT_EQ(drive.IsBackoffCode(code), code == 403 || code == 429 || code == 500);
  }
  EXPECT_FALSE(none.IsAvaliable());
  EXPECT_EQ(none.GetLeft(), 0);
  EXPECT_EQ(none.Backoff(), 1);
  EXPECT_THAT(clock.Sleeps(), IsEmpty());
  const std::pair<int, int> budgets[] = {{-1, 5}, {0, 5},   {3, 5},   {5, 5},
                                         {9, 9},  {16, 16}, {17, 16}, {100, 16}};
  for (const auto& [asked, given] : budgets) {
    EXPECT_EQ(ExponentialBackoff({500}, asked).GetLeft(), given) << asked;
  }
}

}  // namespace
