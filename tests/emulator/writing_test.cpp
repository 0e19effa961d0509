// Namespace changes, uploads, and what the change log and the push service say about them.
#include <gmock/gmock.h>

#include <filesystem>
#include <iterator>

#include "tests/emulator/emulator_fixture.h"
#include "tests/emulator/web_socket_client.h"

namespace emulator_test {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

constexpr size_t kGranule = 256 * 1024;

class Writing : public EmulatorTest {
 protected:
  std::string StartToken() {
    return Get("/drive/v3/changes/startPageToken").Json()["startPageToken"].asString();
  }
  Json::Value Changes(const std::string& from, const std::string& more = "") {
    return Get("/drive/v3/changes?fields=*&pageToken=" + from + more).Json();
  }
  std::string StartUpload(size_t size, const std::string& name = "up.bin") {
    const Answer answer =
        Send("POST", "/upload/drive/v3/files?uploadType=resumable", "{\"name\":\"" + name + "\"}",
             {{"X-Upload-Content-Length", std::to_string(size)}});
    EXPECT_EQ(answer.status, 200) << answer.body;
    return answer.Header("Location");
  }
  Answer PutPart(const std::string& session, const std::string& data, size_t from, size_t to) {
    return Send("PUT", session, data.substr(from, to - from),
                {{"Content-Range", "bytes " + std::to_string(from) + "-" + std::to_string(to - 1) +
                                       "/" + std::to_string(data.size())}});
  }
  static std::string Bytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
    return bytes;
  }
};

TEST_F(Writing, MetadataMovesAndTimes) {
  const std::string a = drive->MakeFolder("a"), b = drive->MakeFolder("b");
  const Json::Value made =
      Send("POST", "/drive/v3/files?fields=*",
           "{\"name\":\"f\",\"parents\":[\"" + a +
               "\"],\"createdTime\":\"2001-02-03T04:05:06.789Z\",\"properties\":{\"k\":\"v\"}}")
          .Json();
  const std::string url = "/drive/v3/files/" + made["id"].asString();
  EXPECT_EQ(made["createdTime"], "2001-02-03T04:05:06.789Z");
  const Json::Value moved = Send("PATCH", url + "?fields=*&removeParents=" + a + "&addParents=" + b,
                                 "{\"name\":\"g\",\"modifiedTime\":\"2002-01-01T00:00:00+01:00\"}")
                                .Json();
  EXPECT_EQ(moved["parents"][0], b);
  EXPECT_EQ(moved["parents"].size(), 1u);
  EXPECT_EQ(moved["modifiedTime"], "2001-12-31T23:00:00.000Z");
  EXPECT_EQ(moved["properties"]["k"], "v");
  EXPECT_GT(std::stoi(moved["version"].asString()), std::stoi(made["version"].asString()));
  EXPECT_EQ(Send("PATCH", url, "{\"parents\":[\"" + a + "\"]}").Reason(), "fieldNotWritable");
  EXPECT_EQ(Send("PATCH", "/drive/v3/files/" + a + "?addParents=" + a, "{}").status, 403);
  EXPECT_EQ(Send("PATCH", url, "not json").Reason(), "parseError");
  EXPECT_EQ(Send("POST", "/drive/v3/files", "{\"parents\":[\"nowhere\"]}").status, 404);
  EXPECT_EQ(Send("POST", "/drive/v3/files", "{\"name\":\"\xff\"}").status, 400);
  EXPECT_EQ(Send("POST", "/drive/v3/files", "{\"id\":\"" + made["id"].asString() + "\"}").status,
            409);
  EXPECT_EQ(Send("PATCH", url, "{\"name\":\"h\"}", {{"If-Match", "\"stale\""}}).status, 412);
}

TEST_F(Writing, AnItemWithTwoParentsLosesOneAtATime) {
  const std::string a = drive->MakeFolder("a"), b = drive->MakeFolder("b");
  const std::string file = drive->Put("a/f.txt", "x");
  EXPECT_EQ(Send("PATCH", "/drive/v3/files/" + file + "?addParents=" + b, "{}").status, 200);
  EXPECT_THAT(Names("'" + a + "' in parents"), ElementsAre("f.txt"));
  EXPECT_THAT(Names("'" + b + "' in parents"), ElementsAre("f.txt"));
  EXPECT_EQ(Send("DELETE", "/drive/v3/files/" + a).status, 204);
  EXPECT_EQ(drive->Content(file), "x");
  EXPECT_EQ(Send("DELETE", "/drive/v3/files/" + b).status, 204);
  EXPECT_EQ(drive->Content(file), std::nullopt);
}

TEST_F(Writing, TrashHidesWhatLiesBelowAndGivesItBack) {
  const std::string folder = drive->MakeFolder("a");
  const std::string file = drive->Put("a/b/f.txt", "x");
  const std::string gone = drive->Put("a/gone.txt", "x");
  drive->Trash(gone);
  Send("PATCH", "/drive/v3/files/" + folder, "{\"trashed\":true}");
  EXPECT_EQ(drive->Item(file)["trashed"], true);
  EXPECT_EQ(drive->Item(file)["explicitlyTrashed"], false);
  EXPECT_TRUE(Names("trashed = false").empty());
  Send("PATCH", "/drive/v3/files/" + folder, "{\"trashed\":false}");
  EXPECT_EQ(drive->Item(file)["trashed"], false);
  EXPECT_EQ(drive->Item(gone)["trashed"], true);
  EXPECT_EQ(Send("DELETE", "/drive/v3/files/trash").status, 204);
  EXPECT_TRUE(drive->Item(gone).isNull());
  EXPECT_EQ(drive->Content(file), "x");
}

TEST_F(Writing, ResumableUploadInPiecesWithACut) {
  const std::string data = Bytes(2 * kGranule + 17);
  const std::string session = StartUpload(data.size());
  EXPECT_EQ(PutPart(session, data, 0, kGranule).Header("Range"), "bytes=0-262143");
  // A piece that is no multiple of the granule is kept as far as it is one.
  EXPECT_EQ(PutPart(session, data, kGranule, kGranule + 1000).Header("Range"), "bytes=0-262143");
  const Answer state = Send("PUT", session, "", {{"Content-Range", "bytes */*"}});
  EXPECT_EQ(state.status, 308);
  EXPECT_EQ(state.Header("Range"), "bytes=0-262143");
  EXPECT_TRUE(drive->ChildrenNamed(drive->RootId(), "up.bin").empty());
  EXPECT_EQ(PutPart(session, data, 2 * kGranule, data.size()).status, 400);  // leaves a gap
  const Answer done = PutPart(session, data, kGranule, data.size());
  ASSERT_EQ(done.status, 200) << done.body;
  const std::string id = done.Json()["id"].asString();
  EXPECT_EQ(drive->Content(id), data);
  // A lost answer can be asked for again, and makes no second file.
  EXPECT_EQ(PutPart(session, data, kGranule, data.size()).Json()["id"], id);
  EXPECT_EQ(drive->ChildrenNamed(drive->RootId(), "up.bin").size(), 1u);
}

TEST_F(Writing, AWholePutStartsOverAndMustHaveTheAnnouncedLength) {
  const std::string data = Bytes(kGranule + 5);
  const std::string session = StartUpload(data.size());
  EXPECT_EQ(Send("PUT", session, data.substr(0, kGranule)).status, 308);
  EXPECT_EQ(Send("PUT", session, data + "x").status, 400);
  EXPECT_EQ(drive->Items(), 1);
  const Answer done = Send("PUT", session, data);
  ASSERT_EQ(done.status, 200) << done.body;
  EXPECT_EQ(drive->Content(done.Json()["id"].asString()), data);
}

TEST_F(Writing, UploadSessionsEnd) {
  const std::string expired = StartUpload(3), cancelled = StartUpload(3);
  EXPECT_EQ(Send("DELETE", cancelled).status, 499);
  EXPECT_EQ(Send("PUT", cancelled, "abc").status, 410);
  drive->ExpireUploads();
  EXPECT_EQ(Send("PUT", expired, "abc").status, 404);
  EXPECT_EQ(drive->Items(), 1);
}

TEST_F(Writing, AnUploadThatIsOverHoldsNothingAndCannotBeUndone) {
  const auto openFiles = [] {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
  };
  const auto before = openFiles();
  std::string id;
  for (int i = 0; i < 20; ++i) {
    const std::string session = StartUpload(3);
    id = Send("PUT", session, "abc").Json()["id"].asString();
    EXPECT_EQ(Send("DELETE", session).status, 499);
    Send("DELETE", StartUpload(3));
  }
  EXPECT_EQ(drive->Content(id), "abc");
  EXPECT_LT(openFiles(), before + 10);
}

TEST_F(Writing, UpdatesReplaceContentUnderTheSameId) {
  const std::string id = drive->Put("a.txt", "old");
  const std::string session =
      Send("PATCH", "/upload/drive/v3/files/" + id + "?uploadType=resumable", "{}",
           {{"X-Upload-Content-Length", "0"}})
          .Header("Location");
  EXPECT_EQ(drive->Content(id), "old");
  EXPECT_EQ(Send("PUT", session, "").Json()["id"], id);
  EXPECT_EQ(drive->Content(id), "");
  const std::string multipart =
      "--b\r\nContent-Type: application/json\r\n\r\n{\"name\":\"b.txt\"}\r\n"
      "--b\r\nContent-Type: text/plain\r\n\r\nnew\r\n\r\n--b--";
  EXPECT_EQ(Send("PATCH", "/upload/drive/v3/files/" + id + "?uploadType=multipart", multipart,
                 {{"Content-Type", "multipart/related; boundary=b"}})
                .status,
            200);
  EXPECT_EQ(drive->Content(id), "new\r\n");
  EXPECT_EQ(drive->Item(id)["name"], "b.txt");
}

// What no outside client calls.
TEST_F(Writing, RarerRoutes) {
  const std::string id = drive->Put("a.txt", "old");
  const std::string upload = "/upload/drive/v3/files/" + id + "?uploadType=resumable";
  const std::string session = Send("PUT", upload, "{}").Header("Location");
  EXPECT_EQ(Send("PATCH", session, "new").Json()["id"], id);
  EXPECT_EQ(drive->Content(id), "new");
  EXPECT_EQ(Send("DELETE", Send("PATCH", upload, "{}").Header("Location")).status, 499);
  EXPECT_EQ(Send("POST", "/drive/v3/files/" + id + "/watch",
                 "{\"id\":\"c\",\"type\":\"web_hook\",\"address\":\"https://example.com/h\"}")
                .status,
            200);
  EXPECT_EQ(drive->OpenChannels(), 1);
  const std::string teams = "/drive/v3/teamdrives";
  const Json::Value team = Send("POST", teams + "?requestId=1", "{\"name\":\"T\"}").Json();
  EXPECT_EQ(team["kind"], "drive#teamDrive");
  const std::string one = teams + "/" + team["id"].asString();
  EXPECT_EQ(Send("PATCH", one, "{\"name\":\"U\"}").status, 200);
  EXPECT_EQ(Get(one).Json()["name"], "U");
  EXPECT_EQ(Send("DELETE", one).status, 204);
  EXPECT_EQ(Get(one).status, 404);
}

TEST_F(Writing, QuotaFillsUpAndIsFreedAgain) {
  drive->SetQuota(emulator::kDemoUser, 10);
  const std::string six = drive->Put("six", "123456");
  EXPECT_EQ(Send("POST", "/upload/drive/v3/files?uploadType=resumable", "{}",
                 {{"X-Upload-Content-Length", "5"}})
                .Reason(),
            "storageQuotaExceeded");
  EXPECT_EQ(Send("POST", "/upload/drive/v3/files?uploadType=media", "12345").status, 403);
  EXPECT_EQ(drive->QuotaUsed(), 6);
  EXPECT_EQ(Send("POST", "/drive/v3/files/" + six + "/copy", "{}").status, 403);
  drive->Remove(six);
  EXPECT_EQ(drive->QuotaUsed(), 0);
  EXPECT_EQ(Send("POST", "/upload/drive/v3/files?uploadType=media", "12345").status, 200);
}

TEST_F(Writing, ChangeLogTellsEveryItemOnceAndInOrder) {
  const std::string start = StartToken();
  const std::string a = drive->Put("a.txt", "1"), folder = drive->MakeFolder("f");
  const std::string inside = drive->Put("f/inside.txt", "2");
  drive->Rename(a, "z.txt");
  Json::Value list = Changes(start);
  ASSERT_EQ(list["changes"].size(), 3u);
  EXPECT_EQ(list["changes"][0]["fileId"], folder);
  EXPECT_EQ(list["changes"][2]["file"]["name"], "z.txt");
  const std::string next = list["newStartPageToken"].asString();
  EXPECT_EQ(Changes(next)["changes"].size(), 0u);
  drive->Remove(folder);
  list = Changes(next);
  EXPECT_EQ(list["changes"].size(), 2u);
  for (const Json::Value& change : list["changes"]) EXPECT_EQ(change["removed"], true);
  EXPECT_EQ(Changes(next, "&includeRemoved=false")["changes"].size(), 0u);
  const Json::Value page = Changes(start, "&pageSize=1");
  EXPECT_EQ(page["changes"].size(), 1u);
  EXPECT_FALSE(page.isMember("newStartPageToken"));
  EXPECT_EQ(Changes(page["nextPageToken"].asString())["changes"].size(), 2u);
  EXPECT_EQ(Get("/drive/v3/changes?pageToken=1000000").status, 400);
  EXPECT_EQ(Get("/drive/v3/changes").Reason(), "required");
}

TEST_F(Writing, LosingAccessIsARemovalToTheOneWhoLostIt) {
  drive->AddUser("ada@example.com", "Ada");
  const std::string folder = drive->MakeFolder("f");
  const std::string file = drive->Put("f/x.txt", "x");
  drive->ShareWith(folder, "ada@example.com");
  const std::string start = StartToken();
  drive->Move(file, drive->RootId());
  EXPECT_EQ(Changes(start)["changes"][0]["removed"], false);
  ActAs("ada@example.com");
  const Json::Value list = Changes(start);
  ASSERT_EQ(list["changes"].size(), 1u);
  EXPECT_EQ(list["changes"][0]["fileId"], file);
  EXPECT_EQ(list["changes"][0]["removed"], true);
}

class Push : public Writing {
 protected:
  Answer Subscribe(const std::string& userToken) {
    httplib::Client push(drive->PushApiUrl());
    const auto result =
        push.Post("/api/v1/change_subscriptions/", {{"Authorization", "token " + userToken}},
                  "{\"device_guid\":\"d\",\"drive_item\":\"i\",\"storage_type\":\"gdrive\"}",
                  "application/json");
    return {result->status, result->body, result->headers};
  }
  Answer Watch(const std::string& address, const std::string& id = "channel-1") {
    return Send("POST", "/drive/v3/changes/watch?pageToken=" + StartToken(),
                "{\"id\":\"" + id + "\",\"type\":\"web_hook\",\"address\":\"" + address + "\"}");
  }
};

TEST_F(Push, AChangeReachesTheListenersOfItsChannel) {
  EXPECT_EQ(Subscribe("wrong").status, 401);
  const Json::Value subscription = Subscribe(drive->PushUserToken()).Json();
  WebSocketClient listener(drive->PushUrl() + subscription["push_channel"].asString());
  WebSocketClient stranger(drive->PushUrl() + "another-channel");
  ASSERT_TRUE(listener.Open() && stranger.Open());
  const Answer watch = Watch(subscription["webhook_url"].asString());
  ASSERT_EQ(watch.status, 200) << watch.body;
  EXPECT_EQ(Watch(subscription["webhook_url"].asString()).Reason(), "channelIdNotUnique");
  drive->Put("a.txt", "x");
  EXPECT_THAT(listener.Receive(), ::testing::HasSubstr("change"));
  EXPECT_EQ(drive->OpenChannels(), 1);
  const std::string stop =
      "{\"id\":\"channel-1\",\"resourceId\":\"" + watch.Json()["resourceId"].asString() + "\"}";
  EXPECT_EQ(
      Send("POST", "/drive/v3/channels/stop", "{\"id\":\"channel-1\",\"resourceId\":\"x\"}").status,
      404);
  EXPECT_EQ(Send("POST", "/drive/v3/channels/stop", stop).status, 204);
  EXPECT_EQ(Send("POST", "/drive/v3/channels/stop", stop).status, 404);
  drive->Put("b.txt", "x");
  drive->SendPush("another-channel", "only for you");
  EXPECT_EQ(stranger.Receive(), "only for you");
}

TEST_F(Push, NoticesCarryTheChannelsHeaders) {
  httplib::Server hook;
  hook.set_keep_alive_max_count(1);  // or stopping would wait for the emulator's connection
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<httplib::Headers> notices;
  hook.Post("/hook", [&](const httplib::Request& request, httplib::Response&) {
    const std::lock_guard lock(mutex);
    notices.push_back(request.headers);
    arrived.notify_all();
  });
  const int port = hook.bind_to_any_port("127.0.0.1");
  std::thread serving([&hook] { hook.listen_after_bind(); });
  const std::string address = "http://127.0.0.1:" + std::to_string(port) + "/hook";
  EXPECT_EQ(Watch(address).status, 200);
  const auto await = [&](size_t count) {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(
        arrived.wait_for(lock, std::chrono::seconds(10), [&] { return notices.size() >= count; }));
  };
  await(1);
  drive->Put("a.txt", "x");
  await(2);
  hook.stop();
  serving.join();
  const auto value = [&](size_t i, const char* name) { return notices[i].find(name)->second; };
  EXPECT_EQ(value(0, "X-Goog-Resource-State"), "sync");
  EXPECT_EQ(value(0, "X-Goog-Message-Number"), "1");
  EXPECT_EQ(value(1, "X-Goog-Resource-State"), "change");
  EXPECT_EQ(value(1, "X-Goog-Message-Number"), "2");
  EXPECT_EQ(value(1, "X-Goog-Channel-ID"), "channel-1");
  EXPECT_FALSE(value(1, "X-Goog-Resource-URI").empty());
}

TEST_F(Push, WatchIsValidated) {
  EXPECT_EQ(Watch("http://example.com/hook").status, 400);
  EXPECT_EQ(Watch("").status, 400);
  EXPECT_EQ(Watch("https://example.com/hook", "not valid!").status, 400);
  EXPECT_EQ(Send("POST", "/drive/v3/changes/watch?pageToken=99999", "{}").status, 400);
  EXPECT_EQ(drive->OpenChannels(), 0);
}

TEST_F(Push, TheServiceCanMisbehave) {
  using emulator::PushBehaviour;
  drive->SetPushBehaviour(PushBehaviour::kRefuse);
  EXPECT_FALSE(WebSocketClient(drive->PushUrl() + "c").Open());
  drive->SetPushBehaviour(PushBehaviour::kDrop);
  WebSocketClient dropped(drive->PushUrl() + "c");
  EXPECT_EQ(dropped.Receive(), "");
  drive->SetPushBehaviour(PushBehaviour::kFlood);
  WebSocketClient flooded(drive->PushUrl() + "c");
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(flooded.Receive(), "flood");
  drive->DropPushConnections();
  EXPECT_EQ(flooded.Receive(), "");
  // The emulator must end although a hand-shake is still waiting for its answer.
  drive->SetPushBehaviour(PushBehaviour::kStall);
  httplib::Client stalled(drive->PushApiUrl());
  std::thread waiting([&stalled] {
    stalled.Get("/c", {{"Upgrade", "websocket"}, {"Sec-WebSocket-Key", std::string(24, 'k')}});
  });
  drive.reset();
  waiting.join();
}

}  // namespace
}  // namespace emulator_test
