// The local disk refuses, takes a part, or has lost some: programs are told, what is kept is sent,
// and nothing else is.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>

#include <thread>

#include "tests/mount/drive_fixture.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

/// As long as it lives, no file of this process gets longer.
class LongestFile {
 public:
  explicit LongestFile(rlim_t bytes) : handler(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{bytes, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~LongestFile() {
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, handler);
  }
  LongestFile(const LongestFile&) = delete;
  LongestFile& operator=(const LongestFile&) = delete;

 private:
  rlimit before{};
  sighandler_t handler;
};

class LocalDisk : public DriveFixture {
 protected:
  LocalDisk() { Start(); }

  /// No edit can be noted as committed any more.
  void RefuseCommits() {
    std::lock_guard lock(drive->state.mutex);
    drive->state.database.Run(
        "CREATE TEMP TRIGGER refusal BEFORE INSERT ON mount_journal WHEN NOT NEW.editing "
        "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  }
  void AllowCommits() {
    std::lock_guard lock(drive->state.mutex);
    drive->state.database.Run("DROP TRIGGER refusal");
  }
};

TEST_F(LocalDisk, WhatItTookOfAWriteIsOwed) {
  constexpr int64_t kTaken = 12 << 20;  // the database's log is shorter
  const std::string bytes(16 << 20, 'w');
  {
    const LongestFile limit(kTaken);
    EXPECT_EQ(Write("cut.bin", bytes), EFBIG);
  }
  Stop();
  Start();
  Drain();
  EXPECT_TRUE(AtService("cut.bin") == bytes.substr(0, kTaken));
}

TEST_F(LocalDisk, WhatItHasLostIsNotSent) {
  const std::string bytes(100'000, 'b');
  ASSERT_EQ(Write("a.bin", bytes), 0);
  Drain();
  Settings slow = QuickSettings();
  slow.uploadDelay = Milliseconds(3'600'000);
  Stop();
  Start(slow);
  ASSERT_EQ(Write("a.bin", bytes + bytes), 0);
  Item item;
  ASSERT_EQ(drive->tree.Get(Find("a.bin"), item), 0);
  Stop();
  fs::resize_file(paths.data / "contents" / std::to_string(item.content), 70'000);
  Start();
  EXPECT_THAT(Refusal("a.bin"), HasSubstr("the local disk has 70000"));
  EXPECT_EQ(AtService("a.bin"), bytes);
}

TEST_F(LocalDisk, ATruncateBesideACloseIsKept) {
  for (int i = 0; i < 60; ++i) {
    ASSERT_EQ(Write("a.txt", "content"), 0);
    const Inode ino = Find("a.txt");
    std::unique_ptr<OpenFile> file;
    ASSERT_EQ(drive->files.Open(ino, O_WRONLY, file), 0);
    ASSERT_EQ(drive->files.Write(*file, std::string_view("C"), 0), 1);
    std::thread closing([&] { drive->files.Release(std::move(file)); });
    EXPECT_EQ(drive->files.Truncate(ino, 3), 0);
    closing.join();
    ASSERT_EQ(Read("a.txt"), "Con");
    Item item;
    ASSERT_EQ(drive->tree.Get(ino, item), 0);
    ASSERT_EQ(item.size, 3) << "after " << i;
  }
  Drain();
  EXPECT_EQ(AtService("a.txt"), "Con");
}

TEST_F(LocalDisk, ATruncateThatItRefusedToKeepIsCommittedLater) {
  for (const int64_t size : {5, 0}) {
    ASSERT_EQ(Write("a.txt", "content"), 0);
    Drain();
    RefuseCommits();
    EXPECT_NE(drive->files.Truncate(Find("a.txt"), size), 0);
    AllowCommits();
    drive->files.RetryRefused();
    Drain();
    EXPECT_EQ(AtService("a.txt"), std::string("content").substr(0, static_cast<size_t>(size)));
    EXPECT_EQ(Read("a.txt"), AtService("a.txt"));
    EXPECT_EQ(drive->queue.Pending(), 0);
  }
}

}  // namespace
}  // namespace host::mount
