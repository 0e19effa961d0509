#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "net/curl_auth.h"
#include "net/curl_impl.h"

namespace {

using Fields = std::unordered_map<std::string, std::string>;

Fields Signed(CURLAuth& auth) {
  CURLImpl request;
  request.AddHeader("Authorization", "the caller's own");
  auth.SignAuthentication(request);
  auth.SignAuthentication(&request);  // harmless
  return request.GetHeader();
}

TEST(Authorisation, TheNewestTokenIsTheOneInForce) {
  JsonObject credential(R"({"results":{"expires":1,"access_token":"one","x":[]},"args":{}})");
  CURLAuth auth(credential);
  EXPECT_EQ(Signed(auth), (Fields{{"Authorization", "Bearer one"}}));
  for (const char* without : {"{}", R"({"results":{}})", R"({"results":{"Access_Token":"no"}})",
                              R"({"access_token":"no"})", "null"}) {
    JsonObject lacking(without);
    auth.SetAuth(lacking);
    EXPECT_EQ(Signed(auth).at("Authorization"), "Bearer one") << without;
  }
  JsonObject renewed(R"({"results":{"access_token":"two"}})");
  auth.SetAuth(renewed);
  EXPECT_EQ(Signed(auth), (Fields{{"Authorization", "Bearer two"}}));
}

TEST(Authorisation, WithoutATokenOnlyWhatWasAddedIsSent) {
  JsonObject credential("{}");
  CURLAuth auth(credential);
  EXPECT_EQ(Signed(auth).at("Authorization"), "the caller's own");
  auth.AddArg("cid", "old");
  auth.AddArg("cid", "7");
  auth.AddHeader("X-A", "1");
  const auto request = std::make_shared<CURLImpl>();
  auth.SignAuthentication(request);
  EXPECT_EQ(request->GetQuery(), (Fields{{"cid", "7"}}));
  EXPECT_EQ(request->GetHeader(), (Fields{{"X-A", "1"}}));
  auth.ClearArgs();
  auth.ClearHeaders();
  request->Clear();
  auth.SignAuthentication(request);
  EXPECT_TRUE(request->GetQuery().empty() && request->GetHeader().empty());
}

TEST(Authorisation, ARequestNeverCarriesHalfAToken) {
  const std::string tokens[] = {std::string(300, 'a'), std::string(300, 'b')};
  JsonObject first(("{\"results\":{\"access_token\":\"" + tokens[0] + "\"}}").c_str());
  CURLAuth auth(first);
  std::latch start(5);
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      CURLImpl request;
      start.arrive_and_wait();
      do {
        auth.SignAuthentication(request);
        const std::string sent = request.GetHeader().at("Authorization");
        if (sent != "Bearer " + tokens[0] && sent != "Bearer " + tokens[1]) ++torn;
      } while (!done);
    });
  }
  start.arrive_and_wait();
  for (int n = 0; n < 300; ++n) {
    JsonObject next(("{\"results\":{\"access_token\":\"" + tokens[n % 2] + "\"}}").c_str());
    auth.SetAuth(next);
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
