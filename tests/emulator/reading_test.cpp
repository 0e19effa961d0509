// Listing, reading and who may see what.
#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "tests/emulator/emulator_fixture.h"

namespace emulator_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class Reading : public EmulatorTest {};

TEST_F(Reading, RangesOfContent) {
  const std::string id = drive->Put("a.bin", "0123456789");
  const std::string media = "/drive/v3/files/" + id + "?alt=media";
  struct Case {
    const char* range;
    int status;
    const char* body;
    const char* contentRange;
  };
  for (const Case& one :
       {Case{"", 200, "0123456789", ""}, Case{"bytes=0-0", 206, "0", "bytes 0-0/10"},
        Case{"bytes=3-5", 206, "345", "bytes 3-5/10"},
        Case{"bytes=8-99", 206, "89", "bytes 8-9/10"}, Case{"bytes=7-", 206, "789", "bytes 7-9/10"},
        Case{"bytes=-2", 206, "89", "bytes 8-9/10"},
        Case{"bytes=-20", 206, "0123456789", "bytes 0-9/10"},
        Case{"bytes=0-1,4-5", 200, "0123456789", ""}}) {
    httplib::Headers headers;
    if (*one.range != '\0') headers.emplace("Range", one.range);
    const Answer answer = Get(media, headers);
    EXPECT_EQ(answer.status, one.status) << one.range;
    EXPECT_EQ(answer.body, one.body) << one.range;
    EXPECT_EQ(answer.Header("Content-Range"), one.contentRange);
  }
  const Answer beyond = Get(media, {{"Range", "bytes=10-"}});
  EXPECT_EQ(beyond.status, 416);
  EXPECT_EQ(beyond.Header("Content-Range"), "bytes */10");
  EXPECT_EQ(beyond.Reason(), "requestedRangeNotSatisfiable");
}

TEST_F(Reading, SyntheticContentIsTheSameWhereverItIsCut) {
  const std::string id = drive->PutSynthetic("big.bin", 3'000'000'000);
  const std::string media = "/drive/v3/files/" + id + "?alt=media";
  const std::string whole = Get(media, {{"Range", "bytes=2999999000-2999999999"}}).body;
  ASSERT_EQ(whole.size(), 1000u);
  EXPECT_GT(std::set<char>(whole.begin(), whole.end()).size(), 100u);
  for (const int cut : {1, 7, 8, 9, 500}) {
    const std::string start = std::to_string(2'999'999'000 + cut);
    EXPECT_EQ(Get(media, {{"Range", "bytes=" + start + "-"}}).body, whole.substr(cut));
  }
  EXPECT_EQ(drive->Content(id, 2'999'999'007, 100), whole.substr(7, 100));
}

// Each page is asked for while files come and go: nothing that stayed may be lost or doubled.
TEST_F(Reading, PagesSurviveInsertsAndDeletes) {
  const std::string folder = drive->MakeFolder("many");
  drive->AddChildren(folder, 950, "stays ");
  std::vector<std::string> doomed;
  for (int i = 0; i < 20; ++i) doomed.push_back(drive->PutUnder(folder, "goes", ""));
  for (const std::string order : {"", "name", "folder,name desc", "modifiedTime desc"}) {
    std::multiset<std::string> seen;
    std::string page;
    for (int round = 0; round < 100; ++round) {
      const Answer answer = Get("/drive/v3/files?pageSize=100&orderBy=" + Encoded(order) +
                                "&fields=nextPageToken,files(name)&q=" +
                                Encoded("\"" + folder + "\" in parents and trashed = false") +
                                (page.empty() ? "" : "&pageToken=" + Encoded(page)));
      ASSERT_EQ(answer.status, 200) << answer.body;
      const Json::Value list = answer.Json();
      for (const Json::Value& file : list["files"]) seen.insert(file["name"].asString());
      if (!list.isMember("nextPageToken")) break;
      page = list["nextPageToken"].asString();
      drive->PutUnder(folder, "comes", "");
      if (!doomed.empty()) drive->Remove(doomed.back()), doomed.pop_back();
    }
    for (int i = 0; i < 950; ++i) EXPECT_EQ(seen.count("stays " + std::to_string(i)), 1u) << order;
  }
}

TEST_F(Reading, PageTokensBelongToOneListing) {
  drive->AddChildren(drive->RootId(), 30, "f");
  const Json::Value first = Get("/drive/v3/files?pageSize=10").Json();
  const std::string next = Encoded(first["nextPageToken"].asString());
  EXPECT_EQ(Get("/drive/v3/files?pageSize=20&pageToken=" + next).Json()["files"].size(), 20u);
  for (const std::string& wrong : {"&q=" + Encoded("trashed = false") + "&pageToken=" + next,
                                   std::string("&pageToken=nonsense")}) {
    const Answer answer = Get("/drive/v3/files?pageSize=10" + wrong);
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.Json()["error"]["errors"][0]["location"], "pageToken");
  }
}

TEST_F(Reading, QueryLanguage) {
  drive->Put("Hello World.txt", "1", "text/plain");
  drive->Put("it's.md", "2", "text/markdown");
  drive->MakeFolder("hello folder");
  drive->Trash(drive->Put("old hello.txt", "3", "text/plain"));
  const std::string root = drive->RootId();
  EXPECT_THAT(Names("name = 'Hello World.txt'"), ElementsAre("Hello World.txt"));
  EXPECT_THAT(Names("name = 'it\\'s.md'"), ElementsAre("it's.md"));
  EXPECT_THAT(Names("name = \"it's.md\""), ElementsAre("it's.md"));
  EXPECT_THAT(Names("name contains 'hello' and trashed = false"),
              UnorderedElementsAre("Hello World.txt", "hello folder"));
  EXPECT_THAT(Names("name contains 'world'"), ElementsAre("Hello World.txt"));
  EXPECT_THAT(Names("name contains 'orld'"), IsEmpty());
  EXPECT_THAT(Names("trashed = true"), ElementsAre("old hello.txt"));
  EXPECT_THAT(Names("not mimeType contains 'text/' and 'root' in parents"),
              ElementsAre("hello folder"));
  EXPECT_THAT(Names("mimeType = 'text/markdown' or trashed = true and name contains 'old'"),
              ElementsAre("old hello.txt"));  // from left to right
  EXPECT_THAT(Names("mimeType = 'text/markdown' or (trashed = true and name contains 'old')"),
              UnorderedElementsAre("it's.md", "old hello.txt"));
  EXPECT_THAT(Names("not '" + root + "' in parents"), IsEmpty());
  EXPECT_THAT(Names("modifiedTime > '2999-01-01T00:00:00'"), IsEmpty());
  EXPECT_EQ(Names("modifiedTime > '2020-01-01T00:00:00.000Z' and 'me' in owners").size(), 4u);
  for (const char* wrong :
       {"name", "name = ", "name = 'a", "shoe = 'x'", "name ~ 'x'", "(trashed = true",
        "trashed = maybe", "modifiedTime > 'yesterday'", "trashed = false and"}) {
    const Answer answer = Get("/drive/v3/files?q=" + Encoded(wrong));
    EXPECT_EQ(answer.status, 400) << wrong;
    EXPECT_EQ(answer.Json()["error"]["errors"][0]["location"], "q") << wrong;
  }
  EXPECT_EQ(Get("/drive/v3/files?q=" + Encoded("'nowhere' in parents")).status, 404);
}

TEST_F(Reading, FieldsAreSelectedAndChecked) {
  const std::string id = drive->Put("a.txt", "abc");
  const std::string file = "/drive/v3/files/" + id;
  EXPECT_EQ(
      Get(file + "?fields=" + Encoded("id,owners(me),capabilities/canEdit")).body,
      "{\"id\":\"" + id + "\",\"owners\":[{\"me\":true}],\"capabilities\":{\"canEdit\":true}}");
  EXPECT_EQ(Get(file).Json().getMemberNames().size(), 4u);
  EXPECT_GT(Get(file + "?fields=*").Json().getMemberNames().size(), 25u);
  EXPECT_EQ(Get("/drive/v3/files?fields=files/name").body, "{\"files\":[{\"name\":\"a.txt\"}]}");
  for (const char* wrong : {"nosuch", "id(x", "owners/nosuch", "id,,name", "size/x"}) {
    const Answer answer = Get(file + "?fields=" + Encoded(wrong));
    EXPECT_EQ(answer.status, 400) << wrong;
    EXPECT_EQ(answer.Reason(), "invalidParameter") << wrong;
  }
  EXPECT_EQ(Get("/drive/v3/files?pageSize=0").Reason(), "invalidParameter");
  EXPECT_EQ(Get("/drive/v3/files?pageSize=1001").status, 400);
}

TEST_F(Reading, OthersSeeWhatIsSharedWithThem) {
  drive->AddUser("ada@example.com", "Ada");
  const std::string folder = drive->MakeFolder("work");
  const std::string inside = drive->Put("work/deep/plan.txt", "plan");
  const std::string hidden = drive->Put("secret.txt", "secret");
  drive->ShareWith(folder, "ada@example.com", "reader");
  const std::string later = drive->Put("work/later.txt", "later");
  ActAs("ada@example.com");
  for (const std::string& id : {folder, inside, later}) {
    EXPECT_EQ(Get("/drive/v3/files/" + id).status, 200);
  }
  EXPECT_EQ(Get("/drive/v3/files/" + hidden).Reason(), "notFound");
  EXPECT_THAT(Names("sharedWithMe"), ElementsAre("work"));
  EXPECT_FALSE(Get("/drive/v3/files/" + folder + "?fields=parents").Json().isMember("parents"));
  EXPECT_EQ(Send("PATCH", "/drive/v3/files/" + inside, "{\"name\":\"x\"}").Reason(),
            "insufficientFilePermissions");
  drive->Move(inside, drive->RootId());
  EXPECT_EQ(Get("/drive/v3/files/" + inside).status, 404);
}

TEST_F(Reading, TeamDrivesNeedTheirParameters) {
  const std::string team = drive->MakeTeamDrive("Team");
  const std::string file = drive->PutUnder(team, "plan.txt", "plan");
  const std::string url = "/drive/v3/files/" + file;
  EXPECT_EQ(Get(url).status, 404);
  EXPECT_EQ(Get(url + "?supportsTeamDrives=true&fields=driveId").Json()["driveId"], team);
  EXPECT_EQ(Get(url + "?supportsAllDrives=true").status, 200);
  const std::string query = "\"" + team + "\" in parents and trashed = false";
  EXPECT_THAT(Names(query), IsEmpty());
  EXPECT_THAT(Names(query, "&includeTeamDriveItems=true&supportsTeamDrives=true"),
              ElementsAre("plan.txt"));
  EXPECT_EQ(Get("/drive/v3/teamdrives").Json()["teamDrives"][0]["name"], "Team");
  EXPECT_EQ(Get("/drive/v3/drives").Json()["drives"][0]["id"], team);
  drive->AddUser("eve@example.com", "Eve");
  ActAs("eve@example.com");
  EXPECT_EQ(Get(url + "?supportsAllDrives=true").status, 404);
  EXPECT_EQ(Get("/drive/v3/drives").Json()["drives"].size(), 0u);
}

TEST_F(Reading, TokensExpireAndAreRequired) {
  EXPECT_EQ(Get("/drive/v2/about?fields=user").status, 200);
  drive->ExpireTokens();
  const Answer expired = Get("/drive/v2/about");
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(expired.Reason(), "authError");
  EXPECT_NE(expired.Header("WWW-Authenticate"), "");
  token.clear();
  EXPECT_EQ(Get("/drive/v2/about").Reason(), "required");
}

TEST_F(Reading, DemoSeedIsTheSameEveryTime) {
  emulator::Options options;
  options.seed = "demo";
  const emulator::DriveEmulator one(options), two(options);
  const Json::Value tree = one.DumpTree();
  EXPECT_EQ(tree, two.DumpTree());
  EXPECT_GT(one.Items(), 400);
  EXPECT_EQ(tree["teamDrives"].size(), 2u);
  EXPECT_EQ(tree["sharedWithMe"].size(), 6u);
  const std::string names = *one.Find("Names");
  EXPECT_EQ(one.ChildrenNamed(names, "twin.txt").size(), 2u);
  EXPECT_EQ(one.ChildrenNamed(names, "either/or.txt").size(), 1u);
  EXPECT_EQ(one.Item(*one.Find("Projects/shared between folders.txt"))["parents"].size(), 2u);
  EXPECT_EQ(one.Item(*one.Find("Videos/recording.mp4"))["size"], "67108864");
}

// Idle keep-alive connections must not starve new ones.
TEST_F(Reading, Serves256ConnectionsAtOnce) {
  drive->Put("a.txt", "abc");
  std::vector<std::unique_ptr<httplib::Client>> clients;
  for (int i = 0; i < 256; ++i) {
    clients.push_back(std::make_unique<httplib::Client>(drive->ApiUrl()));
    clients.back()->set_keep_alive(true);
    clients.back()->set_read_timeout(60);  // it is not about how fast
    clients.back()->set_default_headers({{"Authorization", "Bearer " + token}});
  }
  drive->ClearJournal();
  for (int round = 0; round < 2; ++round) {
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (const auto& one : clients) {
      threads.emplace_back([&good, &one] {
        const auto result = one->Get("/drive/v3/files");
        if (result && result->status == 200) ++good;
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(good, 256);
  }
  EXPECT_EQ(drive->Connections(), 256);
  EXPECT_EQ(drive->Count("drive.files.list"), 512);
}

}  // namespace
}  // namespace emulator_test
