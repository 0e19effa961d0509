// Following remote changes by polling.
#include "tests/plugin/drive/drive_fixture.h"

namespace {

using Ids = std::vector<std::string>;

class ChangesTest : public DriveTest {
 protected:
  static constexpr char kList[] = "drive.changes.list";
  static constexpr char kStart[] = "drive.changes.getStartPageToken";
};

TEST_F(ChangesTest, TheFirstPollTakesACursorAndReportsNothing) {
  service.Put("before.txt", "x");
  EXPECT_EQ(Changes(), Ids{});
  EXPECT_EQ(Requests(), 1);
  EXPECT_EQ(Query(kStart), "");
  const auto writes = profile.Writes();
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_EQ(writes[0].key, "lastchangeid");
  EXPECT_EQ(writes[0].profile, kProfile);
  EXPECT_EQ(writes[0].flag, 0);
  EXPECT_NE(writes[0].value, "");
}

TEST_F(ChangesTest, FoldersWhoseListingChangedAreReportedOnce) {
  const std::string folder = service.MakeFolder("folder");
  CatchUp();
  service.PutUnder(folder, "a.txt", "x");
  service.PutUnder(folder, "b.txt", "x");
  const std::string inner = service.MakeFolder("folder/inner");
  EXPECT_EQ(Changes(), (Ids{folder, inner}));
  EXPECT_EQ(Changes(), Ids{});
  EXPECT_EQ(Query(kList).substr(Query(kList).find("&fields")),
            "&fields=changes%2Ffile%2CnewStartPageToken%2CnextPageToken");
}

TEST_F(ChangesTest, ARemovedItemIsPassedOverAndTheRestReported) {
  const std::string gone = service.Put("gone/a.txt", "x");
  CatchUp();
  service.Remove(gone);
  service.Put("b.txt", "x");
  EXPECT_EQ(Changes(), Ids{root});
}

TEST_F(ChangesTest, ARestartedHostGoesOnFromWhereItWas) {
  CatchUp();
  service.Put("a.txt", "x");
  const auto restarted = NewDrive();
  Connect(*restarted);
  ChangeSink sink;
  EXPECT_EQ(restarted->GetChanges(&sink, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(sink.Ids(), Ids{root});
  EXPECT_EQ(Requests(kStart), 0);
}

TEST_F(ChangesTest, AFailedPollLosesNothing) {
  CatchUp();
  service.Put("a.txt", "x");
  FailAlways(kList, 500);
  EXPECT_EQ(Changes(), Ids{});
  service.ClearFaults();
  for (const char* body : {"", "{", "[]", "{}", R"({"changes": 7, "newStartPageToken": "99"})",
                           R"({"changes": [], "newStartPageToken": {}})"}) {
    AnswerNext(kList, body);
    EXPECT_EQ(Changes(), Ids{}) << body;
  }
  Fault(kList, "truncate", 20);
  EXPECT_EQ(Changes(), Ids{});
  EXPECT_EQ(Changes(), Ids{root});
}

TEST_F(ChangesTest, ASinkThatThrowsHearsOfTheOthers) {
  const std::string a = service.MakeFolder("a");
  const std::string b = service.MakeFolder("b");
  CatchUp();
  service.PutUnder(a, "x", "x");
  service.PutUnder(b, "x", "x");
  ChangeSink sink;
  sink.onChanged = [](const std::string&) { throw std::runtime_error("host"); };
  EXPECT_EQ(drive->GetChanges(&sink, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(sink.Ids(), (Ids{a, b}));
}

TEST_F(ChangesTest, ASinkMayPollAndUseTheDrive) {
  CatchUp();
  service.Put("a.txt", "x");
  ChangeSink sink;
  Ids names;
  sink.onChanged = [&](const std::string& folder) {
    EXPECT_EQ(drive->GetChanges(&sink, nullptr), AERROR::SUCCESS);
    names = Names(folder);
  };
  EXPECT_EQ(drive->GetChanges(&sink, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(sink.Ids(), Ids{root});
  EXPECT_EQ(names, Ids{"a.txt"});
}

TEST_F(ChangesTest, ASinkMayReleaseTheDrive) {
  const std::string folder = service.MakeFolder("a");
  CatchUp();
  service.PutUnder(folder, "x", "x");
  service.Put("b.txt", "x");
  ChangeSink sink;
  GoogleDrive* released = drive.release();
  sink.onChanged = [&](const std::string&) {
    released->Release();
    sink.Close();
  };
  EXPECT_EQ(released->GetChanges(&sink, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(sink.Ids().size(), 1u);
}

/// Polls of a scripted service, from cursor "1".
class ChangePageTest : public WireTest {
 protected:
  ChangePageTest() {
    profile.Set("lastchangeid", "1");
    EXPECT_EQ(drive->Connect(&authoriser, Credential("token").c_str()), AERROR::SUCCESS);
    before = service.Requests().size();
  }

  void Pages(const std::vector<std::string>& bodies) {
    for (const auto& body : bodies) service.Play({Http(200, body)});
  }
  Ids Poll() {
    ChangeSink sink;
    EXPECT_EQ(drive->GetChanges(&sink, nullptr), AERROR::SUCCESS);
    return sink.Ids();
  }
  /// The page tokens that were asked for.
  Ids Asked() {
    Ids tokens;
    for (const auto& request : service.Requests()) {
      const size_t at = request.head.find("pageToken=");
      if (at != std::string::npos) {
        tokens.push_back(request.head.substr(at + 10, request.head.find('&', at) - at - 10));
      }
    }
    return tokens;
  }

  size_t before = 0;
};

std::string Change(const std::string& id, const std::string& parents) {
  return R"({"file": {"id": ")" + id + R"(", "mimeType": "t", "parents": [)" + parents + "]}}";
}

TEST_F(ChangePageTest, PagesAreFollowedToTheLastAndTheCursorWithThem) {
  Pages({R"({"nextPageToken": "2", "changes": [)" + Change("a", R"("p", "q")") + "]}",
         R"({"nextPageToken": "3", "changes": [)" + Change("b", R"("q")") +
             R"(, {"fileId": "gone", "removed": true}, {"file": 5}, 7, {"file": {"id": "x"}}]})",
         R"({"newStartPageToken": "4", "changes": [)" + Change("c", R"("r")") + "]}",
         R"({"newStartPageToken": "4", "changes": []})"});
  EXPECT_EQ(Poll(), (Ids{"q", "p", "r"}));
  EXPECT_EQ(Asked(), (Ids{"1", "2", "3", "4"}));
  EXPECT_EQ(profile.Get("lastchangeid"), "4");
}

TEST_F(ChangePageTest, TheListIsAllChangesInOrder) {
  Pages({R"({"nextPageToken": "2", "changes": [)" + Change("a", "") + "]}",
         R"({"newStartPageToken": "3", "changes": [)" + Change("b", "") + "]}"});
  EXPECT_EQ(drive->GetChangeList(0),
            R"({"changes":[{"file":{"id":"a","mimeType":"t","parents":[]}},)"
            R"({"file":{"id":"b","mimeType":"t","parents":[]}}]})");
}

TEST_F(ChangePageTest, WhatCameBeforeAFailureIsReportedAndNotAskedForAgain) {
  Pages({R"({"nextPageToken": "2", "changes": [)" + Change("a", R"("p")") + "]}"});
  service.SetFallback(Http(404));
  EXPECT_EQ(Poll(), Ids{"p"});
  EXPECT_EQ(profile.Get("lastchangeid"), "2");
  service.SetFallback(Http(200, R"({"newStartPageToken": "3"})"));
  EXPECT_EQ(Poll(), Ids{});
  EXPECT_EQ(Asked(), (Ids{"1", "2", "2", "2"}));
}

TEST_F(ChangePageTest, AServiceThatNeverMovesOnIsLeftAfterAThousandRounds) {
  for (const char* token : {R"(, "newStartPageToken": "1")", R"(, "nextPageToken": "1")", ""}) {
    service.SetFallback(Http(200, R"({"changes": [)" + Change("a", R"("p")") + "]" + token + "}"));
    const size_t already = service.Requests().size();
    EXPECT_EQ(Poll(), Ids{"p"});
    EXPECT_EQ(service.Requests().size() - already, 1000u);
  }
}

TEST_F(ChangePageTest, PagesThatLeadInACircleAreLeftToo) {
  const std::string changes = R"(", "changes": [)" + Change("a", R"("p")") + "]}";
  for (int i = 0; i < 2500; ++i) {
    Pages({R"({"nextPageToken": "2)" + changes, R"({"nextPageToken": "1)" + changes});
  }
  EXPECT_EQ(Poll(), Ids{"p"});
  EXPECT_EQ(service.Requests().size() - before, 2000u);
}

TEST_F(ChangePageTest, CursorsThatComeAgainAreNoProgress) {
  const std::string changes = R"(", "changes": [)" + Change("a", R"("p")") + "]}";
  for (int i = 0; i < 2500; ++i) {
    Pages({R"({"newStartPageToken": "2)" + changes, R"({"newStartPageToken": "1)" + changes});
  }
  EXPECT_EQ(Poll(), Ids{"p"});
  EXPECT_EQ(service.Requests().size() - before, 1001u);
}

TEST_F(ChangePageTest, TheCursorIsTakenFromTheProfileOrTheService) {
  profile.Set("lastchangeid", "stored");
  drive->GetLargestChangeId();
  EXPECT_EQ(service.Requests().size(), before);
  service.SetFallback(Http(404));
  (void)Poll();
  EXPECT_EQ(Asked(), Ids{"stored"});
}

}  // namespace
