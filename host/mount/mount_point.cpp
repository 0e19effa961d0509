#include "host/mount/mount_point.h"

#include <spawn.h>
#ifdef __APPLE__
#include <sys/param.h>
#include <sys/ucred.h>
#endif
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>

#include "host/core/failure.h"

extern char** environ;

namespace host::mount {
namespace fs = std::filesystem;
namespace {

constexpr char kFileSystem[] = "fuse.vormlane";

[[noreturn]] void Refuse(const fs::path& folder, const std::string& why,
                         const std::string& advice) {
  throw Failure("cannot mount at " + folder.string() + ": " + why, advice);
}

struct Mounted {
  std::string type;  ///< of the file system
  unsigned device = 0;
};

#ifdef __APPLE__

std::optional<Mounted> MountedAt(const fs::path& folder) {
  struct statfs* list = nullptr;
  const int count = getmntinfo(&list, MNT_NOWAIT);
  std::optional<Mounted> found;
  for (int i = 0; i < count; ++i)
    if (folder == list[i].f_mntonname)
      found = Mounted{std::string("fuse.") + list[i].f_mntfromname, 0};
  return found;
}

bool Detach(const fs::path& folder) { return unmount(folder.c_str(), MNT_FORCE) == 0; }

/// A forced unmount ends what programs wait for.
bool Abort(unsigned) { return true; }

#else

/// The system's list writes blanks and backslashes as octal numbers.
std::string Unescaped(const std::string& text) {
  std::string plain;
  for (size_t at = 0; at < text.size(); ++at) {
    const bool escaped = text[at] == '\\' && at + 3 < text.size();
    plain += escaped ? static_cast<char>(std::stoi(text.substr(at + 1, 3), nullptr, 8)) : text[at];
    if (escaped) at += 3;
  }
  return plain;
}

/// What is mounted at the folder; the topmost when there are several.
std::optional<Mounted> MountedAt(const fs::path& folder) {
  std::optional<Mounted> found;
  std::ifstream list("/proc/self/mountinfo");
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string number, above, device, root, place, word;
    words >> number >> above >> device >> root >> place;
    if (Unescaped(place) != folder.string()) continue;
    while (words >> word && word != "-") {
    }
    Mounted mounted;
    words >> mounted.type;
    const size_t colon = device.find(':');
    if (colon != std::string::npos)
      mounted.device = static_cast<unsigned>(std::stoul(device.substr(colon + 1)));
    found = mounted;
  }
  return found;
}

/// Takes a mount away for a user who is not root.
bool RunFusermount(const fs::path& folder) {
  const char* const arguments[] = {"fusermount3", "-uz", folder.c_str(), nullptr};
  pid_t child = 0;
  if (posix_spawnp(&child, arguments[0], nullptr, nullptr, const_cast<char* const*>(arguments),
                   environ) != 0)
    return false;
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool Detach(const fs::path& folder) {
  return umount2(folder.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0 || RunFusermount(folder);
}

bool Abort(unsigned device) {
  constexpr char kConnections[] = "/sys/fs/fuse/connections";
  const fs::path place = fs::path(kConnections) / std::to_string(device) / "abort";
  if (access(place.c_str(), F_OK) != 0) ::mount("none", kConnections, "fusectl", 0, nullptr);
  return static_cast<bool>(std::ofstream(place) << "1" << std::flush);
}

#endif

}  // namespace

fs::path Resolved(const fs::path& path) {
  struct Free {
    void operator()(char* text) const { std::free(text); }
  };
  const auto real = [](const fs::path& from) {
    const std::unique_ptr<char, Free> text(realpath(from.c_str(), nullptr));
    return fs::path(text ? text.get() : "");
  };
  if (fs::path whole = real(path); !whole.empty()) return whole;
  const fs::path above = real(path.parent_path());
  return above.empty() ? path : above / path.filename();
}

bool IsDead(const fs::path& folder) {
  // The kernel may still remember a dead mount's attributes, but not its room.
  struct statvfs room {};
  return statvfs(folder.c_str(), &room) != 0 && errno == ENOTCONN;
}

bool IsOwnMount(const fs::path& folder) {
  const std::optional<Mounted> mounted = MountedAt(Resolved(folder));
  return mounted && mounted->type == kFileSystem;
}

bool TearDown(const fs::path& folder) {
  const fs::path place = Resolved(folder);
  const std::optional<Mounted> mounted = MountedAt(place);
  if (!mounted || mounted->type != kFileSystem) return false;
  const bool aborted = Abort(mounted->device);
  return Detach(place) && aborted;
}

bool PrepareMountPoint(const fs::path& folder) {
  struct stat status {};
  const bool stale = IsDead(folder);
  if (stale) {
    if (!Detach(folder))
      Refuse(folder, "a mount that was left there cannot be taken away",
             "run `fusermount3 -uz` on it");
  }
  if (stat(folder.c_str(), &status) != 0)
    Refuse(folder, std::strerror(errno), "make the folder first");
  if (!S_ISDIR(status.st_mode)) Refuse(folder, "it is no folder", "name a folder");
  struct stat above {};
  if (stat((folder / "..").c_str(), &above) == 0 && above.st_dev != status.st_dev)
    Refuse(folder, "something is mounted there already", "run `vormlane unmount` first");
  std::error_code error;
  if (!fs::is_empty(folder, error) || error)
    Refuse(folder, "it is not empty", "use an empty folder, what is in it would be hidden");
  if (access("/dev/fuse", R_OK | W_OK) != 0)
    Refuse(folder, std::string("/dev/fuse: ") + std::strerror(errno),
           "this machine needs FUSE for it; the other commands work without");
  return stale;
}

}  // namespace host::mount
