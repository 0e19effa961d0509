// Renaming, moving, making folders, deleting and setting times: what the service holds afterwards.
#include "tests/plugin/drive/drive_fixture.h"

namespace {

class NamespaceTest : public DriveTest {
 protected:
  static constexpr char kUpdate[] = "drive.files.update";
  static constexpr char kCreate[] = "drive.files.create";

  _FS_FILE_V2 Known(const std::string& id) {
    _FS_FILE_V2 record;
    EXPECT_EQ(Info(id, &record), AERROR::SUCCESS);
    if (!record.parents.empty()) record.parent_id = record.parents.front();
    return record;
  }
  std::string ParentOf(const std::string& id) { return service.Item(id)["parents"][0].asString(); }
  AERROR Make(const std::string& parent, _FS_FILE_V2* record) {
    return drive->CreateDirectory(parent.c_str(), record, nullptr);
  }
};

TEST_F(NamespaceTest, RenameRefreshesTheRecord) {
  const std::string id = service.Put("old.txt", "12345");
  auto record = Known(id);
  ASSERT_EQ(drive->Rename(id.c_str(), "neu \xc3\xa4\"\\.txt", &record, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(service.Item(id)["name"].asString(), "neu \xc3\xa4\"\\.txt");
  EXPECT_EQ(record.name, "neu \xc3\xa4\"\\.txt");
  EXPECT_EQ(record.size, 5);
  EXPECT_EQ(Query(kUpdate), "supportsTeamDrives=true");
  EXPECT_EQ(LastRequest(kUpdate).headers.at("content-type"), "application/json; charset=UTF-8");
}

TEST_F(NamespaceTest, MoveChangesTheParentAndNothingElse) {
  const std::string from = service.MakeFolder("from");
  const std::string to = service.MakeFolder("to");
  const std::string file = service.PutUnder(from, "a.txt", "x");
  const std::string folder = service.MakeFolder("from/inner");
  auto record = Known(file);
  EXPECT_EQ(drive->Move(file.c_str(), to.c_str(), &record, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(Query(kUpdate),
            "removeParents=" + from + "&addParents=" + to + "&supportsTeamDrives=true");
  EXPECT_EQ(Body(kUpdate)["name"].asString(), "a.txt");
  auto inner = Known(folder);
  EXPECT_EQ(drive->MoveDir(folder.c_str(), to.c_str(), &inner, nullptr), AERROR::SUCCESS);
  for (const auto& id : {file, folder}) {
    EXPECT_EQ(service.Item(id)["parents"].size(), 1u);
    EXPECT_EQ(ParentOf(id), to);
  }
}

TEST_F(NamespaceTest, ParentWorkWithoutParentsRestatesTheName) {
  const std::string id = service.Put("old.txt", "x");
  auto record = Record("new.txt", id);
  EXPECT_EQ(drive->DoParentWork(&record, nullptr, nullptr, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(Query(kUpdate), "supportsTeamDrives=true");
  EXPECT_EQ(service.Item(id)["name"].asString(), "new.txt");
  EXPECT_EQ(ParentOf(id), root);
}

TEST_F(NamespaceTest, VirtualFoldersAreLeftAlone) {
  const std::string id = service.Put("a.txt", "x");
  for (const char* name : {kVirtualRoot, kTeamDrives, kShared}) {
    auto record = Record("x", name);
    auto inside = Record("x", id);
    inside.parent_id = name;
    CachedFile cache("x");
    EXPECT_EQ(drive->Rename(name, "n", &record, nullptr), AERROR::ACCESS_DENIED);
    EXPECT_EQ(drive->Move(name, id.c_str(), &record, nullptr), AERROR::ACCESS_DENIED);
    EXPECT_EQ(drive->MoveDir(id.c_str(), name, &record, nullptr), AERROR::ACCESS_DENIED);
    EXPECT_EQ(drive->Move(id.c_str(), root.c_str(), &inside, nullptr), AERROR::ACCESS_DENIED);
    EXPECT_EQ(Make(name, &inside), AERROR::ACCESS_DENIED);
    EXPECT_EQ(drive->Delete(&record, nullptr), AERROR::ACCESS_DENIED);
    EXPECT_EQ(drive->SetFileTime(name, "", "", "t", &record, nullptr), AERROR::ACCESS_DENIED);
    EXPECT_EQ(Upload(name, &inside, &cache), AERROR::ACCESS_DENIED);
  }
  EXPECT_EQ(Requests(), 0);
}

TEST_F(NamespaceTest, ANewFolderIsMadeWhereItIsWanted) {
  const std::string parent = service.MakeFolder("parent");
  for (const std::string& where : {parent, std::string()}) {
    auto record = Record("folder");
    ASSERT_EQ(Make(where, &record), AERROR::SUCCESS);
    EXPECT_EQ(ParentOf(record.id), where.empty() ? root : where);
    EXPECT_EQ(record.attributes, 0x02u);
    EXPECT_EQ(service.Item(record.id)["mimeType"].asString(), kFolderMimeType);
    EXPECT_EQ(Names(record.id).size(), 0u);
  }
}

TEST_F(NamespaceTest, AFolderThatIsRefusedCannotBeMade) {
  auto record = Record("folder");
  for (const int status : {400, 404, 409, 412, 502, 503}) {
    service.FailNext(kCreate, status);
    EXPECT_EQ(Make(root, &record), AERROR::CAN_NOT_MAKE) << status;
  }
  for (const int status : {403, 429, 500}) {
    FailAlways(kCreate, status);
    EXPECT_EQ(Make(root, &record), AERROR::FAILED) << status;
  }
  EXPECT_EQ(clock.SleptSeconds(),
            (std::vector<long long>{1, 2, 4, 8, 16, 1, 2, 4, 8, 16, 1, 2, 4, 8, 16}));
  EXPECT_EQ(service.Children(root).size(), 0u);
  service.ExpireTokens();
  EXPECT_EQ(Make(root, &record), AERROR::SUCCESS);
}

TEST_F(NamespaceTest, AFolderWhoseAnswerIsLostIsNotMadeTwice) {
  Fault(kCreate, "applied-not-answered");
  auto record = Record("folder");
  EXPECT_EQ(Make(root, &record), AERROR::FAILED);
  EXPECT_EQ(service.ChildrenNamed(root, "folder").size(), 1u);
}

TEST_F(NamespaceTest, DeleteRemovesTheItem) {
  const std::string file = service.Put("folder/a.txt", "x");
  const std::string folder = *service.Find("folder");
  auto record = Known(file);
  EXPECT_EQ(drive->Delete(&record, nullptr), AERROR::SUCCESS);
  EXPECT_FALSE(service.Find("folder/a.txt"));
  auto outer = Known(folder);
  EXPECT_EQ(drive->DeleteDirectory(&outer, nullptr), AERROR::SUCCESS);
  EXPECT_FALSE(service.Find("folder"));
  EXPECT_EQ(drive->Delete(&record, nullptr), AERROR::FAILED);
}

TEST_F(NamespaceTest, AnItemOfTwoFoldersIsOnlyTakenOutOfOne) {
  const std::string a = service.MakeFolder("a");
  const std::string b = service.MakeFolder("b");
  const std::string id = service.PutUnder(a, "both.txt", "x");
  service.AddParent(id, b);
  auto record = Known(id);
  record.parent_id = a;
  EXPECT_EQ(drive->Delete(&record, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(Requests("drive.files.delete"), 0);
  EXPECT_EQ(service.Children(a).size(), 0u);
  EXPECT_EQ(service.Children(b), std::vector<std::string>{id});
}

TEST_F(NamespaceTest, TimesAreSetAsFarAsTheyAreGiven) {
  const std::string id = service.Put("a.txt", "123");
  const std::string created = service.Item(id)["createdTime"].asString();
  const std::string modified = "2015-03-04T05:06:07.000Z";
  auto record = Record("x");
  ASSERT_EQ(
      drive->SetFileTime(id.c_str(), "", "2001-01-01T00:00:00.000Z", modified, &record, nullptr),
      AERROR::SUCCESS);
  EXPECT_EQ(Body(kUpdate).getMemberNames(), std::vector<std::string>{"modifiedTime"});
  EXPECT_EQ(service.Item(id)["modifiedTime"].asString(), modified);
  EXPECT_EQ(service.Item(id)["createdTime"].asString(), created);
  EXPECT_EQ(record.time3, modified);
  EXPECT_EQ(record.name, "a.txt");
  EXPECT_EQ(drive->SetFileTime(id.c_str(), "2014-03-04T05:06:07.000Z", "", "", &record, nullptr),
            AERROR::SUCCESS);
  EXPECT_EQ(service.Item(id)["createdTime"].asString(), "2014-03-04T05:06:07.000Z");
  EXPECT_NE(Query(kUpdate).find("setModifiedDate=true&supportsTeamDrives=true"), std::string::npos);
}

TEST_F(NamespaceTest, NoTimesAreAnEmptyDocument) {
  const std::string id = service.Put("a.txt", "123");
  auto record = Record("x");
  EXPECT_EQ(drive->SetFileTime(id.c_str(), "", "", "", &record, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(LastRequest(kUpdate).requestBody, "null");
  EXPECT_EQ(record.id, id);
}

TEST_F(NamespaceTest, ARedirectedChangeKeepsItsBody) {
  for (const int status : {301, 302, 303, 307, 308}) {
    const std::string id = service.Put("old.txt", "x");
    emulator::Fault fault;
    fault.method = kUpdate;
    fault.kind = "redirect";
    fault.status = status;
    fault.location = service.ApiUrl() + "/drive/v3/files/" + id + "?supportsTeamDrives=true";
    service.Inject(fault);
    auto record = Record("x");
    EXPECT_EQ(drive->Rename(id.c_str(), "new.txt", &record, nullptr), AERROR::SUCCESS) << status;
    EXPECT_EQ(record.name, "new.txt") << status;
    service.Remove(id);
  }
}

}  // namespace
