// Listing folders, the virtual ones included, and reading one item's record.
#include <algorithm>
#include <set>

#include "tests/plugin/drive/drive_fixture.h"

namespace {

class ListingTest : public DriveTest {
 protected:
  static constexpr char kList[] = "drive.files.list";

  void Show(bool shared, bool teamDrives) {
    const auto text = [](bool flag) { return std::string(flag ? "true" : "false"); };
    const std::string values = R"({"values": {"show_shared": {"value": )" + text(shared) +
                               R"(}, "use_team_drive": {"value": )" + text(teamDrives) + "}}}";
    drive->SetOpt("option_fields", values.c_str());
  }

  _FS_FILE_V2 Only(const std::string& folder) {
    ItemList list;
    EXPECT_EQ(List(folder, &list), AERROR::SUCCESS);
    EXPECT_EQ(list.items.size(), 1u);
    return list.items.empty() ? _FS_FILE_V2() : list.items.front();
  }
};

using testing::TestWithParam;
using Texts = std::vector<std::string>;

TEST_F(ListingTest, TheTopShowsWhatTheSettingsAllow) {
  service.Put("plain.txt", "x");
  const std::string name = service.Item(root)["name"].asString();
  EXPECT_EQ(Names(kVirtualRoot), (Texts{"Team Drives", "Shared with me", name}));
  Show(false, true);
  EXPECT_EQ(Names(kVirtualRoot), (Texts{"Team Drives", name}));
  Show(true, false);
  EXPECT_EQ(Names(kVirtualRoot), (Texts{"Shared with me", name}));
  EXPECT_EQ(Requests(), 0);
  Show(false, false);
  EXPECT_EQ(Names(kVirtualRoot), Texts{"plain.txt"});
}

TEST_F(ListingTest, VirtualFoldersAreFoldersOfThePlugInsOwn) {
  ItemList list;
  ASSERT_EQ(List(kVirtualRoot, &list), AERROR::SUCCESS);
  for (const char* id : {kTeamDrives, kShared}) {
    const auto found = std::find_if(list.items.begin(), list.items.end(),
                                    [&](const auto& item) { return item.id == id; });
    ASSERT_NE(found, list.items.end());
    EXPECT_EQ(found->attributes, 0x42u);
    EXPECT_EQ(found->time1.size(), 24u);
  }
  EXPECT_EQ(list.items.back().id, root);
  EXPECT_EQ(list.items.back().attributes, 0x02u);
}

TEST_F(ListingTest, ManyChildrenComeInPagesEachHandedOverBeforeTheNextIsAsked) {
  const std::string folder = service.MakeFolder("many");
  service.AddChildren(folder, 250, "child");
  ItemList list;
  std::vector<int> requestsAt;
  list.onAdd = [&](const auto&) { requestsAt.push_back(Requests(kList)); };
  ASSERT_EQ(List(folder, &list), AERROR::SUCCESS);
  const auto names = list.Names();
  EXPECT_EQ(std::set(names.begin(), names.end()).size(), 250u);
  ASSERT_EQ(requestsAt.size(), 250u);
  EXPECT_EQ(requestsAt[99], 1);
  EXPECT_EQ(requestsAt[100], 2);
  EXPECT_EQ(requestsAt[249], 3);
  EXPECT_EQ(service.Connections(), 1);
}

TEST_F(ListingTest, ThePageSizeIsTheHostsWithinBounds) {
  for (const char* size : {"250", "99", "1001", "many"}) drive->SetOpt("list_page_size", size);
  (void)Names(root);
  EXPECT_EQ(
      Query(kList).rfind("q=%22" + root +
                             "%22%20in%20parents%20and%20trashed%20%3D%20false"
                             "&pageSize=250&includeTeamDriveItems=true&supportsTeamDrives=true"
                             "&fields=nextPageToken%2Cfiles%28",
                         0),
      0u)
      << Query(kList);
}

TEST_F(ListingTest, TrashIsLeftOut) {
  service.Trash(service.Put("old.txt", "x"));
  service.Put("new.txt", "x");
  EXPECT_EQ(Names(root), Texts{"new.txt"});
}

TEST_F(ListingTest, TeamDrivesAreFoldersWithChildrenOfTheirOwn) {
  const std::string id = service.MakeTeamDrive("Design");
  service.PutUnder(id, "logo.svg", "<svg/>");
  const auto record = Only(kTeamDrives);
  EXPECT_EQ(record.id, id);
  EXPECT_EQ(record.name, "Design");
  EXPECT_EQ(record.attributes, 0x02u);
  EXPECT_EQ(record.size, 0);
  EXPECT_EQ(record.parents, std::deque<std::string>{kTeamDrives});
  EXPECT_EQ(Names(id), Texts{"logo.svg"});
}

TEST_F(ListingTest, SharedItemsAreListedInTheirFolder) {
  service.AddUser("other@example.com", "Other");
  const std::string id = service.Put("theirs.txt", "text", "", "other@example.com");
  service.ShareWith(id, emulator::kDemoUser);
  const auto record = Only(kShared);
  EXPECT_EQ(record.id, id);
  EXPECT_EQ(record.parents, std::deque<std::string>{kShared});
  EXPECT_NE(Query(kList).find("trashed%20%3D%20false%20and%20sharedWithMe"), std::string::npos);
}

TEST_F(ListingTest, AnItemWithTwoParentsNamesThemLastFirst) {
  const std::string a = service.MakeFolder("a");
  const std::string b = service.MakeFolder("b");
  const std::string id = service.PutUnder(a, "both.txt", "x");
  service.AddParent(id, b);
  const Json::Value parents = service.Item(id)["parents"];
  const std::deque<std::string> reversed{parents[1].asString(), parents[0].asString()};
  EXPECT_EQ(Only(a).parents, reversed);
  EXPECT_EQ(Only(b).parents, reversed);
}

TEST_F(ListingTest, AFilesRecordSaysWhatTheServiceSays) {
  const std::string id = service.PutUnder(root, "  data.bin\t", "12345");
  const auto record = Only(root);
  EXPECT_EQ(record.id, id);
  EXPECT_EQ(record.name, "data.bin");
  EXPECT_EQ(record.attributes, 0x01u);
  EXPECT_EQ(record.size, 5);
  EXPECT_EQ(record.time3, service.Item(id)["modifiedTime"].asString());
  EXPECT_EQ(record.time1, record.time3);
  EXPECT_EQ(record.time2, record.time3);
  EXPECT_EQ(record.content, "");
}

struct GoogleType {
  const char* type;
  const char* name;
};

class GoogleTypeTest : public ListingTest, public testing::WithParamInterface<GoogleType> {};

TEST_P(GoogleTypeTest, IsShownAsAFileThatOpensIt) {
  const std::string id = service.PutUnder(
      root, "Budget", "", std::string("application/vnd.google-apps.") + GetParam().type);
  const auto record = Only(root);
  EXPECT_EQ(record.name, std::string("Budget.") + GetParam().name + ".webloc");
  EXPECT_EQ(record.attributes, 0x45u);
  EXPECT_EQ(record.size, static_cast<int64_t>(record.content.size()));
  EXPECT_EQ(std::count(record.content.begin(), record.content.end(), '\n'), 8);
  const std::string link = service.Item(id)["webViewLink"].asString();
  EXPECT_NE(record.content.find("<string>" + link + "</string>\n</dict>\n</plist>\n"),
            std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, GoogleTypeTest,
                         testing::Values(GoogleType{"document", "Google Docs"},
                                         GoogleType{"drawing", "Google Drawing"},
                                         GoogleType{"form", "Google Forms"},
                                         GoogleType{"fusiontable", "Google Fusion Tables"},
                                         GoogleType{"presentation", "Google Slides"},
                                         GoogleType{"script", "Google Apps Scripts"},
                                         GoogleType{"sites", "Google Sites"},
                                         GoogleType{"spreadsheet", "Google Sheets"}),
                         [](const auto& one) { return std::string(one.param.type); });

TEST_F(ListingTest, WhatWasHandedOverBeforeAFailureStays) {
  service.AddChildren(root, 150, "child");
  ItemList list;
  list.onAdd = [&](const auto&) {
    if (list.items.size() == 1) service.FailNext(kList, 404);
  };
  EXPECT_EQ(List(root, &list), AERROR::FAILED);
  EXPECT_EQ(list.items.size(), 100u);
}

TEST_F(ListingTest, AListThatThrowsFailsTheListingAlone) {
  service.AddChildren(root, 5, "child");
  ItemList list;
  list.onAdd = [&](const auto&) {
    if (list.items.size() == 3) throw std::runtime_error("no more");
  };
  EXPECT_EQ(List(root, &list), AERROR::FAILED);
  EXPECT_EQ(list.items.size(), 3u);
  EXPECT_EQ(Names(root).size(), 5u);
}

TEST_F(ListingTest, ARecordIsReadAloneAndKeepsNoStaleSize) {
  const std::string folder = service.MakeFolder("folder");
  _FS_FILE_V2 record;
  record.size = 77;
  record.parent_id = "mine";
  ASSERT_EQ(Info(folder, &record), AERROR::SUCCESS);
  EXPECT_EQ(record.size, 0);
  EXPECT_EQ(record.attributes, 0x02u);
  EXPECT_EQ(record.parents, std::deque<std::string>{root});
  EXPECT_EQ(record.parent_id, "mine");
}

TEST_F(ListingTest, ARecordOfAVirtualFolderNeedsNoRequest) {
  for (const char* id : {kVirtualRoot, kTeamDrives, kShared}) {
    auto record = Record("x");
    record.parents = {"kept"};
    ASSERT_EQ(Info(id, &record), AERROR::SUCCESS);
    EXPECT_EQ(record.id, id);
    EXPECT_EQ(record.parents, std::deque<std::string>{"kept"});
  }
  EXPECT_EQ(Requests(), 0);
}

// What a listing makes of answers, asked for the folder "f".
class PageTest : public WireTest {
 protected:
  AERROR List(const std::vector<std::string>& pages, ItemList* list, const char* folder = "f") {
    for (const auto& page : pages) service.Play({Http(200, page)});
    return drive->GetFileList(folder, list, nullptr);
  }
};

TEST_F(PageTest, TeamDrivesComeInPages) {
  ItemList list;
  EXPECT_EQ(List({R"({"nextPageToken": "two", "teamDrives": [{"id": "a", "name": "A"}]})",
                  R"({"teamDrives": [{"id": "b", "name": "B"}]})"},
                 &list, kTeamDrives),
            AERROR::SUCCESS);
  EXPECT_EQ(list.Names(), (Texts{"A", "B"}));
  EXPECT_EQ(service.Requests().back().Line(),
            "GET /drive/v3/teamdrives?includeTeamDriveItems=true&supportsTeamDrives=true"
            "&pageSize=100&pageToken=two HTTP/1.1");
}

TEST_F(PageTest, AnItemThatIsElsewhereIsNotHandedOver) {
  ItemList list;
  EXPECT_EQ(List({R"({"files": [
    {"id": "1", "name": "elsewhere", "mimeType": "t", "parents": ["p"]},
    {"id": "2", "name": "nowhere", "mimeType": "t", "parents": []},
    {"id": "3", "name": "here", "mimeType": "t", "parents": ["p", "f"]},
    {"id": "4", "name": "anywhere", "mimeType": "t"}]})"},
                 &list),
            AERROR::SUCCESS);
  EXPECT_EQ(list.Names(), (Texts{"here", "anywhere"}));
  EXPECT_EQ(list.items.front().parents, (std::deque<std::string>{"f", "p"}));
  EXPECT_EQ(list.items.back().parents, std::deque<std::string>{"f"});
}

TEST_F(PageTest, NamesOfAnyBytesPassThrough) {
  ItemList list;
  EXPECT_EQ(List({"{\"files\": [{\"id\": \"i\", \"name\": \"a\xff\xc3(b\", \"mimeType\": \"t\"}]}"},
                 &list),
            AERROR::SUCCESS);
  EXPECT_EQ(list.Names(), Texts{"a\xff\xc3(b"});
}

TEST_F(PageTest, NoSizeIsLessThanNothing) {
  ItemList list;
  EXPECT_EQ(List({R"({"files": [{"id": "a", "name": "n", "mimeType": "t", "size": "-5"},)"
                  R"({"id": "b", "name": "n", "mimeType": "t", "size": -99999999999999999999}]})"},
                 &list),
            AERROR::SUCCESS);
  ASSERT_EQ(list.items.size(), 2u);
  for (const auto& item : list.items) EXPECT_EQ(item.size, 0);
}

TEST_F(PageTest, ParentsAreAskedForLastFirst) {
  service.Play({Http(200, R"({"items": [{"id": "A"}, {"id": "B"}]})"),
                Http(200, R"({"items": {}})"), Http(404)});
  EXPECT_EQ(drive->GetParents("x"), (std::deque<std::string>{"B", "A"}));
  EXPECT_TRUE(drive->GetParents("x").empty());
  EXPECT_TRUE(drive->GetParents("x").empty());
  EXPECT_EQ(service.Requests().back().Line(), "GET /drive/v3/files/x/parents HTTP/1.1");
}

TEST_F(PageTest, APageOfTheWrongShapeFailsTheListing) {
  const std::string deep(5000, '[');
  for (const std::string& body :
       Texts{"",
             "{",
             "nonsense",
             "[]",
             "null",
             "7",
             "{}",
             deep,
             R"({"files": 5})",
             R"({"files": {}})",
             R"({"files": null})",
             R"({"files": [7]})",
             R"({"files": ["text"]})",
             R"({"files": [[]]})",
             R"({"files": [{"name": "n", "mimeType": "t"}]})",
             R"({"files": [{"id": "i", "mimeType": "t"}]})",
             R"({"files": [{"id": "i", "name": "n"}]})",
             R"({"files": [{"id": {}, "name": "n", "mimeType": "t"}]})",
             R"({"files": [{"id": "i", "name": [], "mimeType": "t"}]})",
             R"({"files": [{"id": "i", "name": "n", "mimeType": "t", "size": {}}]})",
             R"({"files": [{"id": "i", "name": "n", "mimeType": "t", "parents": "f"}]})",
             R"({"files": [{"id": "i", "name": "n", "mimeType": "t", "parents": [{}]}]})",
             R"({"files": [{"id": "i", "name": "n", "mimeType": "t", "modifiedTime": []}]})",
             R"({"files": [], "nextPageToken": {}})"}) {
    ItemList list;
    EXPECT_EQ(List({body}, &list), AERROR::FAILED) << body.substr(0, 80);
    EXPECT_EQ(list.items.size(), 0u) << body.substr(0, 80);
    EXPECT_EQ(List({R"({"files": []})"}, &list), AERROR::SUCCESS);
  }
}

}  // namespace
