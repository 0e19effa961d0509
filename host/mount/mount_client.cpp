#include "host/mount/mount_client.h"

#include <cstdio>
#include <future>

#include "host/mount/mount_point.h"
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

void RunningMount::RequireAnswer() const {
  if (!Answers()) throw Failure(Folder().string() + ": " + status["error"].asString());
}

namespace {

RunningMount Silent(const ProfilePaths& paths, const std::string& why) {
  Json::Value status;
  status["mount"] = ServedBy(paths).folder.string();
  status["profile"] = paths.name;
  status["error"] = why;
  return {paths, std::move(status)};
}

/// A mount that a killed host has left.
std::optional<RunningMount> LookForDead(const ProfilePaths& paths) {
  const fs::path folder = ServedBy(paths).folder;
  if (folder.empty() || !IsOwnMount(folder) || !IsDead(folder)) return std::nullopt;
  return Silent(paths,
                "its host has ended without a word; mount it again, or take it away with "
                "`vormlane unmount --now DIR`");
}

/// Also what keeps a mount from answering is an answer: others may.
std::optional<RunningMount> LookAt(const ProfilePaths& paths) {
  std::optional<Json::Value> status;
  try {
    status = Ask(paths, Request("status"));
    if (!status) return LookForDead(paths);
    status->removeMember("done");
  } catch (const Failure& failure) {
    std::error_code ignored;
    if (!fs::exists(SocketOf(paths), ignored)) throw;
    return Silent(paths, failure.what());
  }
  (*status)["profile"] = paths.name;
  return RunningMount{paths, std::move(*status)};
}

}  // namespace

/// All are asked at once: one that is stuck is waited for, and not by the others.
std::vector<RunningMount> FindMounts(const std::vector<ProfilePaths>& profiles) {
  std::vector<std::future<std::optional<RunningMount>>> looks;
  for (const ProfilePaths& paths : profiles)
    looks.push_back(std::async(std::launch::async, LookAt, paths));
  std::vector<RunningMount> mounts;
  for (auto& look : looks)
    if (std::optional<RunningMount> found = look.get()) mounts.push_back(std::move(*found));
  if (!mounts.empty()) return mounts;
  const std::string which = profiles.size() == 1
                                ? "the profile \"" + profiles[0].name + "\" is not mounted"
                                : "no profile is mounted";
  throw Failure(which, "mount it with `vormlane mount DIR`");
}

PlaceInMount FindPlace(const std::vector<RunningMount>& mounts, const fs::path& given) {
  fs::path path = fs::absolute(given).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();
  for (const fs::path& way : {path, Resolved(path)})
    for (const RunningMount& mount : mounts) {
      const fs::path below = way.lexically_relative(mount.Folder());
      if (!below.empty() && below.begin()->string() != "..") return {mount, below};
    }
  std::string folders;
  for (const RunningMount& mount : mounts)
    folders += (folders.empty() ? "" : ", ") + mount.Folder().string();
  throw Failure("\"" + given.string() + "\" is not in a mount; there is " + folders,
                "name a path there");
}

}  // namespace host::mount
