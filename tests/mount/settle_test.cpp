// What programs do reaches the service once, whatever happens to the requests, and what others do
// there is never overwritten.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <thread>

#include "tests/mount/drive_fixture.h"

namespace host::mount {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

std::span<const char> Bytes(std::string_view text) { return {text.data(), text.size()}; }

class Settle : public DriveFixture {
 protected:
  Settle() { Start(); }

  void Fault(const std::string& method, const std::string& kind, int times = 1) {
    emulator::Fault fault;
    fault.method = method;
    fault.kind = kind;
    fault.times = times;
    service.Inject(fault);
  }

  /// From now on nothing is tried by itself, or again, before somebody asks for it.
  void Hesitate(Milliseconds settle = QuickSettings().settle) {
    Settings slow = QuickSettings();
    slow.settle = settle;
    slow.uploadDelay = slow.retryFirst = slow.retryLast = Milliseconds(3'600'000);
    Stop();
    Start(slow);
  }

  /// What others do while the network is away is not known here until something is sent.
  void CutNetwork() { Fault("*", "reset-before", 1'000'000); }
  void RestoreNetwork() { service.ClearFaults(); }
};

TEST_F(Settle, BringsATreeToTheService) {
  ASSERT_EQ(MakeFolder("a"), 0);
  ASSERT_EQ(MakeFolder("a/b"), 0);
  ASSERT_EQ(Write("a/b/c.txt", "content"), 0);
  ASSERT_EQ(Write("a/empty", ""), 0);
  Drain();
  EXPECT_EQ(AtService("a/b/c.txt"), "content");
  EXPECT_EQ(AtService("a/empty"), "");
  EXPECT_EQ(drive->queue.Pending(), 0);
}

TEST_F(Settle, NeverTellsTheServiceWhatIsGoneAgain) {
  Settings slow = QuickSettings();
  slow.uploadDelay = Milliseconds(2000);
  Stop();
  Start(slow);
  service.ClearJournal();
  ASSERT_EQ(MakeFolder("scratch"), 0);
  ASSERT_EQ(Write("scratch/lock", "1"), 0);
  ASSERT_EQ(Rename("scratch/lock", "scratch/config"), 0);
  ASSERT_EQ(Remove("scratch/config"), 0);
  ASSERT_EQ(RemoveFolder("scratch"), 0);
  Drain();
  EXPECT_EQ(service.Count("drive.files.create") + service.Count("drive.upload.start") +
                service.Count("drive.files.delete"),
            0);
}

// Every request that changes something, each with an answer that is lost after the change was made
// and with one that is lost before it.
class LostAnswer : public Settle,
                   public ::testing::WithParamInterface<std::tuple<const char*, const char*>> {};

TEST_P(LostAnswer, LeavesOneCopyOfEverything) {
  ASSERT_EQ(Write("old.txt", "one"), 0);
  ASSERT_EQ(Write("gone.txt", "bye"), 0);
  ASSERT_EQ(MakeFolder("from"), 0);
  ASSERT_EQ(Write("from/moved.txt", "moved"), 0);
  Drain();
  const std::optional<std::string> id = service.Find("old.txt");
  const auto [method, kind] = GetParam();
  Fault(method, kind, 2);
  ASSERT_EQ(Write("old.txt", "two"), 0);
  ASSERT_EQ(Write("new.txt", "new"), 0);
  ASSERT_EQ(MakeFolder("into"), 0);
  ASSERT_EQ(Rename("from/moved.txt", "into/moved2.txt"), 0);
  ASSERT_EQ(Remove("gone.txt"), 0);
  ASSERT_EQ(drive->files.SetTime(Find("new.txt"), 1'709'200'800'000'000'000), 0);
  Drain();
  EXPECT_EQ(AtService("old.txt"), "two");
  EXPECT_EQ(service.Find("old.txt"), id);
  EXPECT_EQ(AtService("into/moved2.txt"), "moved");
  EXPECT_THAT(NamesAtService(), ElementsAre("from", "into", "new.txt", "old.txt"));
  EXPECT_TRUE(NamesAtService("from").empty());
  EXPECT_EQ(service.Item(*service.Find("new.txt"))["modifiedTime"].asString(),
            "2024-02-29T10:00:00.000Z");
  EXPECT_THAT(Names(), ElementsAre("from", "into", "new.txt", "old.txt"));
}

INSTANTIATE_TEST_SUITE_P(
    Requests, LostAnswer,
    ::testing::Combine(
        ::testing::Values("drive.upload.start", "drive.upload.content", "drive.files.create",
                          "drive.files.update", "drive.files.delete", "drive.files.get",
                          "drive.files.list"),
        ::testing::Values("applied-not-answered", "reset-before", "garbage", "truncate")));

TEST_F(Settle, KeepsARemoteEditBesideALocalOne) {
  ASSERT_EQ(Write("report.txt", "base"), 0);
  Drain();
  const std::string id = *service.Find("report.txt");
  CutNetwork();
  service.Write(id, "theirs");
  ASSERT_EQ(Write("report.txt", "mine, which is longer"), 0);
  RestoreNetwork();
  Drain();
  EXPECT_EQ(service.Content(id), "theirs");
  const std::vector<std::string> names = NamesAtService();
  ASSERT_EQ(names.size(), 2u);
  EXPECT_THAT(names[0], HasSubstr("report (conflict "));
  EXPECT_EQ(AtService(names[0]), "mine, which is longer");
  EXPECT_EQ(Read("report.txt"), "theirs");
  EXPECT_EQ(Read(names[0]), "mine, which is longer");
  std::lock_guard lock(drive->state.mutex);
  ASSERT_EQ(drive->state.Events().size(), 1u);
  EXPECT_THAT(drive->state.Events()[0].text, HasSubstr("changed elsewhere too"));
}

TEST_F(Settle, GivesTheIdOfAReplacedFileToItsSuccessor) {
  Settings slow = QuickSettings();
  slow.uploadDelay = Milliseconds(2000);  // nothing is just being sent
  Stop();
  Start(slow);
  ASSERT_EQ(Write("doc.odt", "first"), 0);
  Drain();
  const std::string id = *service.Find("doc.odt");
  for (const bool uploadedBefore : {false, true}) {
    ASSERT_EQ(Write("doc.odt~new", "second"), 0);
    if (uploadedBefore) Drain();
    ASSERT_EQ(Rename("doc.odt~new", "doc.odt"), 0);
    Drain();
    EXPECT_EQ(service.Find("doc.odt"), id);
    EXPECT_EQ(AtService("doc.odt"), "second");
    EXPECT_THAT(NamesAtService(), ElementsAre("doc.odt"));
  }
}

TEST_F(Settle, SetsNoTimeOnceAFileWasReplaced) {
  ASSERT_EQ(Write("a.txt", "old"), 0);
  ASSERT_EQ(Write("b.txt", "new"), 0);
  Drain();
  emulator::Fault slow;
  slow.method = "drive.files.get";
  slow.kind = "delay";
  slow.delay = std::chrono::milliseconds(300);
  service.Inject(slow);
  const int64_t before = drive->remote.Counted().requests;
  ASSERT_EQ(drive->files.SetTime(Find("a.txt"), 1'000'000'000), 0);
  while (drive->remote.Counted().requests == before) std::this_thread::yield();
  ASSERT_EQ(Rename("b.txt", "a.txt"), 0);  // while the service is asked for the file's version
  Drain();
  EXPECT_EQ(AtService("a.txt"), "new");
  EXPECT_THAT(NamesAtService(), ElementsAre("a.txt"));
}

TEST_F(Settle, RemakesWhatOthersDeletedUnderALocalEdit) {
  ASSERT_EQ(MakeFolder("shared"), 0);
  ASSERT_EQ(Write("shared/a.txt", "one"), 0);
  ASSERT_EQ(Write("trashed.txt", "one"), 0);
  Drain();
  CutNetwork();
  service.Remove(*service.Find("shared"));
  service.Trash(*service.Find("trashed.txt"));
  ASSERT_EQ(Write("shared/a.txt", "two"), 0);
  ASSERT_EQ(Write("trashed.txt", "two"), 0);
  RestoreNetwork();
  Refresh();
  Drain();
  EXPECT_EQ(AtService("shared/a.txt"), "two");
  EXPECT_EQ(AtService("trashed.txt"), "two");
}

TEST_F(Settle, DoesNotDeleteWhatOthersPutIntoAFolder) {
  ASSERT_EQ(MakeFolder("box"), 0);
  Drain();
  CutNetwork();
  service.Put("box/theirs.txt", "precious");
  ASSERT_EQ(RemoveFolder("box"), 0);
  RestoreNetwork();
  Drain();
  EXPECT_EQ(AtService("box/theirs.txt"), "precious");
  EXPECT_EQ(Read("box/theirs.txt"), "precious");
}

TEST_F(Settle, DeletesOnlyTheVersionThatWasKnownHere) {
  for (const char* name : {"deleted.txt", "replaced.txt", "source.txt"})
    ASSERT_EQ(Write(name, "base of " + std::string(name)), 0);
  Drain();
  CutNetwork();
  for (const char* name : {"deleted.txt", "replaced.txt", "source.txt"})
    service.Write(*service.Find(name), "theirs of " + std::string(name));
  ASSERT_EQ(Remove("deleted.txt"), 0);
  ASSERT_EQ(Rename("source.txt", "replaced.txt"), 0);
  RestoreNetwork();
  Drain();
  EXPECT_EQ(AtService("deleted.txt"), "theirs of deleted.txt");
  EXPECT_EQ(AtService("replaced.txt"), "theirs of replaced.txt");
  EXPECT_EQ(AtService("source.txt"), "theirs of source.txt");
  const std::vector<std::string> names = NamesAtService();
  ASSERT_EQ(names.size(), 4u);
  EXPECT_EQ(AtService(names[1]), "base of source.txt") << names[1];
  Refresh();
  EXPECT_EQ(Names(), names);
}

TEST_F(Settle, PutsNothingIntoAFolderThatIsInTheTrash) {
  ASSERT_EQ(MakeFolder("dir"), 0);
  ASSERT_EQ(Write("dir/known.txt", "one"), 0);
  Drain();
  CutNetwork();
  ASSERT_EQ(Write("dir/known.txt", "two"), 0);
  ASSERT_EQ(Write("dir/new.txt", "new"), 0);
  service.Trash(*service.Find("dir"));
  EXPECT_FALSE(drive->queue.Drain(Milliseconds(200)));
  RestoreNetwork();
  Drain();
  EXPECT_EQ(AtService("dir/known.txt"), "two");
  EXPECT_EQ(AtService("dir/new.txt"), "new");
}

// No listing, no failure and no report has told of it.
TEST_F(Settle, LooksAgainWhetherAFolderStandsAfterAWhile) {
  Settings forgetful = QuickSettings();
  forgetful.standingAge = Milliseconds(0);
  Stop();
  Start(forgetful);
  ASSERT_EQ(MakeFolder("dir"), 0);
  Drain();
  service.Trash(*service.Find("dir"));
  ASSERT_EQ(Write("dir/new.txt", "new"), 0);
  Drain();
  EXPECT_EQ(AtService("dir/new.txt"), "new");
}

TEST_F(Settle, FollowsAMoveUnderALocalEdit) {
  service.Put("from/a.txt", "one");
  service.Put("to/keep", "");
  ASSERT_EQ(Read("from/a.txt"), "one");
  ASSERT_EQ(Names("to").size(), 1u);
  service.Move(*service.Find("from/a.txt"), *service.Find("to"));
  ASSERT_EQ(Write("from/a.txt", "two"), 0);
  Refresh("from");
  Drain();
  EXPECT_EQ(AtService("to/a.txt"), "two");
  EXPECT_THAT(NamesAtService("from"), ElementsAre());
  EXPECT_EQ(Read("to/a.txt"), "two");
}

TEST_F(Settle, FollowsAMoveIntoAFolderThatWasMovedToo) {
  service.Put("a/dir/keep", "");
  service.Put("b/f.txt", "old");
  service.Put("g.txt", "old");
  service.Put("side/keep", "");
  ASSERT_EQ(Read("b/f.txt"), "old");
  ASSERT_EQ(Read("g.txt"), "old");
  ASSERT_EQ(Read("a/dir/keep"), "");
  CutNetwork();
  ASSERT_EQ(Write("b/f.txt", "new"), 0);
  ASSERT_EQ(Write("g.txt", "new"), 0);
  service.Move(*service.Find("b/f.txt"), *service.Find("a/dir"));
  service.Move(*service.Find("a/dir"), service.RootId());
  service.Move(*service.Find("g.txt"), *service.Find("side"));
  service.Move(*service.Find("side"), *service.Find("b"));
  RestoreNetwork();
  Drain();
  EXPECT_EQ(AtService("dir/f.txt"), "new");
  EXPECT_EQ(AtService("b/side/g.txt"), "new");
  EXPECT_THAT(NamesAtService("b"), ElementsAre("side"));
  EXPECT_THAT(NamesAtService(), ElementsAre("a", "b", "dir"));
}

TEST_F(Settle, FollowsAMoveOutOfAFolderThatIsGoneIntoOneNeverSeen) {
  service.Put("box/inner/keep", "");
  service.Put("box/deeper/inner/keep", "");
  ASSERT_EQ(Read("box/inner/keep"), "");
  ASSERT_EQ(Read("box/deeper/inner/keep"), "");
  CutNetwork();
  ASSERT_EQ(Write("box/inner/new.txt", "new"), 0);
  ASSERT_EQ(Write("box/deeper/inner/keep", "edited"), 0);
  service.Put("unseen/one/f", "");
  service.Put("unseen/two/f", "");
  service.Move(*service.Find("box/inner"), *service.Find("unseen/one"));
  service.Move(*service.Find("box/deeper"), *service.Find("unseen/two"));
  service.Remove(*service.Find("box"));
  RestoreNetwork();
  Refresh();
  Drain();
  EXPECT_EQ(AtService("unseen/one/inner/new.txt"), "new");
  EXPECT_EQ(AtService("unseen/two/deeper/inner/keep"), "edited");
  EXPECT_THAT(NamesAtService(), ElementsAre("unseen"));
  EXPECT_EQ(Read("unseen/two/deeper/inner/keep"), "edited");
}

// The folder was listed still; then the service was away.
TEST_F(Settle, TakesNothingForGoneThatItCannotAskAbout) {
  ASSERT_EQ(MakeFolder("to"), 0);
  ASSERT_EQ(MakeFolder("from"), 0);
  ASSERT_EQ(Write("from/f.txt", "old"), 0);
  Drain();
  Hesitate();
  ASSERT_EQ(Write("from/f.txt", "new"), 0);
  service.Move(*service.Find("from/f.txt"), *service.Find("to"));
  Fault("drive.files.get", "garbage", 1'000'000);
  EXPECT_EQ(drive->folders.RefreshNow(Find("from")), EIO);
  EXPECT_EQ(Read("from/f.txt"), "new");
  RestoreNetwork();
  Drain();
  EXPECT_EQ(AtService("to/f.txt"), "new");
  EXPECT_THAT(NamesAtService("from"), ElementsAre());
}

// Between the request and its answer a listing shows the item in a folder that it was not known in.
TEST_F(Settle, DeletesForGoodWhatItHasJustMoved) {
  ASSERT_EQ(MakeFolder("from"), 0);
  ASSERT_EQ(MakeFolder("into"), 0);
  ASSERT_EQ(Write("from/f.txt", "bye"), 0);
  Drain();
  Fault("drive.files.get", "garbage", 1'000'000);
  ASSERT_EQ(Rename("from/f.txt", "into/f.txt"), 0);
  while (AtService("into/f.txt") != "bye") std::this_thread::yield();
  ASSERT_EQ(drive->folders.RefreshNow(Find("into")), 0);
  ASSERT_EQ(Remove("into/f.txt"), 0);
  RestoreNetwork();
  Drain();
  EXPECT_THAT(NamesAtService("into"), ElementsAre());
  EXPECT_THAT(NamesAtService("from"), ElementsAre());
}

// The same for a new name, and a program that has gone back to the old one meanwhile.
TEST_F(Settle, TakesNoRenameOfItsOwnForOneOfOthers) {
  ASSERT_EQ(Write("a.txt", "text"), 0);
  Drain();
  Fault("drive.files.get", "garbage", 1'000'000);
  ASSERT_EQ(Rename("a.txt", "b.txt"), 0);
  while (AtService("b.txt") != "text") std::this_thread::yield();
  ASSERT_EQ(Rename("b.txt", "a.txt"), 0);
  ASSERT_EQ(drive->folders.RefreshNow(Find("")), 0);
  RestoreNetwork();
  Drain();
  EXPECT_THAT(NamesAtService(), ElementsAre("a.txt"));
  EXPECT_THAT(Names(), ElementsAre("a.txt"));
}

TEST_F(Settle, SendsNothingButWholeCommits) {
  const auto [folder, name] = Place("log.txt");
  Item item;
  std::unique_ptr<OpenFile> file;
  ASSERT_EQ(drive->files.Create(folder, name, O_CREAT | O_WRONLY, item, file), 0);
  ASSERT_EQ(drive->files.Write(*file, Bytes("first"), 0), 5);
  Read("log.txt");
  Drain();
  EXPECT_EQ(AtService("log.txt"), "(none)");  // closed by a reader only
  ASSERT_EQ(drive->files.Fsync(*file), 0);
  Drain();
  EXPECT_EQ(AtService("log.txt"), "first");
  ASSERT_EQ(drive->files.Write(*file, Bytes("FIRST"), 0), 5);
  Drain();
  EXPECT_EQ(AtService("log.txt"), "first");
  drive->files.Release(std::move(file));
  Drain();
  EXPECT_EQ(AtService("log.txt"), "FIRST");
}

// What the service has in it is this host's, and on its way out.
TEST_F(Settle, DeletesAFolderAfterWhatMayHaveComeIntoIt) {
  ASSERT_EQ(MakeFolder("made"), 0);
  ASSERT_EQ(MakeFolder("moved"), 0);
  ASSERT_EQ(Write("moving.txt", "m"), 0);
  Drain();
  Hesitate(Milliseconds(1100));  // the times that waits are counted from are whole seconds
  Fault("drive.upload.content", "applied-not-answered", 100);
  ASSERT_EQ(Write("made/new.txt", "n"), 0);
  ASSERT_NE(Refusal("made/new.txt"), "(it was sent)");
  ASSERT_EQ(Rename("moving.txt", "moved/there.txt"), 0);
  Fault("drive.files.update", "applied-not-answered", 100);
  Fault("drive.files.get", "reset-before", 100);
  ASSERT_NE(Refusal("moved/there.txt"), "(it was sent)");
  RestoreNetwork();
  ASSERT_EQ(AtService("moved/there.txt") + AtService("made/new.txt"), "mn");
  ASSERT_EQ(Remove("made/new.txt"), 0);
  ASSERT_EQ(RemoveFolder("made"), 0);
  ASSERT_EQ(Rename("moved/there.txt", "back.txt"), 0);
  ASSERT_EQ(RemoveFolder("moved"), 0);
  Drain();
  EXPECT_THAT(NamesAtService(), ElementsAre("back.txt"));
  EXPECT_THAT(Names(), ElementsAre("back.txt"));
}

// Listings show it where this host has put it, and no longer where it was: nobody else's doing.
TEST_F(Settle, TakesItsOwnMoveWithoutAnAnswerForNobodyElses) {
  for (const char* const folder : {"from", "to", "on"}) ASSERT_EQ(MakeFolder(folder), 0);
  for (const char* const name : {"from/a.txt", "from/b.txt", "from/c.txt"})
    ASSERT_EQ(Write(name, "old"), 0);
  Drain();
  Hesitate();
  ASSERT_EQ(Rename("from/a.txt", "to/a.txt"), 0);
  ASSERT_EQ(Rename("from/b.txt", "to/b.txt"), 0);
  ASSERT_EQ(Rename("from/c.txt", "to/c.txt"), 0);
  Fault("drive.files.update", "applied-not-answered", 1000);
  Fault("drive.files.get", "reset-before", 1000);
  for (const char* const name : {"to/a.txt", "to/b.txt", "to/c.txt"})
    ASSERT_NE(Refusal(name), "(it was sent)");
  RestoreNetwork();
  ASSERT_THAT(NamesAtService("to"), ElementsAre("a.txt", "b.txt", "c.txt"));
  ASSERT_EQ(Rename("to/a.txt", "from/a.txt"), 0);
  ASSERT_EQ(Rename("to/b.txt", "on/b.txt"), 0);
  ASSERT_EQ(Write("to/c.txt", "new"), 0);
  for (const char* const folder : {"to", "from", "on"}) Refresh(folder);
  Drain();
  for (const auto& [folder, name] :
       {std::pair{"from", "a.txt"}, {"on", "b.txt"}, {"to", "c.txt"}}) {
    EXPECT_THAT(NamesAtService(folder), ElementsAre(name));
    EXPECT_THAT(Names(folder), ElementsAre(name));
  }
  EXPECT_EQ(AtService("to/c.txt"), "new");
}

TEST_F(Settle, ReplacesAFileWhoseCreationWasNotAnswered) {
  Hesitate();
  Fault("drive.upload.content", "applied-not-answered", 100);
  ASSERT_EQ(Write("a.txt", "old"), 0);
  ASSERT_NE(Refusal("a.txt"), "(it was sent)");
  RestoreNetwork();
  ASSERT_EQ(Write("b.txt", "new"), 0);
  ASSERT_EQ(Rename("b.txt", "a.txt"), 0);
  Drain();
  EXPECT_EQ(AtService("a.txt"), "new");
  EXPECT_THAT(NamesAtService(), ElementsAre("a.txt"));
}

TEST_F(Settle, UploadsAgainWhenTheFileChangesMeanwhile) {
  service.SetBandwidth(20 << 20);
  const std::string before(8 << 20, 'a');
  const std::string after(8 << 20, 'b');
  ASSERT_EQ(Write("big", before), 0);
  while (drive->queue.Transfers().empty() && drive->queue.Pending() > 0) std::this_thread::yield();
  const Inode ino = Find("big");
  std::unique_ptr<OpenFile> file;
  ASSERT_EQ(drive->files.Open(ino, O_WRONLY, file), 0);
  ASSERT_EQ(drive->files.Write(*file, after, 0), static_cast<ssize_t>(after.size()));
  drive->files.Release(std::move(file));
  service.SetBandwidth(0);
  Drain();
  EXPECT_TRUE(AtService("big") == after);
  EXPECT_THAT(NamesAtService(), ElementsAre("big"));
}

TEST_F(Settle, ShowsTheSizeOfACommitThatCameMeanwhile) {
  ASSERT_EQ(Write("a.txt", "one"), 0);
  Item item;
  ASSERT_EQ(drive->tree.Get(Find("a.txt"), item), 0);
  ASSERT_EQ(Write("a.txt", "longer"), 0);
  drive->files.Overlay(item);
  EXPECT_EQ(item.size, 6);
}

TEST_F(Settle, AnOpenFileOutlivesItsName) {
  service.Put("a.txt", "remote");
  Refresh();
  std::unique_ptr<OpenFile> file;
  ASSERT_EQ(drive->files.Open(Find("a.txt"), O_RDWR, file), 0);
  ASSERT_EQ(Remove("a.txt"), 0);
  Drain();
  EXPECT_EQ(AtService("a.txt"), "(none)");
  ASSERT_EQ(Write("a.txt", "another"), 0);
  // Its bytes were not read before it went: they are lost at the service, and that is an error.
  std::string bytes(6, '\0');
  EXPECT_LT(drive->files.Read(*file, bytes, 0), 0);
  drive->files.Release(std::move(file));
  Drain();
  EXPECT_EQ(AtService("a.txt"), "another");
}

TEST_F(Settle, MovesFoldersAroundEachOther) {
  ASSERT_EQ(MakeFolder("outer"), 0);
  ASSERT_EQ(MakeFolder("outer/inner"), 0);
  ASSERT_EQ(Write("outer/inner/leaf", "x"), 0);
  Drain();
  ASSERT_EQ(Rename("outer/inner", "inner"), 0);
  ASSERT_EQ(Rename("outer", "inner/outer"), 0);
  ASSERT_EQ(Rename("inner/leaf", "inner/outer/leaf"), 0);
  Drain();
  EXPECT_EQ(AtService("inner/outer/leaf"), "x");
  EXPECT_THAT(NamesAtService(), ElementsAre("inner"));
}

TEST_F(Settle, KeepsItsPromisesThroughARestart) {
  Fault("drive.upload.content", "reset-before", 1000);
  ASSERT_EQ(Write("kept.txt", "kept"), 0);
  ASSERT_EQ(MakeFolder("dir"), 0);
  ASSERT_EQ(Rename("kept.txt", "dir/kept2.txt"), 0);
  Stop();
  RestoreNetwork();
  Start();
  EXPECT_EQ(Read("dir/kept2.txt"), "kept");
  Drain();
  EXPECT_EQ(AtService("dir/kept2.txt"), "kept");
  EXPECT_THAT(NamesAtService(), ElementsAre("dir"));
}

TEST_F(Settle, ServesWhatItHasWithoutTheService) {
  service.Put("dir/a.txt", "cached");
  service.Put("dir/b.txt", "not cached");
  ASSERT_EQ(Names("dir").size(), 2u);
  EXPECT_EQ(Read("dir/a.txt"), "cached");
  Stop();
  CutNetwork();
  Start();
  EXPECT_THAT(Names("dir"), ElementsAre("a.txt", "b.txt"));
  EXPECT_EQ(Read("dir/a.txt"), "cached");
  EXPECT_EQ(Read("dir/b.txt"), "(error)");
  EXPECT_EQ(Write("dir/c.txt", "later"), 0);
  RestoreNetwork();
  Drain();
  EXPECT_EQ(AtService("dir/c.txt"), "later");
}

TEST_F(Settle, ListsAtOnceWhatIsLookedAtWhenChangesAreExpected) {
  service.Put("dir/a.txt", "");
  service.Put("other/b.txt", "");
  ASSERT_THAT(Names("dir"), ElementsAre("a.txt"));
  const Inode dir = Find("dir");
  Find("other/b.txt");
  const auto shows = [&](int64_t count) {
    std::lock_guard lock(drive->state.mutex);
    return drive->state.items.CountChildren(dir) == count;
  };
  service.Put("dir/new.txt", "");
  drive->folders.ExpectChanges();
  while (!shows(2)) std::this_thread::yield();
  // The report that follows finds it done; one that nothing announced does not.
  const int listings = service.Count("drive.files.list");
  drive->folders.ReportChange(*service.Find("dir"));
  EXPECT_EQ(drive->folders.RefreshNow(Find("other")), 0);
  EXPECT_EQ(service.Count("drive.files.list"), listings + 1);
  service.Put("dir/newer.txt", "");
  drive->folders.ExpectChanges();
  service.Put("dir/newest.txt", "");
  drive->folders.ExpectChanges();
  while (!shows(4)) std::this_thread::yield();
}

TEST_F(Settle, FollowsWhatOthersDo) {
  service.Put("dir/a.txt", "one");
  service.Put("other/keep", "");
  ASSERT_THAT(Names("dir"), ElementsAre("a.txt"));
  ASSERT_THAT(Names("other"), ElementsAre("keep"));
  const Inode before = Find("dir/a.txt");
  EXPECT_EQ(Read("dir/a.txt"), "one");
  service.Write(*service.Find("dir/a.txt"), "two!");
  Refresh("dir");
  EXPECT_EQ(Read("dir/a.txt"), "two!");
  service.Move(*service.Find("dir/a.txt"), *service.Find("other"));
  Refresh("other");
  Refresh("dir");
  EXPECT_EQ(Find("other/a.txt"), before);  // the same file in another place
  service.Remove(*service.Find("other/a.txt"));
  Refresh("other");
  EXPECT_THAT(Names("other"), ElementsAre("keep"));
}

TEST_F(Settle, ShowsEveryTwinAndReachesEach) {
  const std::string root = service.RootId();
  service.PutUnder(root, "same.txt", "1");
  service.PutUnder(root, "same.txt", "2");
  service.PutUnder(root, "a/b", "slash");
  service.PutUnder(root, std::string(300, 'n'), "long");
  service.PutUnder(root, "..", "dots");
  Refresh();
  std::vector<std::string> contents;
  for (const std::string& name : Names()) contents.push_back(Read(name));
  EXPECT_THAT(contents, UnorderedElementsAre("1", "2", "slash", "long", "dots"));
  EXPECT_EQ(Read("a%2Fb"), "slash");
  ASSERT_EQ(Rename("a%2Fb", "a%2Fc"), 0);
  ASSERT_EQ(Write("d%2Fe", "made"), 0);
  Drain();
  EXPECT_EQ(service.ChildrenNamed(root, "a/c").size(), 1u);
  EXPECT_EQ(service.ChildrenNamed(root, "d/e").size(), 1u);
}

}  // namespace
}  // namespace host::mount
