#include "host/mount/mount_client.h"

#include <cstdio>

#include "host/mount/mount_process.h"
#include "host/mount/status_socket.h"

namespace host::mount {
namespace fs = std::filesystem;

Json::Value Request(const std::string& command) {
  Json::Value request;
  request["command"] = command;
  return request;
}

std::vector<ProfilePaths> ChosenProfiles(const Context& context, bool named) {
  const ProfilePaths own = context.Paths();
  std::vector<ProfilePaths> chosen = {own};
  if (named || context.pathsOverride) return chosen;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(own.data.parent_path(), ignored)) {
    const std::string name = entry.path().filename().string();
    if (name == own.name || !fs::exists(entry.path() / "mount.lock", ignored)) continue;
    chosen.push_back(ProfilePaths::Named(name));
  }
  return chosen;
}

std::optional<Json::Value> Ask(const ProfilePaths& paths, const Json::Value& request,
                               const ProgressSink& progress) {
  Json::Value last;
  const bool done = AskMount(SocketOf(paths), request, [&](const Json::Value& answer) {
    last = answer;
    if (progress && !answer.isMember("done")) progress(answer);
  });
  if (!done && last.isNull()) return std::nullopt;
  if (!done) throw Failure("the mount has ended", "look at `vormlane status`");
  if (last.isMember("error"))
    throw Failure(request["command"].asString() + ": " + last["error"].asString());
  return last;
}

std::vector<RunningMount> FindMounts(const std::vector<ProfilePaths>& profiles) {
  std::vector<RunningMount> mounts;
  for (const ProfilePaths& paths : profiles)
    if (std::optional<Json::Value> status = Ask(paths, Request("status"))) {
      status->removeMember("done");
      (*status)["profile"] = paths.name;
      mounts.push_back({paths, std::move(*status)});
    }
  if (!mounts.empty()) return mounts;
  const std::string which = profiles.size() == 1
                                ? "the profile \"" + profiles[0].name + "\" is not mounted"
                                : "no profile is mounted";
  throw Failure(which, "mount it with `vormlane mount DIR`");
}

PlaceInMount FindPlace(const std::vector<RunningMount>& mounts, const fs::path& given) {
  fs::path path = fs::absolute(given).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();
  std::string folders;
  for (const RunningMount& mount : mounts) {
    const fs::path below = path.lexically_relative(mount.Folder());
    if (!below.empty() && below.begin()->string() != "..") return {mount, below};
    folders += (folders.empty() ? "" : ", ") + mount.Folder().string();
  }
  throw Failure("\"" + given.string() + "\" is not in a mount; there is " + folders,
                "name a path there");
}

}  // namespace host::mount
