// A drive against an emulator in this process: the service at one end, the mount's rooms without
// the kernel at the other.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "emulator/drive_emulator.h"
#include "host/core/session.h"
#include "host/mount/drive.h"

namespace host::mount {

/// Short waits, so that a test is over when the work is.
Settings QuickSettings();

class DriveFixture : public ::testing::Test {
 protected:
  DriveFixture();
  ~DriveFixture() override;

  /// Opens the profile and begins to follow the service, with what an earlier Start left.
  void Start(Settings settings = QuickSettings());
  /// Ends it in order; the profile stays.
  void Stop();

  // What programs do, by paths below My Drive. Errors are positive errno values.
  Inode Find(const std::string& path);  ///< 0 when it does not exist
  int Write(const std::string& path, const std::string& content);
  std::string Read(const std::string& path);
  int MakeFolder(const std::string& path);
  int Remove(const std::string& path);
  int RemoveFolder(const std::string& path);
  int Rename(const std::string& from, const std::string& to);
  std::vector<std::string> Names(const std::string& folder = "");

  /// Everything is on the service.
  void Drain();
  /// Tries what is owed, and waits until that of one item has failed; why.
  std::string Refusal(const std::string& path);
  /// Polls and waits until the folder shows what the service has.
  void Refresh(const std::string& folder = "");
  /// Content of the only item of that name in a folder of the service; "(none)", "(twins)".
  std::string AtService(const std::string& path);
  std::vector<std::string> NamesAtService(const std::string& folder = "");

  std::pair<Inode, std::string> Place(const std::string& path);

  emulator::DriveEmulator service;
  TemporaryDirectory directory{"vormlane-mount-test-"};
  ProfilePaths paths = ProfilePaths::Under(directory.Path(), "test");
  HostLog log{false, {}};
  ChangeRelay relay;
  std::unique_ptr<Session> session;
  std::unique_ptr<Drive> drive;
};

}  // namespace host::mount
