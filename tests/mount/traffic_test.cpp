// What `status` shows of the transfers that are under way.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <thread>

#include "host/mount/mount_service.h"
#include "host/mount/status_text.h"
#include "tests/mount/drive_fixture.h"

namespace host::mount {
namespace {

class Traffic : public DriveFixture {
 protected:
  static constexpr int64_t kBandwidth = 1 << 20;  // bytes per second, each way
};

TEST_F(Traffic, IsToldOfEachFileWithProgressAndRate) {
  const std::string bytes(32 << 20, 'b');
  service.Put("down", bytes);
  Start();
  ASSERT_NE(Find("down"), 0u);
  service.SetBandwidth(kBandwidth);
  ASSERT_EQ(Write("up", bytes), 0);
  std::string read;
  std::thread reader([&] { read = Read("down"); });
  std::vector<TrafficMeter::Transfer> transfers;
  const auto moves = [&](bool up) {
    return std::any_of(transfers.begin(), transfers.end(), [up](const auto& transfer) {
      return transfer.up == up && transfer.rate > 0;
    });
  };
  while (!moves(true) || !moves(false)) {
    transfers = drive->traffic.Transfers();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  MountService mount(*drive, "/drive", {nullptr, [] { return ""; }});
  const std::string status = StatusText(mount.Status(), Paint(-1));
  service.SetBandwidth(0);
  reader.join();
  ASSERT_EQ(transfers.size(), 2u);
  for (const TrafficMeter::Transfer& transfer : transfers) {
    EXPECT_EQ(transfer.ino, Find(transfer.up ? "up" : "down"));
    EXPECT_EQ(transfer.size, static_cast<int64_t>(bytes.size()));
    EXPECT_GT(transfer.done, 0);
    EXPECT_LT(transfer.done, transfer.size);
    EXPECT_LT(transfer.rate, transfer.size);
  }
  EXPECT_THAT(status, ::testing::ContainsRegex("sending\n +[0-9]+ %  up  .32.0 MiB, .*iB/s"));
  EXPECT_THAT(status, ::testing::ContainsRegex("fetching\n +[0-9]+ %  down  .32.0 MiB, .*iB/s"));
  EXPECT_THAT(status, ::testing::Not(::testing::HasSubstr("waiting")));
  EXPECT_TRUE(read == bytes);
  Drain();
  EXPECT_TRUE(drive->traffic.Transfers().empty());
}

TEST_F(Traffic, EndsWithTheLastClose) {
  constexpr int64_t kRead = 128 * 1024;
  const std::string bytes(64 << 20, 'b');
  service.Put("down", bytes);
  Start();
  service.SetBandwidth(4 * kBandwidth);
  std::unique_ptr<OpenFile> file;
  ASSERT_EQ(drive->files.Open(Find("down"), O_RDONLY, file), 0);
  std::string piece(kRead, '\0');
  for (int64_t at = 0; at < 3 << 20; at += kRead)
    ASSERT_EQ(drive->files.Read(*file, piece, at), kRead);
  EXPECT_EQ(drive->traffic.Transfers().size(), 1u);
  drive->files.Release(std::move(file));
  while (!drive->traffic.Transfers().empty()) std::this_thread::yield();
  // Not the 32 MiB that were wanted ahead.
  EXPECT_LT(drive->remote.Counted().down, 16 << 20);
  service.SetBandwidth(0);
  EXPECT_TRUE(Read("down") == bytes);
}

}  // namespace
}  // namespace host::mount
