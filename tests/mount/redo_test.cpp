// What a power cut leaves of closed files: the database's log, which was synced, and of the files
// that hold their bytes whatever had reached the disk by then.
#include <fcntl.h>
#include <gmock/gmock.h>

#include "tests/mount/drive_fixture.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;

class Redo : public DriveFixture {
 protected:
  Redo() {
    Start();
    Names();  // what is asked of the service has to be known before nothing is asked any more
    drive->Stop();
  }

  fs::path Contents() const { return paths.data / "contents"; }
};

TEST_F(Redo, BringsBackWhatTheDiskHasLostOfClosedFiles) {
  ASSERT_EQ(Write("lost.txt", "first"), 0);
  ASSERT_EQ(Write("lost.txt", "second"), 0);
  ASSERT_EQ(Write("cut.txt", "whole"), 0);
  ASSERT_EQ(Write("removed.txt", "nobody's"), 0);
  ASSERT_EQ(Remove("removed.txt"), 0);
  Item cut;
  ASSERT_EQ(drive->tree.Get(Find("cut.txt"), cut), 0);
  Stop();
  for (const fs::directory_entry& entry : fs::directory_iterator(Contents()))
    if (entry.path().filename() == std::to_string(cut.content))
      fs::resize_file(entry.path(), 2);
    else
      fs::remove(entry.path());
  Start();
  EXPECT_EQ(Read("lost.txt"), "second");
  Drain();
  EXPECT_EQ(AtService("lost.txt"), "second");
  EXPECT_EQ(AtService("cut.txt"), "whole");
  EXPECT_THAT(NamesAtService(), ::testing::UnorderedElementsAre("lost.txt", "cut.txt"));
}

TEST_F(Redo, LeavesLaterChangesAlone) {
  ASSERT_EQ(Write("a.txt", "as it was closed"), 0);
  std::unique_ptr<OpenFile> file;
  ASSERT_EQ(drive->files.Open(Find("a.txt"), O_RDWR, file), 0);
  const std::string_view change = "as it got after";
  ASSERT_GT(drive->files.Write(*file, {change.data(), change.size()}, 0), 0);
  file.reset();  // not closed: as when the host is killed
  Stop();
  Start();
  EXPECT_EQ(Read("a.txt"), "as it got afterd");
}

// A power cut can bring the row back.
TEST_F(Redo, KeepsAFileUntilTheDiskKnowsThatItsRowIsGone) {
  ASSERT_EQ(Write("a.txt", "bytes"), 0);
  Item item;
  ASSERT_EQ(drive->tree.Get(Find("a.txt"), item), 0);
  const fs::path file = Contents() / std::to_string(item.content);
  ASSERT_EQ(Remove("a.txt"), 0);
  EXPECT_TRUE(fs::exists(file));
  ASSERT_TRUE(drive->state.Sync());
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(Redo, EndsWithTheFilesOnTheDisk) {
  ASSERT_EQ(Write("a.txt", "bytes"), 0);
  drive->store.HardenAll();
  std::lock_guard lock(drive->state.mutex);
  EXPECT_TRUE(drive->state.redo.All().empty());
}

}  // namespace
}  // namespace host::mount
