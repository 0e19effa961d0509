#include "bench/mount/contender.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <fstream>
#include <stdexcept>

#include "host/core/credential_store.h"
#include "host/core/profile_store.h"

namespace bench {
namespace fs = std::filesystem;

Contender::Contender(Service& itsService) : service(itsService) { fs::create_directory(folder); }

Contender::~Contender() {
  child.reset();
  umount2(folder.c_str(), MNT_DETACH);
}

Words Contender::Environment() const {
  const std::string home = Home().string();
  return {"HOME=" + home,
          "PATH=/usr/bin:/bin",
          "XDG_CONFIG_HOME=" + home + "/config",
          "XDG_DATA_HOME=" + home + "/data",
          "XDG_CACHE_HOME=" + home + "/cache",
          "XDG_RUNTIME_DIR=" + home + "/run"};
}

bool Contender::IsMounted() const {
  struct stat inside {};
  struct stat above {};
  struct statvfs room {};
  return statvfs(folder.c_str(), &room) == 0 && stat(folder.c_str(), &inside) == 0 &&
         stat(folder.parent_path().c_str(), &above) == 0 && inside.st_dev != above.st_dev;
}

void Contender::Start(const Words& options) {
  Words command = Command();
  command.insert(command.end(), options.begin(), options.end());
  child = std::make_unique<Child>(command, Environment(), Home() / "log");
}

void Contender::Ready() {
  Until(Name() + " mounts", 30, [this] {
    if (!child->IsRunning()) {
      std::ifstream log(Home() / "log");
      throw std::runtime_error(Name() +
                               " ended: " + std::string(std::istreambuf_iterator<char>(log), {}));
    }
    return IsMounted();
  });
}

void Contender::MountCold(const Words& options) {
  for (const char* part : {"config", "data", "cache", "run"}) fs::remove_all(Home() / part);
  Forget();
  Start(options);
  Ready();
}

void Contender::Unmount() {
  peak = std::max(peak, child->PeakMemory());
  child->Signal(SIGTERM);
  Until(Name() + " unmounts", 60, [this] { return !child->IsRunning(); });
  child.reset();
  if (IsMounted()) umount2(folder.c_str(), MNT_DETACH);
}

Vormlane::Vormlane(Service& itsService) : Contender(itsService) {}

void Vormlane::Forget() {
  host::ProfilePaths paths;
  paths.name = "default";
  paths.config = Home() / "config/vormlane/default";
  paths.data = Home() / "data/vormlane/default";
  host::ProfileStore profile(paths);
  const emulator::DriveEmulator& drive = service.drive;
  for (const auto& [key, value] : {std::pair{"drive_api_url", drive.ApiUrl()},
                                   {"user_token", drive.PushUserToken()},
                                   {"api_server_url", drive.PushApiUrl()},
                                   {"push_server_url", drive.PushUrl()},
                                   {"drive_id", "drive"},
                                   {"device_id", "device"}})
    profile.SetValue(profile.Id(), key, value);
  host::Credential credential;
  credential.accessToken = service.drive.AccessToken();
  host::CredentialStore(paths.Credential(), nullptr).Save(credential);
}

Words Vormlane::Command() const {
  return {(host::ExecutablePath().parent_path() / "vormlane").string(), "mount", "--foreground",
          folder.string()};
}

void Vormlane::Settle() { Run({Command()[0], "drain"}, Environment()); }

Rclone::Rclone(Service& itsService, const fs::path& itsCertificates)
    : Contender(itsService), certificates(itsCertificates) {}

void Rclone::Forget() {
  std::ofstream(Home() / "rclone.conf")
      << "[drive]\ntype = drive\nscope = drive\ntoken = {\"access_token\":\""
      << service.drive.AccessToken()
      << "\",\"token_type\":\"Bearer\",\"expiry\":\"2999-01-01T00:00:00Z\"}\n";
}

Words Rclone::Command() const {
  return {"rclone",           "mount",
          "drive:",           folder.string(),
          "--config",         (Home() / "rclone.conf").string(),
          "--cache-dir",      (Home() / "cache").string(),
          "--ca-cert",        certificates.string(),
          "--vfs-cache-mode", "full",
          "--poll-interval",  "15s"};
}

/// It says to nobody when it is done: no request for longer than it waits before an upload.
void Rclone::Settle() {
  constexpr double kQuiet = 8;
  int count = -1;
  double since = Now();
  Until("rclone is quiet", 300, [&] {
    const int now = service.drive.Count("*") - service.drive.Count("drive.changes.list");
    if (now != count) since = Now();
    count = now;
    return Now() - since > kQuiet;
  });
}

}  // namespace bench
