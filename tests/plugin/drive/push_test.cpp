// Pushed change notices: what is asked of the services, and what a notice leads to.
#include "tests/plugin/drive/push_fixture.h"

namespace {

using Ids = std::vector<std::string>;

TEST_F(PushTest, TheDriveSubscribesAndWatches) {
  Open(&sink);
  EXPECT_EQ(LastRequest(kSubscribe).headers.at("authorization"),
            "token " + service.PushUserToken());
  EXPECT_EQ(LastRequest(kSubscribe).requestBody,
            R"({"device_guid":"device-1","drive_item":"drive-1","storage_type":"gdrive"})");
  EXPECT_EQ(Requests("drive.changes.getStartPageToken"), 1);
  EXPECT_EQ(Query(kWatch), "pageToken=" + profile.Get("lastchangeid") +
                               "&includeRemoved=true&supportsTeamDrives=true&spaces=drive"
                               "&includeTeamDriveItems=true");
  const Json::Value body = Body(kWatch);
  EXPECT_EQ(body["kind"].asString(), "api#channel");
  EXPECT_EQ(body["type"].asString(), "web_hook");
  EXPECT_EQ(body["payload"], Json::Value(false));
  EXPECT_EQ(body["id"].asString().size(), 36u);
  EXPECT_EQ(LastRequest(kWatch).headers.at("authorization").substr(0, 7), "Bearer ");
  EXPECT_EQ(service.OpenChannels(), 1);
  drive.reset();
  EXPECT_EQ(service.OpenChannels(), 0);
  EXPECT_EQ(Body(kStop)["id"], body["id"]);
  EXPECT_TRUE(log.WaitFor(kLoopDone));
}

TEST_F(PushTest, TeamDrivesAreWatchedOnlyWhenTheyAreShown) {
  drive->SetOpt("option_fields", R"({"values": {"use_team_drive": {"value": false}}})");
  Open(&sink);
  EXPECT_EQ(Query(kWatch).find("includeTeamDriveItems"), std::string::npos);
}

TEST_F(PushTest, AnIncompleteProfileAsksNobody) {
  for (const char* key : {"user_token", "api_server_url", "drive_id", "device_id"}) {
    const std::string value = profile.Get(key);
    profile.Erase(key);
    EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::FAILED) << key;
    profile.Set(key, value);
  }
  EXPECT_EQ(Requests(), 0);
  EXPECT_EQ(log.Count(kLoopDone), 0);
}

TEST_F(PushTest, ARefusedSubscriptionOpensNothing) {
  int asked = 0;
  for (const int status : {400, 401, 403, 404, 429, 500, 503}) {
    service.FailNext(kSubscribe, status);
    EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::FAILED) << status;
    EXPECT_EQ(Requests(kSubscribe), ++asked) << "neither retried nor renewed";
  }
  for (const char* body : {"", "{", "[]", R"({"webhook_url": "u"})", R"({"push_channel": "c"})",
                           R"({"webhook_url": {}, "push_channel": "c"})"}) {
    AnswerNext(kSubscribe, body);
    EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::FAILED) << body;
  }
  EXPECT_EQ(Requests(kWatch), 0);
  EXPECT_EQ(authoriser.renewals, 0);
  EXPECT_EQ(service.PushConnections(), 0);
}

TEST_F(PushTest, ARefusedWatchIsNotStopped) {
  for (const char* body : {"", "{}", R"({"resourceId": "r"})", R"({"resourceUri": "u"})"}) {
    AnswerNext(kWatch, body);
    EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::FAILED) << body;
  }
  FailAlways(kWatch, 403);
  EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::FAILED);
  EXPECT_EQ(Requests(kSubscribe), 1) << "the connection is kept";
  drive.reset();
  EXPECT_EQ(Requests(kStop), 0);
}

TEST_F(PushTest, AnExpiredTokenIsRenewedForTheWatch) {
  service.ExpireTokens();
  EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::SUCCESS);
  EXPECT_EQ(authoriser.renewals, 1);
  EXPECT_EQ(service.OpenChannels(), 1);
}

TEST_F(PushTest, AChangeReachesTheSink) {
  Open(&sink);
  const std::string folder = service.MakeFolder("folder");
  EXPECT_TRUE(sink.WaitFor(root));
  service.PutUnder(folder, "a.txt", "x");
  EXPECT_TRUE(sink.WaitFor(folder));
}

TEST_F(PushTest, EveryMessageIsOnePoll) {
  Open(&sink);
  for (const char* text : {"", "{}", "anything at all", "last"}) service.SendPush(Channel(), text);
  ASSERT_TRUE(log.WaitFor("Message received", 4));
  drive.reset();  // waits for a poll that is running, and starts no other
  const int polls = Requests("drive.changes.list");
  EXPECT_GE(polls, 3);
  EXPECT_LE(polls, 4);
}

TEST_F(PushTest, AnotherSinkTakesTheConnectionOver) {
  Open(&sink);
  const Json::Value old = Body(kWatch)["id"];
  ASSERT_EQ(drive->SetChangesCallback(&another), AERROR::SUCCESS);
  sink.Close();
  EXPECT_EQ(Requests(kSubscribe), 1);
  EXPECT_EQ(service.PushConnections(), 1);
  EXPECT_NE(Body(kWatch)["id"], old);
  EXPECT_EQ(Body(kStop)["id"], old);
  EXPECT_EQ(service.OpenChannels(), 1);
  service.Put("a.txt", "x");
  EXPECT_TRUE(another.WaitFor(root));
}

TEST_F(PushTest, ASinkThatThrowsIsCalledAgain) {
  sink.onChanged = [](const std::string&) { throw std::runtime_error("host"); };
  Open(&sink);
  const std::string folder = service.MakeFolder("folder");
  EXPECT_TRUE(sink.WaitFor(root));
  service.PutUnder(folder, "a.txt", "x");
  EXPECT_TRUE(sink.WaitFor(folder));
}

TEST_F(PushTest, ADroppedConnectionIsOpenedAgainAndTheMissedIsPolledFor) {
  Open(&sink);
  service.DropPushConnections();
  ASSERT_TRUE(log.WaitFor("Push disconnected"));
  service.Put("a.txt", "x");  // nobody is there to be told
  EXPECT_TRUE(sink.WaitFor(root));
  EXPECT_EQ(log.Count("Push connected"), 2);
}

TEST_F(PushTest, DrivesAreToldApart) {
  constexpr int kDrives = 8;
  std::vector<std::unique_ptr<ChangeSink>> sinks;
  std::vector<Drive> drives;
  for (int i = 0; i < kDrives; ++i) {
    drives.push_back(NewDrive());
    sinks.push_back(std::make_unique<ChangeSink>());
    Connect(*drives.back());
    ASSERT_EQ(drives.back()->SetChangesCallback(sinks.back().get()), AERROR::SUCCESS);
  }
  ASSERT_TRUE(WaitForConnections(kDrives));
  for (int i = 0; i < kDrives; i += 2) {
    drives[i].reset();
    sinks[i]->Close();
  }
  // The drives share a profile, so whichever polls first may move the cursor for none but itself.
  service.Put("a.txt", "x");
  for (int i = 1; i < kDrives; i += 2) EXPECT_TRUE(sinks[i]->WaitFor(root)) << i;
}

}  // namespace
