// Pushed changes, and many threads on one session.
#include <chrono>
#include <cstdio>
#include <iterator>
#include <random>
#include <set>
#include <thread>

#include "bench/library/figures.h"
#include "bench/library/measuring.h"
#include "emulator/drive_emulator.h"

namespace bench {
namespace {

constexpr int kThreads = 64;
constexpr auto kBusyTime = std::chrono::minutes(1);

/// What one user does in a folder of their own, and what must be there afterwards.
class User {
 public:
  User(GoogleDrive& shared, int number) : drive(shared), random(static_cast<unsigned>(number)) {
    folder.name = "folder" + std::to_string(number);
    Check(drive.CreateDirectory("", &folder, nullptr) == AERROR::SUCCESS);
  }

  void Work() {
    const auto end = std::chrono::steady_clock::now() + kBusyTime;
    while (std::chrono::steady_clock::now() < end) {
      const unsigned what = random() % 8;
      if (files.size() < 4 || (what < 2 && files.size() < 40)) {
        Upload();
      } else if (what < 4) {
        Read();
      } else if (what == 4) {
        Rename();
      } else if (what == 5) {
        Delete();
      } else if (what == 6) {
        List();
      } else {
        Changes sink;
        Check(drive.GetChanges(&sink, nullptr) == AERROR::SUCCESS);
      }
    }
  }

  /// Items of the folder that should not be there, or should and are not.
  size_t Misplaced(const emulator::DriveEmulator& service) const {
    std::multiset<std::string> found, expected;
    for (const std::string& id : service.Children(folder.id)) {
      found.insert(id + service.Item(id)["name"].asString());
    }
    for (const _FS_FILE_V2& file : files) expected.insert(file.id + file.name);
    std::vector<std::string> different;
    std::set_symmetric_difference(found.begin(), found.end(), expected.begin(), expected.end(),
                                  std::back_inserter(different));
    return different.size();
  }

  long operations = 0, errors = 0;

 private:
  struct Fetched final : IFetchCallback {
    void OnData(long long, const char* data, unsigned long long length, long long*) override {
      bytes.append(data, length);
    }
    std::string bytes;
  };

  void Check(bool right) {
    ++operations;
    if (!right) ++errors;
  }
  size_t Any() { return random() % files.size(); }
  std::string NewName() { return "file" + std::to_string(++names); }

  void Upload() {
    Zeroes cache;
    _FS_FILE_V2 file;
    file.name = NewName();
    file.size = random() % 100'000;
    Check(drive.Upload(folder.id.c_str(), nullptr, &cache, &file, kUploadDefault, nullptr) ==
          AERROR::SUCCESS);
    files.push_back(file);
  }
  void Read() {
    const _FS_FILE_V2& file = files[Any()];
    Fetched fetched;
    const auto handle = std::make_shared<_FS_HANDLE>();
    Check(drive.Read(file.id.c_str(), 0, file.size, handle, &fetched, nullptr) == AERROR::SUCCESS &&
          fetched.bytes == std::string(static_cast<size_t>(file.size), '\0'));
  }
  void Rename() {
    _FS_FILE_V2& file = files[Any()];
    const std::string name = NewName();
    Check(drive.Rename(file.id.c_str(), name.c_str(), &file, nullptr) == AERROR::SUCCESS &&
          file.name == name);
  }
  void Delete() {
    const size_t at = Any();
    Check(drive.Delete(&files[at], nullptr) == AERROR::SUCCESS);
    files.erase(files.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void List() {
    Counter counter;
    Check(drive.GetFileList(folder.id.c_str(), &counter, nullptr) == AERROR::SUCCESS &&
          counter.count == static_cast<int>(files.size()));
  }

  GoogleDrive& drive;
  std::minstd_rand random;
  _FS_FILE_V2 folder;
  std::vector<_FS_FILE_V2> files;
  int names = 0;
};

}  // namespace

/// Milliseconds from a change at the service to the sink's call.
void BenchPush() {
  emulator::DriveEmulator service;
  Profile profile;
  profile.values = {{"user_token", service.PushUserToken()},
                    {"api_server_url", service.PushApiUrl()},
                    {"push_server_url", service.PushUrl()},
                    {"drive_id", "drive"},
                    {"device_id", "device"}};
  Changes sink;
  const Drive drive = Connected(&profile, service.ApiUrl(), service.AccessToken());
  Require(drive->SetChangesCallback(&sink) == AERROR::SUCCESS, "SetChangesCallback");
  std::vector<double> times;
  for (int i = 0; i < 51; ++i) {
    times.push_back(Took(WallSeconds, [&] {
      service.Put("file" + std::to_string(i), "x");
      Require(sink.WaitFor(i + 1), "push");
    }));
  }
  Report("Change to sink over push, median", "ms", Median(times) * 1000, "<=", 50);
}

void BenchThreads() {
  emulator::DriveEmulator service;
  Profile profile;
  const Drive drive = Connected(&profile, service.ApiUrl(), service.AccessToken());
  std::vector<std::unique_ptr<User>> users;
  for (int i = 0; i < kThreads; ++i) users.push_back(std::make_unique<User>(*drive, i));
  std::vector<std::thread> threads;
  for (const auto& user : users) threads.emplace_back([&user] { user->Work(); });
  for (std::thread& thread : threads) thread.join();
  long operations = 0, errors = 0;
  size_t misplaced = 0;
  for (const auto& user : users) {
    operations += user->operations;
    errors += user->errors;
    misplaced += user->Misplaced(service);
  }
  std::printf("64 threads on one session for a minute: %ld operations\n", operations);
  Report("  errors", "", static_cast<double>(errors), "<=", 0);
  Report("  items lost, doubled or changed", "", static_cast<double>(misplaced), "<=", 0);
  Report("  connections", "", service.Connections(), "<=", kThreads);
}

}  // namespace bench
