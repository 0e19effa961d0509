#include "host/core/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/core/failure.h"
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

namespace host {
namespace fs = std::filesystem;
namespace {

fs::path FromEnvironment(const char* variable, const char* belowHome) {
  const char* value = std::getenv(variable);
  if (value != nullptr && value[0] == '/') return value;
  const char* home = std::getenv("HOME");
  if (home == nullptr || home[0] != '/')
    throw Failure("cannot tell where your files belong: HOME is not set", "set HOME");
  return fs::path(home) / belowHome;
}

bool IsNameByte(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || std::strchr(".-_@", c) != nullptr;
}

void CheckName(const std::string& name) {
  const bool good = !name.empty() && name.size() <= 64 && name[0] != '.' &&
                    std::all_of(name.begin(), name.end(), IsNameByte);
  if (!good)
    throw Failure("\"" + name + "\" cannot be the name of a profile",
                  "use up to 64 letters, digits, '-', '_', '@' and inner dots");
}

struct UrlParts {
  std::string scheme, host;
};

UrlParts Split(const std::string& url) {
  UrlParts parts;
  const size_t mark = url.find("://");
  if (mark == std::string::npos) return parts;
  parts.scheme = url.substr(0, mark);
  std::transform(parts.scheme.begin(), parts.scheme.end(), parts.scheme.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  const std::string authority = url.substr(mark + 3, url.find_first_of("/?#", mark + 3) - mark - 3);
  // What stands before an '@' is not the host: "http://127.0.0.1@elsewhere" leads elsewhere.
  const size_t at = authority.rfind('@');
  const std::string hostPort = at == std::string::npos ? authority : authority.substr(at + 1);
  parts.host =
      hostPort.substr(0, hostPort[0] == '[' ? hostPort.find(']') + 1
                                            : std::min(hostPort.find(':'), hostPort.size()));
  return parts;
}

}  // namespace

fs::path ExecutablePath() {
#ifdef __APPLE__
  uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::vector<char> buffer(size);
  if (_NSGetExecutablePath(buffer.data(), &size) != 0) return {};
  return fs::canonical(buffer.data());
#else
  return fs::read_symlink("/proc/self/exe");
#endif
}

fs::path DefaultModulePath() {
#ifdef __APPLE__
  constexpr char kModule[] = "vormlane_google.dylib";
#else
  constexpr char kModule[] = "vormlane_google.so";
#endif
  return ExecutablePath().parent_path().parent_path() / "PlugIns" / kModule;
}

fs::path CertificateBundle() {
  return ExecutablePath().parent_path().parent_path() / "Frameworks" / "cacert.pem";
}

bool IsSecureUrl(const std::string& url) {
  const std::string scheme = Split(url).scheme;
  return scheme == "https" || scheme == "wss";
}

bool IsLoopbackUrl(const std::string& url) {
  const UrlParts parts = Split(url);
  if (parts.scheme != "http" && parts.scheme != "ws") return false;
  return parts.host == "127.0.0.1" || parts.host == "[::1]" || parts.host == "localhost";
}

void RequireCertificatesFor(const std::string& url) {
  if (!IsSecureUrl(url)) return;
  const fs::path bundle = CertificateBundle();
  std::error_code error;
  if (access(bundle.c_str(), R_OK) == 0 && fs::file_size(bundle, error) > 0 && !error) return;
  throw Failure("cannot check the certificate of " + url + ": " + bundle.string() +
                    " is missing or cannot be read",
                "copy the system's certificate bundle there");
}

ProfilePaths ProfilePaths::Named(const std::string& name) {
  CheckName(name);
  ProfilePaths paths;
  paths.name = name;
  const fs::path own = fs::path("vormlane") / name;
  paths.config = FromEnvironment("XDG_CONFIG_HOME", ".config") / own;
  paths.data = FromEnvironment("XDG_DATA_HOME", ".local/share") / own;
  paths.cache = FromEnvironment("XDG_CACHE_HOME", ".cache") / own;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  paths.runtime =
      runtime != nullptr && runtime[0] == '/' ? fs::path(runtime) / own : paths.data / "run";
  return paths;
}

ProfilePaths ProfilePaths::Under(const fs::path& root, const std::string& name) {
  CheckName(name);
  return {name, root / "config", root / "data", root / "cache", root / "run"};
}

void MakePrivateDirectory(const fs::path& directory) {
  if (directory.empty() || fs::is_directory(directory)) return;
  MakePrivateDirectory(directory.parent_path());
  if (mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) return;
  throw Failure("cannot make the folder " + directory.string() + ": " + std::strerror(errno),
                "check who owns the folder above it");
}

TemporaryDirectory::TemporaryDirectory(const std::string& prefix) {
  std::string name = (fs::temp_directory_path() / (prefix + "XXXXXX")).string();
  if (mkdtemp(name.data()) == nullptr)
    throw Failure("cannot make a temporary folder " + name + ": " + std::strerror(errno),
                  "set TMPDIR to a folder that can be written to");
  path = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

}  // namespace host
