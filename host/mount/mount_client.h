// What commands say to the mounts that run, each in a process of its own.
//
// Functions throw Failure, in words for the user.
#pragma once

#include <json/json.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/context.h"

namespace host::mount {

/// A profile's mount and what it says about itself.
struct RunningMount {
  ProfilePaths paths;
  Json::Value status;  ///< of one that does not answer "mount", "profile" and the "error" alone

  bool Answers() const { return !status.isMember("error"); }
  /// Throws what keeps it from answering, if anything does.
  void RequireAnswer() const;
  std::filesystem::path Folder() const { return status["mount"].asString(); }
};

using ProgressSink = std::function<void(const Json::Value&)>;

/// The profile of the command line, or every one of this user when none was named.
std::vector<ProfilePaths> ChosenProfiles(const Context& context, bool named);

/// The mount's last answer; nothing when the profile has no mount.
std::optional<Json::Value> Ask(const ProfilePaths& paths, const Json::Value& request,
                               const ProgressSink& progress = nullptr);

/// The mounts of the profiles, also those that do not answer. Throws when there is none.
std::vector<RunningMount> FindMounts(const std::vector<ProfilePaths>& profiles);

/// `path` from the folder of the mount that it lies in.
struct PlaceInMount {
  RunningMount mount;
  std::filesystem::path below;
};
PlaceInMount FindPlace(const std::vector<RunningMount>& mounts, const std::filesystem::path& path);

Json::Value Request(const std::string& command);

}  // namespace host::mount
