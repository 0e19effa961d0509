// A drive whose profile names the emulator's push service, and a log that can be waited for.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>

#include "tests/plugin/drive/drive_fixture.h"
#include "tests/plugin/unit/recording_log.h"

/// Holds the log's lines for whoever waits for one.
class WatchedLog {
 public:
  WatchedLog() {
    log.onWrite = [this] {
      const std::lock_guard guard(mutex);
      written.notify_all();
    };
  }

  int Count(const std::string& part) const {
    const auto lines = log.Lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
      return line.find(part) != std::string::npos;
    }));
  }

  /// Waits up to 60 s for `count` lines that contain `part`.
  bool WaitFor(const std::string& part, int count = 1) {
    std::unique_lock guard(mutex);
    return written.wait_for(guard, std::chrono::seconds(60), [&] { return Count(part) >= count; });
  }

 private:
  std::mutex mutex;
  std::condition_variable written;
  RecordingLog log;
};

class PushTest : public DriveTest {
 protected:
  static constexpr char kSubscribe[] = "push.subscribe";
  static constexpr char kWatch[] = "drive.changes.watch";
  static constexpr char kStop[] = "drive.channels.stop";
  static constexpr char kLoopDone[] = "Push loop done";

  PushTest() {
    profile.Set("user_token", service.PushUserToken());
    profile.Set("api_server_url", service.PushApiUrl());
    profile.Set("drive_id", "drive-1");
    profile.Set("device_id", "device-1");
    profile.Set("push_server_url", service.PushUrl());
    Connect(*drive);
    service.ClearJournal();
  }

  /// Waits up to 20 s for the emulator to hold `count` connections.
  bool WaitForConnections(int count) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (service.PushConnections() != count) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }

  /// Switches push on and waits until the connection stands.
  void Open(IFileChanges* changes) {
    ASSERT_EQ(drive->SetChangesCallback(changes), AERROR::SUCCESS);
    ASSERT_TRUE(WaitForConnections(1));
  }

  std::string Channel() {
    const std::string address = Body(kWatch)["address"].asString();
    return address.substr(address.rfind('/') + 1);
  }

  // Before the sinks go.
  void TearDown() override { drive.reset(); }

  WatchedLog log;
  ChangeSink sink, another;
};
