// Many threads on one session.
#include <set>
#include <thread>

#include "tests/plugin/drive/drive_fixture.h"

namespace {

class ConcurrencyTest : public DriveTest {
 protected:
  static constexpr int kThreads = 64;
  static constexpr int kRounds = 4;

  /// Everything that one user does in a folder of their own; how often it went wrong.
  int Work(int thread) {
    int errors = 0;
    const auto check = [&](bool right) { errors += right ? 0 : 1; };
    auto folder = Record("folder" + std::to_string(thread));
    check(drive->CreateDirectory(root.c_str(), &folder, nullptr) == AERROR::SUCCESS);
    for (int round = 0; round < kRounds; ++round) {
      const std::string content = Bytes(static_cast<size_t>(10'000 + thread * kRounds + round));
      auto file = Record("file" + std::to_string(round));
      CachedFile cache(content);
      file.size = static_cast<int64_t>(content.size());
      check(drive->Upload(folder.id.c_str(), nullptr, &cache, &file, kUploadDefault, nullptr) ==
            AERROR::SUCCESS);
      Fetched fetched;
      check(drive->Read(file.id.c_str(), 17, 5000, nullptr, &fetched, nullptr) == AERROR::SUCCESS);
      check(fetched.bytes == content.substr(17, 5000));
      const std::string name = "renamed" + std::to_string(round);
      check(drive->Rename(file.id.c_str(), name.c_str(), &file, nullptr) == AERROR::SUCCESS);
      ItemList list;
      check(drive->GetFileList(folder.id.c_str(), &list, nullptr) == AERROR::SUCCESS);
      check(list.items.size() == static_cast<size_t>(round + 1));
      ChangeSink sink;
      check(drive->GetChanges(&sink, nullptr) == AERROR::SUCCESS);
    }
    return errors;
  }
};

TEST_F(ConcurrencyTest, NothingIsLostOrDoubledAndConnectionsStayFew) {
  CatchUp();
  std::atomic<int> errors{0};
  std::atomic<int> ended{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i, &errors, &ended] {
      errors += Work(i);
      ++ended;
    });
  }
  // What happens meanwhile: settings change and tokens expire, each after the renewal of the last.
  for (int i = 0; i < 50 && ended < kThreads; ++i) {
    drive->SetOpt("verbose", i % 2 == 0 ? "on" : "off");
    drive->SetOpt("speedlimit", "0");
    clock.Advance(std::chrono::seconds(1860));
    service.ExpireTokens();
    while (drive->RefreshAuth() == AERROR::RETRY) std::this_thread::yield();
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(errors, 0);
  EXPECT_LE(service.Connections(), kThreads + 1);
  const auto folders = service.Children(root);
  EXPECT_EQ(folders.size(), static_cast<size_t>(kThreads));
  for (const auto& folder : folders) {
    std::set<std::string> names;
    for (const auto& id : service.Children(folder))
      names.insert(service.Item(id)["name"].asString());
    EXPECT_EQ(names, (std::set<std::string>{"renamed0", "renamed1", "renamed2", "renamed3"}));
    EXPECT_EQ(service.Children(folder).size(), static_cast<size_t>(kRounds));
  }
}

}  // namespace
