// The file system as programs meet it: real mounts, system calls at one end and the service at the
// other.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "tests/mount/mounted_program.h"
#include "tests/rounds.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;

class Mount : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoMount(); !why.empty()) GTEST_SKIP() << why;
  }
  void Begin(const std::vector<std::string>& options = QuickOptions()) {
    ASSERT_TRUE(program.Mount(options));
  }

  fs::path At(const std::string& name) const { return program.Root() / name; }
  std::vector<std::string> Names(const fs::path& folder) const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  static std::string Slurp(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return file ? text.str() : "(error)";
  }
  static bool Spill(const fs::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    return static_cast<bool>(file);
  }
  /// Waits for what follows from a notice; the time is a limit, not a wait.
  static bool Soon(const std::function<bool()>& condition) {
    for (int i = 0; i < 2000; ++i) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }
  static std::string Attribute(const fs::path& path, const char* name) {
    char value[256];
    const ssize_t length = getxattr(path.c_str(), name, value, sizeof value);
    return length < 0 ? std::strerror(errno) : std::string(value, static_cast<size_t>(length));
  }

  emulator::DriveEmulator service;
  MountedProgram program{service};
};

TEST_F(Mount, ShowsTheDrive) {
  service.Put("Documents/a.txt", "hello");
  service.MakeTeamDrive("Crew");
  service.PutUnder(service.RootId(), "Plan", "", "application/vnd.google-apps.document");
  service.SetQuota(emulator::kDemoUser, int64_t{15} << 30);
  Begin();
  EXPECT_THAT(Names(program.Folder()), ElementsAre("My Drive", "Shared with me", "Team Drives"));
  EXPECT_THAT(Names(program.Folder() / "Team Drives"), ElementsAre("Crew"));
  EXPECT_EQ(Slurp(At("Documents/a.txt")), "hello");
  EXPECT_THAT(Slurp(At("Plan.Google Docs.webloc")), HasSubstr("<key>URL</key>"));
  EXPECT_EQ(Attribute(At("Documents/a.txt"), "user.vormlane.id"), service.Find("Documents/a.txt"));
  EXPECT_EQ(Attribute(At("Documents/a.txt"), "user.vormlane.state"), "clean");
  struct statvfs room {};
  ASSERT_EQ(statvfs(program.Folder().c_str(), &room), 0);
  EXPECT_TRUE(Soon([&] {
    statvfs(program.Folder().c_str(), &room);
    return room.f_blocks * room.f_frsize == uint64_t{15} << 30;
  }));
  struct stat status {};
  ASSERT_EQ(stat(At("Documents/a.txt").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 5);
  EXPECT_TRUE(program.Unmount());
}

TEST_F(Mount, ReadsRangesAndFetchesLittleForLittle) {
  const int64_t size = int64_t{256} << 20;
  const std::string id = service.PutSynthetic("big.bin", size);
  Begin();
  const int file = open(At("big.bin").c_str(), O_RDONLY);
  ASSERT_GE(file, 0);
  std::mt19937_64 random(7);
  char bytes[4096];
  for (int i = 0; i < 50; ++i) {
    const auto offset = static_cast<off_t>(random() % (size - sizeof bytes));
    ASSERT_EQ(pread(file, bytes, sizeof bytes, offset), static_cast<ssize_t>(sizeof bytes));
    ASSERT_EQ(std::string(bytes, sizeof bytes), service.Content(id, offset, sizeof bytes));
  }
  close(file);
  int64_t fetched = 0;
  for (const emulator::JournalEntry& entry : service.Journal())
    if (entry.method == "drive.files.get.media") fetched += entry.responseBytes;
  EXPECT_LT(fetched, 30 << 20);
  // A stream: every byte, and none twice.
  service.ClearJournal();
  const std::string whole = service.Content(id, 0, size).value();
  EXPECT_TRUE(Slurp(At("big.bin")) == whole);
  int64_t streamed = 0;
  for (const emulator::JournalEntry& entry : service.Journal())
    if (entry.method == "drive.files.get.media") streamed += entry.responseBytes;
  EXPECT_LE(streamed, size);
}

TEST_F(Mount, HoldsTenThousandFilesOpen) {
  constexpr int kFiles = Rounds(10'000);
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  if (before.rlim_max < kFiles + 1000) GTEST_SKIP() << "the system allows fewer open files";
  const rlimit usual{1024, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &usual);
  service.MakeFolder("many");
  Begin();
  const rlimit raised{before.rlim_max, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &raised);
  const auto name = [this](int i) { return At("many/" + std::to_string(i)); };
  std::vector<int> files;
  for (int i = 0; i < kFiles; ++i) {
    files.push_back(open(name(i).c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
    ASSERT_GE(files.back(), 0) << i << ": " << std::strerror(errno);
    ASSERT_EQ(write(files.back(), &i, sizeof i), static_cast<ssize_t>(sizeof i)) << i;
  }
  for (int i = 0; i < kFiles; ++i) ASSERT_EQ(unlink(name(i).c_str()), 0) << i;
  for (int i = 0; i < kFiles; ++i) {
    int read = -1;
    ASSERT_EQ(pread(files[i], &read, sizeof read, 0), static_cast<ssize_t>(sizeof read));
    ASSERT_EQ(read, i);
    ASSERT_EQ(close(files[i]), 0) << i;
  }
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(program.Run({"drain"}), 0);
  EXPECT_THAT(service.Children(*service.Find("many")), ::testing::IsEmpty());
  EXPECT_TRUE(program.Unmount());
}

TEST_F(Mount, RefusesWhatTheDriveCannotDo) {
  service.Put("dir/a.txt", "x");
  service.PutUnder(service.RootId(), "Plan", "", "application/vnd.google-apps.document");
  Begin();
  ASSERT_EQ(mkdir(At("empty").c_str(), 0755), 0);
  const auto fails = [](int result, int expected) { return result == -1 && errno == expected; };
  EXPECT_TRUE(fails(mkdir((program.Folder() / "new").c_str(), 0755), EACCES));
  EXPECT_TRUE(fails(mkdir((program.Folder() / "Shared with me/new").c_str(), 0755), EACCES));
  EXPECT_TRUE(fails(symlink("a", At("link").c_str()), ENOTSUP));
  EXPECT_TRUE(fails(link(At("dir/a.txt").c_str(), At("link").c_str()), ENOTSUP));
  EXPECT_TRUE(fails(rmdir(At("dir").c_str()), ENOTEMPTY));
  EXPECT_TRUE(fails(unlink(At("dir").c_str()), EISDIR));
  EXPECT_TRUE(fails(rename(At("empty").c_str(), At("dir/a.txt").c_str()), ENOTDIR));
  EXPECT_TRUE(fails(rename(At("dir").c_str(), At("dir/below").c_str()), EINVAL));
  EXPECT_TRUE(fails(open(At("dir/a.txt").c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644), EEXIST));
  EXPECT_TRUE(fails(mkdir(At(std::string(256, 'n')).c_str(), 0755), ENAMETOOLONG));
  EXPECT_TRUE(fails(mkdir(At("bad\xff").c_str(), 0755), EILSEQ));
  EXPECT_TRUE(fails(truncate(At("Plan.Google Docs.webloc").c_str(), 0), EACCES));
  EXPECT_TRUE(fails(setxattr(At("dir").c_str(), "user.x", "y", 1, 0), ENOTSUP));
  EXPECT_EQ(chmod(At("dir/a.txt").c_str(), 0600), 0);
  ASSERT_TRUE(program.Unmount());
  Begin({"--read-only"});
  EXPECT_TRUE(fails(open(At("dir/a.txt").c_str(), O_WRONLY), EROFS));
  EXPECT_TRUE(fails(mkdir(At("new").c_str(), 0755), EROFS));
  EXPECT_EQ(Slurp(At("dir/a.txt")), "x");
}

TEST_F(Mount, TellsOpenTerminalsOfPushedChanges) {
  service.Put("dir/a.txt", "one");
  Begin({"--poll", "3600"});
  ASSERT_THAT(Names(At("dir")), ElementsAre("a.txt"));
  ASSERT_EQ(Slurp(At("dir/a.txt")), "one");
  ASSERT_TRUE(Soon([&] { return service.OpenChannels() == 1 && service.PushConnections() == 1; }));
  service.Put("dir/b.txt", "two");
  EXPECT_TRUE(Soon([&] { return access(At("dir/b.txt").c_str(), F_OK) == 0; }));
  service.Write(*service.Find("dir/a.txt"), "longer");
  EXPECT_TRUE(Soon([&] { return Slurp(At("dir/a.txt")) == "longer"; }));
  service.Trash(*service.Find("dir/a.txt"));
  EXPECT_TRUE(Soon([&] { return access(At("dir/a.txt").c_str(), F_OK) != 0; }));
}

TEST_F(Mount, SeesPolledChanges) {
  service.Put("dir/a.txt", "one");
  Begin({"--poll", "0.05", "--no-push"});
  ASSERT_THAT(Names(At("dir")), ElementsAre("a.txt"));
  service.Put("dir/b.txt", "two");
  EXPECT_TRUE(Soon([&] { return access(At("dir/b.txt").c_str(), F_OK) == 0; }));
}

TEST_F(Mount, RefusesBadPlacesAndASecondHost) {
  Begin();
  MountedProgram other(service);
  std::string output;
  EXPECT_NE(program.Run({"mount", other.Folder().string(), "--foreground"}, &output), 0);
  EXPECT_THAT(output, HasSubstr("is mounted already"));
  const auto complaint = [&](const std::string& place) {
    std::string text;
    EXPECT_NE(other.Run({"mount", place, "--foreground"}, &text), 0);
    return text;
  };
  EXPECT_THAT(complaint("/nowhere/at/all"), HasSubstr("No such file"));
  EXPECT_THAT(complaint("/etc/passwd"), HasSubstr("no folder"));
  EXPECT_THAT(complaint("/etc"), HasSubstr("not empty"));
  EXPECT_THAT(complaint(program.Folder().string()), HasSubstr("mounted there already"));
}

TEST_F(Mount, UnmountingWaitsOrSaysWhatIsLeft) {
  Begin({"--upload-delay", "3600", "--no-push"});
  ASSERT_TRUE(Spill(At("later.txt"), "later"));
  EXPECT_EQ(Attribute(At("later.txt"), "user.vormlane.state"), "pending");
  std::string output;
  ASSERT_EQ(program.Run({"status", "--json"}, &output), 0);
  EXPECT_THAT(output, HasSubstr("\"later.txt\""));
  EXPECT_THAT(output, HasSubstr("\"pendingBytes\" : 5"));
  output.clear();
  ASSERT_EQ(program.Run({"unmount", "--now"}, &output), 0);
  EXPECT_THAT(output, HasSubstr("1 change is not on the service yet"));
  EXPECT_FALSE(service.Find("later.txt").has_value());
  program.Kill();
  Begin();
  ASSERT_TRUE(program.Unmount());
  EXPECT_EQ(service.Content(*service.Find("later.txt")), "later");
}

TEST_F(Mount, GoesOnWithANewSignInOfTheSameAccountOnly) {
  Begin({"--poll", "0.05", "--no-push", "--upload-delay", "0.01"});
  ASSERT_THAT(Names(program.Root()), ElementsAre());
  service.RevokeTokens();
  ASSERT_TRUE(Spill(At("owed.txt"), "owed"));
  const auto says = [&](const std::string& text) {
    std::string output;
    program.Run({"status"}, &output);
    return output.find(text) != std::string::npos;
  };
  EXPECT_TRUE(Soon([&] { return says("sign in with `vormlane login`"); }));
  program.SignIn(service.AccessToken());
  EXPECT_TRUE(program.Drain());
  EXPECT_EQ(service.Content(*service.Find("owed.txt")), "owed");
  service.AddUser("other@example.com", "Other");
  program.SignIn(service.AccessToken("other@example.com"));
  EXPECT_TRUE(Soon([&] { return says("not mounted"); }));
}

TEST_F(Mount, IsFoundAndTakenAwayThroughALinkOnceItsHostIsKilled) {
  const fs::path link = program.Folder().parent_path() / "link";
  fs::create_directory_symlink(program.Folder(), link);
  ASSERT_EQ(program.Run({"mount", link.string()}), 0);
  pid_t host = 0;
  ASSERT_TRUE(std::ifstream(program.Data() / "mount.lock") >> host);
  ASSERT_EQ(kill(host, SIGKILL), 0);
  EXPECT_TRUE(Soon([&] {
    std::string output;
    return program.Run({"status"}, &output) == 1 &&
           output.find(program.Folder().string() + "\n  its host has ended") != std::string::npos;
  }));
  EXPECT_NE(program.Run({"drain"}), 0);
  std::string output;
  EXPECT_EQ(program.Run({"mount", link.string()}, &output), 0);
  EXPECT_THAT(output, HasSubstr("was taken away"));
  EXPECT_EQ(program.Run({"unmount", link.string()}), 0);
}

TEST_F(Mount, PinsForLater) {
  service.Put("trip/map.pdf", "a map");
  Begin();
  ASSERT_EQ(program.Run({"pin", At("trip").string()}), 0);
  EXPECT_TRUE(Soon([&] { return service.Count("drive.files.get.media") == 1; }));
  EXPECT_EQ(Attribute(At("trip/map.pdf"), "user.vormlane.state"), "pinned");
  emulator::Fault fault;
  fault.kind = "reset-before";
  fault.times = 1'000'000;
  EXPECT_TRUE(Soon([&] {
    std::string output;
    program.Run({"status", "--json"}, &output);
    return output.find("\"bytesDown\" : 5") != std::string::npos;
  }));
  service.Inject(fault);
  EXPECT_EQ(Slurp(At("trip/map.pdf")), "a map");
}

}  // namespace
}  // namespace host::mount
