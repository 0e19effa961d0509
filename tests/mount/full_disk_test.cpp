// A local disk that fills up to its last byte, the profile's database included: writers are told,
// nothing that was promised is harmed, and when there is room again everything arrives.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "tests/mount/mounted_program.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;

/// A disk of a few megabytes.
class SmallDisk {
 public:
  explicit SmallDisk(const char* options) {
    mounted = ::mount("tmpfs", place.Path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) == 0;
  }
  ~SmallDisk() {
    if (mounted) umount2(place.Path().c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool Mounted() const { return mounted; }
  const fs::path& Path() const { return place.Path(); }
  fs::path Ballast() const { return Path() / "ballast"; }

  /// Takes bytes, and gives them back when the ballast is removed.
  void Load(int64_t bytes) const { Append(bytes); }
  /// Takes every byte that is left.
  void Fill() const { Append(int64_t{1} << 40); }

 private:
  void Append(int64_t bytes) const {
    const int file = open(Ballast().c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    for (size_t size = block.size(); size > 0 && bytes > 0;) {
      const ssize_t count = write(file, block.data(), size);
      if (count > 0) bytes -= count;
      if (count <= 0) size /= 2;
    }
    close(file);
  }

  TemporaryDirectory place{"vormlane-disk-"};
  bool mounted = false;
};

class FullDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoMount(); !why.empty()) GTEST_SKIP() << why;
    if (!disk.Mounted()) GTEST_SKIP() << "a small disk cannot be mounted here";
    service.Put("known.txt", std::string(50'000, 'k'));
    ASSERT_TRUE(program.Mount());
    ASSERT_EQ(Read("known.txt").substr(0, 30), std::string(30, 'k'));
  }

  fs::path At(const std::string& name) const { return program.Root() / name; }

  /// 0, or why it failed; what close returned 0 for is a promise.
  int Write(const std::string& name, const std::string& content, int flags) {
    const int file = open(At(name).c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
    if (file < 0) return errno;
    int error = 0;
    for (size_t at = 0; at < content.size() && error == 0;) {
      const ssize_t count = write(file, content.data() + at, content.size() - at);
      if (count < 0) error = errno;
      if (count > 0) at += static_cast<size_t>(count);
    }
    if (close(file) != 0 && error == 0) error = errno;
    promised.erase(name);  // what was cut, or half written, may be either
    if (error == 0) promised[name] = content;
    return error;
  }

  std::string Read(const std::string& name) const {
    const int file = open(At(name).c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return "(unopened)";
    std::string content(1 << 20, '\0');
    const ssize_t count = pread(file, content.data(), content.size(), 0);
    const int error = errno;
    close(file);
    return count < 0 ? std::strerror(error) : content.substr(0, static_cast<size_t>(count));
  }

  void ExpectPromisesKept() {
    for (const auto& [name, content] : promised) {
      EXPECT_TRUE(Read(name) == content) << name << " on the mount";
      const std::optional<std::string> id = service.Find(name);
      EXPECT_TRUE(id && service.Content(*id) == content) << name << " at the service";
    }
  }

  emulator::DriveEmulator service;
  SmallDisk disk{"size=24m"};
  MountedProgram program{service, disk.Path() / "data"};
  std::map<std::string, std::string> promised;
};

TEST_F(FullDisk, WritersAreToldAndNothingElseIsHarmed) {
  emulator::Fault away;
  away.kind = "reset-before";
  away.times = 1'000'000;
  service.Inject(away);  // so that nothing leaves the disk
  disk.Load(8 << 20);
  int error = 0;
  for (int i = 0; i < 2000 && error == 0; ++i)
    error = Write("file" + std::to_string(i), std::string(1000 + i * 1000 % 300'000, 'a'),
                  O_CREAT | O_EXCL);
  EXPECT_EQ(error, ENOSPC);
  disk.Fill();
  for (int i = 0; i < 40; ++i) {
    const std::string name = "late" + std::to_string(i);
    EXPECT_THAT(Write(name, std::string(20'000, 'b'), O_CREAT), ::testing::AnyOf(0, ENOSPC));
    EXPECT_THAT(Write("file0", std::string(30'000, 'c'), O_TRUNC), ::testing::AnyOf(0, ENOSPC));
    const int made = mkdir(At("dir" + std::to_string(i)).c_str(), 0755);
    EXPECT_TRUE(made == 0 || errno == ENOSPC) << errno;
    EXPECT_EQ(Read("known.txt").substr(0, 30), std::string(30, 'k'));
    disk.Fill();
  }
  service.ClearFaults();
  fs::remove(disk.Ballast());
  ASSERT_EQ(Write("after.txt", "room again", O_CREAT), 0);
  ASSERT_TRUE(program.Drain());
  ExpectPromisesKept();
  ASSERT_TRUE(program.Unmount());
  ASSERT_TRUE(program.Mount());
  ExpectPromisesKept();
}

TEST_F(FullDisk, AKilledHostComesBackOnAFullDisk) {
  service.FailNext("*", 500, 1'000'000);
  for (int i = 0; i < 20; ++i)
    ASSERT_EQ(Write("file" + std::to_string(i), std::string(20'000, 'a'), O_CREAT), 0);
  disk.Fill();
  program.Kill();
  program.Detach();
  service.ClearFaults();
  if (!program.Mount()) {  // it may refuse, but not forget
    fs::remove(disk.Ballast());
    ASSERT_TRUE(program.Mount());
  }
  fs::remove(disk.Ballast());
  ASSERT_TRUE(program.Drain());
  ExpectPromisesKept();
}

}  // namespace
}  // namespace host::mount
