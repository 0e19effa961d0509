// How a mount ends: asked to, told to by a signal, or stuck, with programs at work in it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "host/core/database.h"
#include "host/mount/mount_point.h"
#include "tests/mount/mounted_program.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class MountEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoMount(); !why.empty()) GTEST_SKIP() << why;
  }

  emulator::DriveEmulator service;
  MountedProgram program{service};
};

/// Makes and removes files in a folder until that fails.
void WorkIn(const fs::path& folder, const std::atomic<bool>& over) {
  for (int i = 0; !over; ++i) {
    const fs::path file = folder / ("own " + std::to_string(i % 7));
    std::ofstream(file) << i;
    std::error_code error;
    fs::remove(file, error);
    if (error) return;
  }
}

// The kernel locks a folder that a program changes and has the host's notice about it wait, so an
// end in a wrong order leaves all three waiting for each other.
TEST_F(MountEnd, LeavesNothingStuckBetweenNoticesAndPrograms) {
  service.Put("busy/first.txt", "1");
  for (int round = 0; round < 6; ++round) {
    ASSERT_TRUE(program.Mount({"--poll", "3600", "--upload-delay", "0.01"}));
    const fs::path folder = program.Root() / "busy";
    std::error_code error;
    fs::directory_iterator(folder, error);
    std::atomic<bool> over{false};
    std::thread one([&] { WorkIn(folder, over); });
    std::thread other([&] { WorkIn(folder, over); });
    for (int i = 0; i < 20 + 15 * round; ++i)
      service.Put("busy/remote " + std::to_string(i % 5), std::to_string(i + round));
    EXPECT_TRUE(program.Terminate()) << "round " << round;
    over = true;
    one.join();
    other.join();
    EXPECT_FALSE(IsOwnMount(program.Folder()));
    EXPECT_TRUE(fs::is_empty(program.Folder()));
  }
}

TEST_F(MountEnd, KeepsWhatAProgramHasOpen) {
  ASSERT_TRUE(program.Mount());
  const int file = open((program.Root() / "open.txt").c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(file, 0);
  ASSERT_EQ(write(file, "not closed", 10), 10);
  std::string output;
  EXPECT_NE(program.Run({"unmount"}, &output), 0);
  EXPECT_THAT(output, HasSubstr("a program has \"open.txt\" open"));
  EXPECT_EQ(program.Run({"unmount", "--now"}), 0);
  EXPECT_FALSE(IsOwnMount(program.Folder()));
  program.Kill();
  close(file);
  ASSERT_TRUE(program.Mount());
  ASSERT_TRUE(program.Unmount());
  EXPECT_EQ(service.Content(*service.Find("open.txt")), "not closed");
}

/// Puts nonsense where a table begins.
void OverwriteTable(const fs::path& file, const std::string& table) {
  int64_t place = 0;
  int64_t size = 0;
  {
    Database database(file);
    database.Run("PRAGMA wal_checkpoint(TRUNCATE)");
    Statement page = database.Prepare("SELECT rootpage FROM sqlite_schema WHERE name = ?");
    ASSERT_TRUE(page.Bind(1, table).Step());
    Statement bytes = database.Prepare("PRAGMA page_size");
    ASSERT_TRUE(bytes.Step());
    size = bytes.Integer(0);
    place = (page.Integer(0) - 1) * size;
  }
  std::fstream written(file, std::ios::in | std::ios::out | std::ios::binary);
  written.seekp(place);
  written << std::string(static_cast<size_t>(size), 'x');
}

// A page of the database is overwritten while a file waits for its upload.
TEST_F(MountEnd, SetsADamagedDatabaseAsideWithAllThatWaits) {
  ASSERT_TRUE(program.Mount({"--poll", "3600", "--no-push", "--upload-delay", "3600"}));
  std::ofstream(program.Root() / "waits.txt") << "not sent";
  program.Kill();
  program.Detach();
  const fs::path data = program.Data();
  OverwriteTable(data / "state.db", "mount_items");
  std::string output;
  ASSERT_EQ(program.Run({"mount", program.Folder().string()}, &output), 0) << output;
  EXPECT_THAT(output, HasSubstr("was damaged and begins anew"));
  EXPECT_EQ(program.Run({"unmount"}), 0);
  bool kept = false;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(data)) {
    std::ostringstream text;
    if (entry.is_regular_file()) text << std::ifstream(entry.path()).rdbuf();
    kept = kept || text.str() == "not sent";
  }
  EXPECT_TRUE(kept);
}

TEST_F(MountEnd, LetsAKilledProgramGoWhileTheServiceIsSilent) {
  service.Put("slow.bin", std::string(100'000, 's'));
  ASSERT_TRUE(program.Mount({"--poll", "3600", "--no-push", "--patience", "3600"}));
  ASSERT_TRUE(fs::exists(program.Root() / "slow.bin"));
  emulator::Fault silence;
  silence.kind = "delay";
  silence.method = "drive.files.get.media";
  silence.delay = std::chrono::hours(1);
  silence.times = 100;
  service.Inject(silence);
  const std::string path = (program.Root() / "slow.bin").string();
  const pid_t reader = fork();
  if (reader == 0) {
    char byte = 0;
    const int file = open(path.c_str(), O_RDONLY);
    _exit(static_cast<int>(read(file, &byte, 1)));
  }
  while (service.Count("drive.files.get.media") == 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  kill(reader, SIGTERM);
  int status = 0;
  EXPECT_EQ(waitpid(reader, &status, 0), reader);
  EXPECT_TRUE(WIFSIGNALED(status));
  // The folder is given back at once, what the plug-in waits for ends by its own rules.
  kill(program.Process(), SIGTERM);
  while (IsOwnMount(program.Folder())) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

// Two profiles of one user, the host of one of them stuck, and a program waiting for it.
TEST_F(MountEnd, TakesAStuckHostAwayWhichHidesNoOther) {
  const fs::path base = program.Folder().parent_path();
  const fs::path other = base / "other";
  fs::create_directory(other);
  ASSERT_EQ(
      program.Run({"--profile", "two", "profile", "set", "drive_api_url=" + service.ApiUrl()}), 0);
  fs::copy(base / "config/vormlane/default", base / "config/vormlane/two");
  ASSERT_EQ(program.Run({"--profile", "two", "mount", other.string()}), 0);
  ASSERT_TRUE(program.Mount());
  ASSERT_EQ(kill(program.Process(), SIGSTOP), 0);
  int error = 0;
  std::thread asking([&] {
    struct stat status {};
    if (stat((program.Root() / "unknown").c_str(), &status) != 0) error = errno;
  });
  std::string seen;
  int code = 0;
  std::thread looking([&] { code = program.Run({"status"}, &seen); });
  EXPECT_EQ(program.Run({"unmount", "--now", program.Folder().string()}), 0);
  asking.join();
  looking.join();
  EXPECT_NE(error, 0);
  EXPECT_NE(error, ENOSYS);
  EXPECT_FALSE(IsOwnMount(program.Folder()));
  EXPECT_EQ(code, 1);
  EXPECT_THAT(seen, HasSubstr(program.Folder().string() + "\n  the mount does not answer"));
  EXPECT_THAT(seen, HasSubstr(other.string() + "\n  to send"));
  siginfo_t end{};
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(program.Process()), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(program.Run({"--profile", "two", "unmount"}), 0);
}

}  // namespace
}  // namespace host::mount
