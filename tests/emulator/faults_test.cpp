// Everything that can be made to go wrong, as a client sees it, and what the store holds after it.
#include <gmock/gmock.h>

#include <chrono>

#include "tests/emulator/emulator_fixture.h"

namespace emulator_test {
namespace {

using emulator::Fault;

class Faults : public EmulatorTest {
 protected:
  void SetUp() override {
    Start();
    id = drive->Put("a.txt", kContent);
    media = "/drive/v3/files/" + id + "?alt=media";
  }

  /// What a client receives when the next request for the content goes wrong in this way.
  struct Received {
    bool complete;
    std::string bytes;
  };
  Received ReadWith(const Fault& fault) {
    drive->Inject(fault);
    Received received{false, ""};
    client = std::make_unique<httplib::Client>(drive->ApiUrl());
    const auto result = client->Get(media, {{"Authorization", "Bearer " + token}},
                                    [&received](const char* data, size_t size) {
                                      received.bytes.append(data, size);
                                      return true;
                                    });
    received.complete = static_cast<bool>(result);
    return received;
  }
  static Fault Of(const std::string& kind, int64_t at = 0) {
    Fault fault;
    fault.kind = kind;
    fault.at = at;
    return fault;
  }

  static constexpr char kContent[] = "The quick brown fox jumps over the lazy dog.";
  std::string id, media;
};

TEST_F(Faults, AreUsedUpInOrderByMethodAndHeader) {
  drive->FailNext("drive.files.get", 503);
  drive->FailNext("drive.about.get.v2", 403, 2, "dailyLimitExceeded");
  Fault marked;
  marked.header = "X-Mark";
  marked.headerValue = "yes";
  marked.status = 429;
  marked.retryAfter = 7;
  drive->Inject(marked);
  EXPECT_EQ(drive->PendingFaults().size(), 3u);
  EXPECT_EQ(Get("/drive/v2/about").Reason(), "dailyLimitExceeded");
  EXPECT_EQ(Get("/drive/v2/about").status, 403);
  EXPECT_EQ(Get("/drive/v2/about").status, 200);
  const Answer limited = Get("/drive/v3/files", {{"X-Mark", "yes"}});
  EXPECT_EQ(limited.status, 429);
  EXPECT_EQ(limited.Header("Retry-After"), "7");
  EXPECT_EQ(Get("/drive/v3/files/" + id).Reason(), "backendError");
  EXPECT_EQ(Get("/drive/v3/files/" + id).status, 200);
  EXPECT_TRUE(drive->PendingFaults().empty());
}

TEST_F(Faults, NonsenseIsRefused) {
  const auto refused = [this](void (*spoil)(Fault&)) {
    Fault fault;
    spoil(fault);
    EXPECT_THROW(drive->Inject(fault), std::invalid_argument);
  };
  refused([](Fault& fault) { fault.method = "drive.files.gett"; });
  refused([](Fault& fault) { fault.kind = "explode"; });
  refused([](Fault& fault) { fault.status = 200; });
  refused([](Fault& fault) { fault.times = 0; });
  refused([](Fault& fault) { fault.kind = "redirect"; });
  refused([](Fault& fault) { fault.kind = "truncate", fault.at = -1; });
  refused([](Fault& fault) { fault.kind = "rate-limit"; });
  EXPECT_TRUE(drive->PendingFaults().empty());
}

TEST_F(Faults, BodiesBreak) {
  const std::string content = kContent;
  EXPECT_FALSE(ReadWith(Of("reset-before")).complete);
  for (const char* kind : {"reset-body", "truncate"}) {
    const Received received = ReadWith(Of(kind, 10));
    EXPECT_FALSE(received.complete) << kind;
    EXPECT_EQ(received.bytes, content.substr(0, 10)) << kind;
  }
  EXPECT_FALSE(ReadWith(Of("applied-not-answered")).complete);
  const Received more = ReadWith(Of("content-length"));
  EXPECT_FALSE(more.complete);
  EXPECT_EQ(more.bytes, content);
  EXPECT_EQ(ReadWith(Of("content-length", -4)).bytes, content.substr(0, content.size() - 4));
  EXPECT_EQ(ReadWith(Of("double")).bytes, content + content);
  const Received garbage = ReadWith(Of("garbage"));
  EXPECT_TRUE(garbage.complete);
  EXPECT_NE(garbage.bytes, content);
  EXPECT_EQ(ReadWith(Of("reset-after")).bytes, content);
  Fault drip = Of("drip");
  drip.delay = std::chrono::milliseconds(1);
  EXPECT_EQ(ReadWith(drip).bytes, content);
  EXPECT_EQ(ReadWith(Of("reset-body", 1000)).bytes, content) << "beyond the end nothing strikes";
}

TEST_F(Faults, DelaysLastAtLeastAsLongAsAsked) {
  using Clock = std::chrono::steady_clock;
  for (const char* kind : {"delay", "delay-body"}) {
    Fault fault = Of(kind, 3);
    fault.delay = std::chrono::milliseconds(60);
    const auto start = Clock::now();
    EXPECT_EQ(ReadWith(fault).bytes, kContent);
    EXPECT_GE(Clock::now() - start, fault.delay) << kind;
  }
  drive->SetRoundTrip(std::chrono::milliseconds(40));
  auto start = Clock::now();
  Get(media);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(40));
  drive->SetRoundTrip(std::chrono::milliseconds(0));
  drive->SetBandwidth(1'000'000);
  start = Clock::now();
  EXPECT_EQ(Get("/drive/v3/files/" + drive->PutSynthetic("b", 100'000) + "?alt=media").body.size(),
            100'000u);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(90));
}

TEST_F(Faults, WritesAreAppliedOrNotAsTheFaultSays) {
  const std::string url = "/drive/v3/files/" + id;
  const auto rename = [&](const char* kind, const std::string& name) {
    drive->Inject(Of(kind));
    client = std::make_unique<httplib::Client>(drive->ApiUrl());
    EXPECT_EQ(Send("PATCH", url, "{\"name\":\"" + name + "\"}").status, 0) << kind;
    return drive->Item(id)["name"].asString();
  };
  EXPECT_EQ(rename("reset-before", "1"), "a.txt");
  EXPECT_EQ(rename("reset-body", "2"), "a.txt");
  EXPECT_EQ(rename("applied-not-answered", "3"), "3");
  drive->FailNext("drive.files.update", 500);
  EXPECT_EQ(Send("PATCH", url, "{\"name\":\"4\"}").status, 500);
  EXPECT_EQ(drive->Item(id)["name"], "3");
}

TEST_F(Faults, AnUploadThatBreaksLeavesNoHalfFile) {
  const std::string data(600 * 1024, 'd');
  const auto start = [&] {
    return Send("POST", "/upload/drive/v3/files?uploadType=resumable", "{\"name\":\"up\"}",
                {{"X-Upload-Content-Length", std::to_string(data.size())}})
        .Header("Location");
  };
  const std::string session = start();
  drive->Inject(Of("reset-body", 300 * 1024));
  EXPECT_EQ(Send("PUT", session, data).status, 0);
  EXPECT_TRUE(drive->ChildrenNamed(drive->RootId(), "up").empty());
  const Answer state = Send("PUT", session, "", {{"Content-Range", "bytes */*"}});
  EXPECT_EQ(state.status, 308);
  EXPECT_EQ(state.Header("Range"), "bytes=0-262143");
  EXPECT_EQ(Send("PUT", session, data).status, 200);
  EXPECT_EQ(drive->Content(drive->ChildrenNamed(drive->RootId(), "up").at(0)), data);
}

TEST_F(Faults, ATokenExpiresInTheMiddleOfAnUpload) {
  const std::string data(600 * 1024, 'd');
  const std::string session =
      Send("POST", "/upload/drive/v3/files?uploadType=resumable", "{\"name\":\"up\"}")
          .Header("Location");
  drive->Inject(Of("expire-token-at", 100'000));
  EXPECT_EQ(Send("PUT", session, data).status, 401);
  EXPECT_TRUE(drive->ChildrenNamed(drive->RootId(), "up").empty());
  EXPECT_EQ(Get("/drive/v2/about").status, 401);
  token = drive->AccessToken();
  EXPECT_EQ(Send("PUT", session, data).status, 200);
}

TEST_F(Faults, RedirectsAndRateLimits) {
  Fault redirect = Of("redirect");
  redirect.status = 307;
  redirect.location = drive->ApiUrl() + "/elsewhere";
  drive->Inject(redirect);
  const Answer moved = Get("/drive/v2/about");
  EXPECT_EQ(moved.status, 307);
  EXPECT_EQ(moved.Header("Location"), redirect.location);
  Fault limit = Of("rate-limit", 3);
  limit.status = 403;
  drive->Inject(limit);
  int limited = 0;
  for (int i = 0; i < 20; ++i) {
    const Answer answer = Get("/drive/v2/about");
    if (answer.status == 403 && answer.Reason() == "userRateLimitExceeded") ++limited;
  }
  EXPECT_GE(limited, 1);
  EXPECT_LE(limited, 17);
  EXPECT_EQ(drive->PendingFaults().size(), 1u);
  drive->ClearFaults();
  EXPECT_EQ(Get("/drive/v2/about").status, 200);
}

TEST_F(Faults, TheJournalKnowsWhatWasAsked) {
  drive->ClearJournal();
  drive->Inject(Of("reset-before"));
  Get("/drive/v2/about");
  Send("PATCH", "/drive/v3/files/" + id + "?supportsTeamDrives=true", "{\"name\":\"n\"}",
       {{"X-Seen", "1"}});
  Get("/nowhere");
  const auto journal = drive->Journal();
  ASSERT_EQ(journal.size(), 3u);
  EXPECT_EQ(journal[0].method, "drive.about.get.v2");
  EXPECT_EQ(journal[0].status, 0);
  EXPECT_EQ(journal[1].method, "drive.files.update");
  EXPECT_EQ(journal[1].query, "supportsTeamDrives=true");
  EXPECT_EQ(journal[1].headers.at("x-seen"), "1");
  EXPECT_EQ(journal[1].requestBody, "{\"name\":\"n\"}");
  EXPECT_EQ(journal[1].user, emulator::kDemoUser);
  EXPECT_EQ(journal[2].method, "unknown");
  EXPECT_EQ(drive->Count("*"), 3);
  EXPECT_EQ(drive->Count("drive.files.update"), 1);
}

TEST_F(Faults, TheAdminPortOffersTheSame) {
  httplib::Client admin(drive->AdminUrl());
  EXPECT_EQ(
      admin
          .Post("/faults", "{\"method\":\"drive.about.get.v2\",\"status\":503}", "application/json")
          ->status,
      200);
  EXPECT_EQ(Get("/drive/v2/about").status, 503);
  EXPECT_EQ(admin.Post("/faults", "{\"nosuch\":1}", "application/json")->status, 400);
  EXPECT_EQ(admin.Post("/faults", "{\"status\":\"x\"}", "application/json")->status, 400);
  EXPECT_EQ(admin.Get("/faults")->body, "[]");
  Answer answer;
  answer.body = admin.Get("/journal?method=drive.about.get.v2&count=true")->body;
  EXPECT_EQ(answer.Json()["count"], 1);
  answer.body = admin.Get("/tree")->body;
  EXPECT_EQ(answer.Json(), drive->DumpTree());
  EXPECT_EQ(admin.Get("/nowhere")->status, 404);
  EXPECT_EQ(
      admin.Post("/items", "{\"path\":\"x/y.txt\",\"content\":\"hi\"}", "application/json")->status,
      200);
  EXPECT_EQ(drive->Content(*drive->Find("x/y.txt")), "hi");
}

}  // namespace
}  // namespace emulator_test
