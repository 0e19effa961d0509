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
#include <thread>

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
  EXPECT_THAT(output, HasSubstr("has a file open there"));
  EXPECT_EQ(program.Run({"unmount", "--now"}), 0);
  EXPECT_FALSE(IsOwnMount(program.Folder()));
  program.Kill();
  close(file);
  ASSERT_TRUE(program.Mount());
  ASSERT_TRUE(program.Unmount());
  EXPECT_EQ(service.Content(*service.Find("open.txt")), "not closed");
}

TEST_F(MountEnd, FreesProgramsFromAHostThatIsStuck) {
  ASSERT_TRUE(program.Mount());
  ASSERT_EQ(kill(program.Process(), SIGSTOP), 0);
  int error = 0;
  std::thread asking([&] {
    struct stat status {};
    if (stat((program.Root() / "unknown").c_str(), &status) != 0) error = errno;
  });
  EXPECT_TRUE(mount::TearDown(program.Folder()));
  asking.join();
  EXPECT_NE(error, 0);
  EXPECT_NE(error, ENOSYS);
  EXPECT_FALSE(IsOwnMount(program.Folder()));
}

}  // namespace
}  // namespace host::mount
