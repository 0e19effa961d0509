// One account, ready to be used: the profile, its credential, the module and the drive.
//
// Made by one thread; afterwards Drive() may be used from several threads at once, and the stores
// are thread-safe themselves. Everything is taken down in the right order at destruction: drive,
// queue, module, stores.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "host/core/credential_store.h"
#include "host/core/host_log.h"
#include "host/core/job_queue.h"
#include "host/core/paths.h"
#include "host/core/plugin_loader.h"
#include "host/core/profile_store.h"

namespace host {

/// Sections of the profile store that belong to the host.
inline constexpr char kOptionSection[] = "host.options";  ///< remembered settings-page values
inline constexpr char kHostSection[] = "host";            ///< everything else

/// Where tokens are renewed unless the profile value "oauth_token_url" says otherwise.
inline constexpr char kDefaultTokenUrl[] = "https://oauth2.googleapis.com/token";
/// Where the plug-in finds the service unless the profile value "drive_api_url" says otherwise.
inline constexpr char kDefaultApiUrl[] = "https://www.googleapis.com";

class Session {
 public:
  /// Opens the profile, loads the module, makes the drive and applies the remembered options. No
  /// request is made. `log` must outlive the session. Throws Failure.
  Session(ProfilePaths paths, const std::filesystem::path& module, HostLog& log);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Connects the drive with the stored credential, renewed first when it is about to expire.
  /// Throws Failure when there is no usable credential, when the service's address needs
  /// certificates that are missing, or when the drive refuses. Without a network it succeeds:
  /// see HasAccount.
  void Connect();
  /// True when the account record could be read, at Connect or since.
  bool HasAccount();
  /// Throws Failure that says why when it could not.
  void RequireAccount();

  IProtocol_V2& Drive() { return *drive; }
  Plugin& Module() { return plugin; }
  ProfileStore& Profile() { return profile; }
  CredentialStore& Credentials() { return credentials; }
  HostLog& Log() { return log; }
  const ProfilePaths& Paths() const { return paths; }

  /// The id of the drive's top: "virtual_root" or the root folder's. Throws Failure.
  std::string RootId();
  /// "Name(address)". Throws Failure.
  std::string UserInfo();

  /// Hands the remembered settings-page values (see options.h) to the drive again.
  void ApplyOptions();

  /// A Failure for a drive operation that ended with `code`: `doing` is "cannot list \"/a\"".
  Failure Failed(const std::string& doing, AERROR code);

 private:
  ProfilePaths paths;
  HostLog& log;
  ProfileStore profile;
  CredentialStore credentials;
  JobQueue queue;
  Plugin plugin;
  DrivePtr drive;
};

/// Calls a drive operation that takes a message, gives the message back, and throws
/// Session::Failed when the result is not SUCCESS:
/// `Perform(session, "cannot delete \"/a\"", [&](char** m) { return drive.Delete(&file, m); });`
template <typename Operation>
void Perform(Session& session, const std::string& doing, Operation&& operation) {
  HostLog::TakeLastError();
  char* message = nullptr;
  const AERROR code = operation(&message);
  session.Drive().FreeMsg(message);
  if (code != AERROR::SUCCESS) throw session.Failed(doing, code);
}

}  // namespace host
