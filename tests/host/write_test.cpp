// put, mkdir, mv, rm, touch, watch
#include <signal.h>

#include "tests/host/drive_fixture.h"

namespace host_test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Writes : public DriveFixture {
 protected:
  std::string Local(const std::string& name, const std::string& content) const {
    WriteFile(Home() / name, content);
    return (Home() / name).string();
  }
  std::vector<std::string> Names(const std::string& folderId) const {
    std::vector<std::string> names;
    for (const std::string& id : drive.Children(folderId))
      names.push_back(drive.Item(id)["name"].asString());
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(Writes, WhatIsPutComesBackAsItWas) {
  constexpr size_t kBlock = 524288;
  for (const size_t size :
       {size_t{0}, size_t{1}, kBlock - 1, kBlock, kBlock + 1, size_t{64} << 20}) {
    const std::string content = Bytes(size, static_cast<uint32_t>(size) + 7);
    Output({"put", Local("source", content), "/My Drive/file.bin"});
    const auto stored = drive.Content(*drive.Find("file.bin"));
    ASSERT_TRUE(stored && *stored == content) << size;
    Output({"get", "/My Drive/file.bin", (Home() / "back").string()});
    ASSERT_TRUE(ReadFile(Home() / "back") == content) << size;
  }
  EXPECT_THAT(drive.ChildrenNamed(drive.RootId(), "file.bin"), SizeIs(1)) << "replaced, not added";
}

TEST_F(Writes, PutIntoAFolderKeepsTheNameAndReplacesKeepTheId) {
  const std::string folder = drive.MakeFolder("in");
  const std::string id = drive.Put("in/note.txt", "old");
  Output({"put", Local("note.txt", "new"), "/My Drive/in"});
  EXPECT_EQ(drive.Content(id), "new");
  EXPECT_EQ(Run({"put", "-", "/My Drive/in/from-pipe"}, "piped").exitCode, 0);
  EXPECT_EQ(drive.Content(*drive.Find("in/from-pipe")), "piped");
  EXPECT_THAT(Names(folder), ElementsAre("from-pipe", "note.txt"));
}

TEST_F(Writes, WhatCannotBePutChangesNothing) {
  drive.MakeFolder("folder");
  drive.PutUnder(drive.RootId(), "Plan", "", "application/vnd.google-apps.document");
  const std::string file = Local("f", "x");
  Complaint({"put", "/no/such/file", "/My Drive/x"});
  Complaint({"put", Home().string(), "/My Drive/x"});
  Complaint({"put", file, "/My Drive/no such folder/x"});
  Complaint({"put", file, "/My Drive/Plan.Google Docs.webloc"});
  Complaint({"put", file, "/Shared with me/x"});
  Complaint({"put", "-", "/My Drive/folder"});
  EXPECT_THAT(Names(drive.RootId()), ElementsAre("Plan", "folder"));
}

TEST_F(Writes, AnUploadThatTheServiceRefusesIsAFailure) {
  const std::string file = Local("f", Bytes(300000));
  drive.FailNext("drive.upload.start", 400);
  EXPECT_THAT(Complaint({"put", file, "/My Drive/f"}), HasSubstr("/My Drive/f"));
  drive.FailNext("drive.upload.content", 400);
  EXPECT_THAT(Complaint({"put", file, "/My Drive/f"}), HasSubstr("HTTP 400"));
  EXPECT_TRUE(drive.PendingFaults().empty());
  EXPECT_THAT(Names(drive.RootId()), IsEmpty());
}

TEST_F(Writes, AnUploadIsDoneOnlyWhenTheServiceHoldsEveryByte) {
  emulator::Fault slow;
  slow.method = "drive.upload.content";
  slow.kind = "delay";
  slow.delay = std::chrono::seconds(2);
  drive.Inject(slow);
  const auto process = Start({"put", Local("f", Bytes(300000)), "/My Drive/f"});
  while (drive.Count("drive.upload.content") == 0 && process->IsRunning()) usleep(1000);
  emulator::Fault shorter;  // the record that is read back tells another size
  shorter.method = "drive.files.get";
  shorter.kind = "garbage";
  shorter.body = R"({"id":"x","name":"f","mimeType":"text/plain","modifiedTime":)"
                 R"("2024-01-01T00:00:00.000Z","size":"299999","parents":["p"]})";
  drive.Inject(shorter);
  EXPECT_THAT(ComplaintOf(process->Finish()), HasSubstr("299999 of 300000"));
}

TEST_F(Writes, AnInterruptedUploadLeavesNothingOnTheDrive) {
  drive.SetBandwidth(4 << 20);
  const std::string file = Local("f", Bytes(32 << 20));
  const auto process = Start({"put", file, "/My Drive/f"});
  while (drive.Count("drive.upload.content") == 0 && process->IsRunning()) usleep(1000);
  process->Signal(SIGINT);
  EXPECT_THAT(ComplaintOf(process->Finish()), HasSubstr("was stopped"));
  EXPECT_THAT(Names(drive.RootId()), IsEmpty());
}

TEST_F(Writes, FoldersAreMadeOnceAndWithTheirParents) {
  Output({"mkdir", "/My Drive/a"});
  EXPECT_THAT(Complaint({"mkdir", "/My Drive/a"}), HasSubstr("exists"));
  Complaint({"mkdir", "/My Drive/x/y"});
  Output({"mkdir", "-p", "/My Drive/a/b/c", "/My Drive/a/b/c"});
  EXPECT_TRUE(drive.Find("a/b/c"));
  EXPECT_THAT(Names(drive.RootId()), ElementsAre("a"));
  drive.Put("file", "x");
  Complaint({"mkdir", "-p", "/My Drive/file/d"});
  Complaint({"mkdir", "/Shared with me/d"});
}

TEST_F(Writes, MovingAndRenamingKeepTheItem) {
  const std::string id = drive.Put("a.txt", "x");
  const std::string folder = drive.MakeFolder("folder/inner");
  Output({"mv", "/My Drive/a.txt", "/My Drive/b.txt"});
  EXPECT_EQ(drive.Find("b.txt"), id);
  Output({"mv", "/My Drive/b.txt", "/My Drive/folder"});
  EXPECT_EQ(drive.Find("folder/b.txt"), id);
  Output({"mv", "/My Drive/folder/b.txt", "/My Drive/folder/inner/c.txt"});
  EXPECT_EQ(drive.Find("folder/inner/c.txt"), id);
  EXPECT_EQ(drive.Item(id)["parents"].size(), 1u);
  Output({"mv", "/My Drive/folder/inner", "/My Drive/top"});
  EXPECT_EQ(drive.Find("top"), folder);
  EXPECT_EQ(drive.Find("top/c.txt"), id);
}

TEST_F(Writes, AMoveNeverHidesAnotherItem) {
  drive.Put("a", "1");
  drive.Put("b", "2");
  drive.Put("folder/a", "3");
  EXPECT_THAT(Complaint({"mv", "/My Drive/a", "/My Drive/b"}), HasSubstr("exists"));
  EXPECT_THAT(Complaint({"mv", "/My Drive/a", "/My Drive/folder"}), HasSubstr("exists"));
  Complaint({"mv", "/My Drive/a", "/Shared with me"});
  Complaint({"mv", "/Team Drives", "/My Drive/x"});
  EXPECT_THAT(Names(drive.RootId()), ElementsAre("a", "b", "folder"));
}

TEST_F(Writes, ADocumentKeepsItsOwnNameWhenMoved) {
  const std::string id =
      drive.PutUnder(drive.RootId(), "Plan", "", "application/vnd.google-apps.document");
  drive.MakeFolder("folder");
  Output({"mv", "/My Drive/Plan.Google Docs.webloc", "/My Drive/folder"});
  EXPECT_EQ(drive.Item(id)["name"], "Plan");
  Output({"mv", "/My Drive/folder/Plan.Google Docs.webloc",
          "/My Drive/folder/Budget.Google Docs.webloc"});
  EXPECT_EQ(drive.Item(id)["name"], "Budget");
}

TEST_F(Writes, RemovingNeedsAWordForFolders) {
  drive.Put("folder/inner/a", "x");
  drive.Put("b", "x");
  EXPECT_THAT(Complaint({"rm", "/My Drive/folder"}), HasSubstr("-r"));
  Output({"rm", "/My Drive/b"});
  Output({"rm", "-r", "/My Drive/folder"});
  EXPECT_THAT(Names(drive.RootId()), IsEmpty());
  Complaint({"rm", "-r", "/Team Drives"});
}

TEST_F(Writes, AnItemInTwoFoldersIsRemovedFromOneOnly) {
  const std::string id = drive.Put("one/a", "x");
  drive.AddParent(id, drive.MakeFolder("two"));
  Output({"rm", "/My Drive/two/a"});
  EXPECT_EQ(drive.Find("one/a"), id);
  EXPECT_FALSE(drive.Find("two/a"));
}

TEST_F(Writes, TouchSetsTheTimeAndMakesWhatIsMissing) {
  const std::string id = drive.Put("a", "content");
  Output({"touch", "-d", "2020-02-29T12:30:15.250Z", "/My Drive/a"});
  EXPECT_EQ(drive.Item(id)["modifiedTime"], "2020-02-29T12:30:15.250Z");
  EXPECT_EQ(drive.Content(id), "content");
  Output({"touch", "-d", "@0", "/My Drive/new"});
  EXPECT_EQ(drive.Item(*drive.Find("new"))["modifiedTime"], "1970-01-01T00:00:00.000Z");
  EXPECT_THAT(Complaint({"touch", "-d", "soon", "/My Drive/a"}), HasSubstr("soon"));
}

class Watching : public Writes {
 protected:
  /// The folders that a finished watch has named.
  static std::vector<std::string> Folders(const Outcome& outcome) {
    std::vector<std::string> folders;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);)
      folders.push_back(host::ParseJson(line).value_or(Json::Value())["folder"].asString());
    return folders;
  }
  void UsePush() {
    Output({"profile", "set", "push_server_url=" + drive.PushUrl(),
            "api_server_url=" + drive.PushApiUrl(), "user_token=" + drive.PushUserToken(),
            "drive_id=d", "device_id=v"});
  }
};

TEST_F(Watching, EachPollTellsWhatChangedSinceTheLast) {
  const std::string folder = drive.MakeFolder("outer/in\u00fcner");
  EXPECT_THAT(Folders(Run({"watch", "--once", "--json"})), IsEmpty()) << "the cursor starts now";
  drive.PutUnder(folder, "a", "x");
  drive.PutUnder(drive.MakeTeamDrive("Team"), "b", "x");
  const auto folders = Folders(Run({"watch", "--once", "--json"}));
  EXPECT_THAT(folders, testing::Contains("/My Drive/outer/in\u00fcner"));
  EXPECT_THAT(Folders(Run({"watch", "--once", "--json"})), IsEmpty());
}

TEST_F(Watching, APushedChangeIsShownWithoutAPoll) {
  const std::string folder = drive.MakeFolder("folder");
  UsePush();
  const auto process = Start({"watch", "--interval", "3600", "--count", "1", "--json"});
  while ((drive.PushConnections() == 0 || drive.OpenChannels() == 0) && process->IsRunning())
    usleep(1000);
  drive.PutUnder(folder, "a", "x");
  const Outcome outcome = process->Finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_THAT(Folders(outcome), ElementsAre("/My Drive/folder"));
  EXPECT_EQ(drive.OpenChannels(), 0) << "the channel was not stopped at the end";
}

TEST_F(Watching, APushServiceThatRefusesLeavesPolling) {
  const std::string folder = drive.MakeFolder("folder");
  UsePush();
  Output({"profile", "set", "user_token=wrong"});
  const auto process = Start({"watch", "--interval", "1", "--count", "1", "--json"});
  while (drive.Count("drive.changes.getStartPageToken") == 0 && process->IsRunning()) usleep(1000);
  drive.PutUnder(folder, "a", "x");
  EXPECT_THAT(Folders(process->Finish()), ElementsAre("/My Drive/folder"));
}

TEST_F(Watching, EndsInOrderWhenInterrupted) {
  UsePush();
  const auto process = Start({"watch", "--interval", "3600"});
  while (drive.OpenChannels() == 0 && process->IsRunning()) usleep(1000);
  process->Signal(SIGINT);
  EXPECT_EQ(process->Finish().exitCode, 0);
  EXPECT_EQ(drive.OpenChannels(), 0);
}

}  // namespace
}  // namespace host_test
