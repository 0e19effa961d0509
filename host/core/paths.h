// Where the host finds its parts and keeps its files.
//
// All functions may be called from any thread. Nothing is created unless the name says so.
#pragma once

#include <filesystem>
#include <string>

namespace host {

/// The file of the running program, symbolic links resolved.
std::filesystem::path ExecutablePath();

/// `../PlugIns/vormlane_google.so` beside the program's directory.
std::filesystem::path DefaultModulePath();

/// `../Frameworks/cacert.pem` beside the program's directory, where the plug-in looks for it too.
std::filesystem::path CertificateBundle();

/// Throws Failure when `url` needs certificates (https, wss) and the bundle cannot be read.
void RequireCertificatesFor(const std::string& url);

/// True for http (ws) addresses on a loopback host, the only ones allowed without TLS.
bool IsLoopbackUrl(const std::string& url);
/// True for https (wss) addresses.
bool IsSecureUrl(const std::string& url);

/// The directories of one profile. Copyable; names places only.
struct ProfilePaths {
  std::string name;
  std::filesystem::path config;   ///< credentials
  std::filesystem::path data;     ///< the database and files that must not be lost
  std::filesystem::path cache;    ///< what can be fetched again
  std::filesystem::path runtime;  ///< sockets; gone after a restart of the machine

  std::filesystem::path Database() const { return data / "state.db"; }
  std::filesystem::path Credential() const { return config / "credential.json"; }

  /// The XDG base directories, each with `vormlane/NAME` appended. Throws Failure for a name that
  /// is empty, longer than 64 bytes, or not made of letters, digits, '.', '-', '_' and '@'.
  static ProfilePaths Named(const std::string& name);
  /// Everything below one directory: for temporary profiles.
  static ProfilePaths Under(const std::filesystem::path& root, const std::string& name);
};

/// Makes a directory that only its owner may enter, and its parents. Throws Failure.
void MakePrivateDirectory(const std::filesystem::path& directory);

/// A directory below the system's temporary one, removed with all it holds at destruction.
class TemporaryDirectory {
 public:
  explicit TemporaryDirectory(const std::string& prefix);
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return path; }

 private:
  std::filesystem::path path;
};

}  // namespace host
