// A connected drive on an emulator of its own, and the words that its tests are written in.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "emulator/drive_emulator.h"
#include "gdrive/google_drive.h"
#include "tests/plugin/drive/host_objects.h"
#include "tests/plugin/unit/wire_server.h"
#include "util/clock.h"

/// Time that passes only by being slept through or by Advance.
class FakeClock {
 public:
  FakeClock();
  void Advance(std::chrono::seconds duration);
  std::vector<long long> SleptSeconds() const;

 private:
  mutable std::mutex mutex;
  SteadyTime now;
  std::vector<long long> slept;
  const ClockOverride override;
};

/// "access_token" as hosts keep it.
std::string Credential(const std::string& token);

/// A pattern that differs at every offset a test looks at.
std::string Bytes(size_t size);

class DriveTest : public testing::Test {
 protected:
  using Drive = std::unique_ptr<GoogleDrive, DriveRelease>;

  explicit DriveTest(emulator::Options options = {});

  /// A drive that is not connected.
  Drive NewDrive();
  /// Connects with a valid token and a host that renews.
  void Connect(GoogleDrive& target);

  AERROR List(const std::string& id, ItemList* list);
  std::vector<std::string> Names(const std::string& folder);
  AERROR Info(const std::string& id, _FS_FILE_V2* record);
  AERROR Read(const std::string& id, long long offset, long long length, Fetched* into,
              std::shared_ptr<_FS_HANDLE> handle = nullptr);
  /// Uploads `content`; the record names the item.
  AERROR Upload(const std::string& parent, _FS_FILE_V2* record, const std::string& content);
  AERROR Upload(const std::string& parent, _FS_FILE_V2* record, CachedFile* cache,
                std::shared_ptr<_FS_HANDLE> handle = nullptr);
  std::vector<std::string> Changes();
  /// A poll that only moves the cursor to now.
  void CatchUp();

  void Fault(const std::string& method, const std::string& kind, int64_t at = 0, int times = 1);
  /// Puts `body` in the place of the next answer's.
  void AnswerNext(const std::string& method, const std::string& body);
  /// Enough of one status for a request and all of its retries.
  void FailAlways(const std::string& method, int status);
  int Requests(const std::string& method = "*") const { return service.Count(method); }
  /// All requests of a method that the emulator has answered, oldest first.
  std::vector<emulator::JournalEntry> Log(const std::string& method) const;
  emulator::JournalEntry LastRequest(const std::string& method) const;
  std::string Query(const std::string& method) const;
  Json::Value Body(const std::string& method) const;

  FakeClock clock;
  emulator::DriveEmulator service;
  std::string root;
  Profile profile;
  Authoriser authoriser;
  Drive drive;
};

/// A drive whose service is a script: for answers that no service would give.
class WireTest : public testing::Test {
 protected:
  static constexpr char kRoot[] = "root-id";

  WireTest();

  FakeClock clock;
  WireServer service;
  Profile profile;
  Authoriser authoriser;
  std::unique_ptr<GoogleDrive, DriveRelease> drive;
};

/// A record of an item that the host knows under a name.
_FS_FILE_V2 Record(const std::string& name, const std::string& id = "");
