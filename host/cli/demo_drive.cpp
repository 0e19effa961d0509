#include "host/cli/demo_drive.h"

#include <cstdlib>

namespace host {
namespace {

constexpr char kProfile[] = "demo";

/// Where each kind of file goes, below the demo's directory.
struct Base {
  const char* variable;
  const char* folder;
};
constexpr Base kBases[] = {{"XDG_CONFIG_HOME", "config"},
                           {"XDG_DATA_HOME", "data"},
                           {"XDG_CACHE_HOME", "cache"},
                           {"XDG_RUNTIME_DIR", "run"}};

/// The same places that ProfilePaths::Named finds through those variables.
ProfilePaths Paths(const std::filesystem::path& root) {
  const auto place = [&](const Base& base) { return root / base.folder / "vormlane" / kProfile; };
  return {kProfile, place(kBases[0]), place(kBases[1]), place(kBases[2]), place(kBases[3])};
}

void FillProfile(const ProfilePaths& paths, const EmulatorProcess& emulator) {
  const std::string userToken = emulator.Get("/status")["pushUserToken"].asString();
  const std::pair<const char*, std::string> values[] = {
      {"drive_api_url", emulator.Address("api")},
      {"push_server_url", emulator.Address("push")},
      {"api_server_url", emulator.Address("push-api")},
      {"user_token", userToken},
      {"drive_id", "demo-drive"},
      {"device_id", "demo-device"}};
  ProfileStore profile(paths);
  for (const auto& [key, value] : values) profile.SetValue(profile.Id(), key, value);
}

void SignIn(const ProfilePaths& paths, const EmulatorProcess& emulator) {
  const Json::Value tokens = emulator.Post("/tokens", Json::Value(Json::objectValue));
  Credential credential;
  credential.accessToken = tokens["accessToken"].asString();
  CredentialStore(paths.Credential(), nullptr).Save(credential);
}

}  // namespace

DemoDrive::DemoDrive(Context& shared)
    : context(shared), directory("vormlane-demo-"), emulator({"--seed", "demo"}) {
  const ProfilePaths paths = Paths(directory.Path());
  MakePrivateDirectory(paths.runtime);
  FillProfile(paths, emulator);
  SignIn(paths, emulator);
  context.Close();
  context.pathsOverride = paths;
}

std::vector<std::string> DemoDrive::Environment() const {
  std::vector<std::string> variables;
  for (const Base& base : kBases)
    variables.push_back(std::string(base.variable) + "=" +
                        (directory.Path() / base.folder).string());
  const char* path = std::getenv("PATH");
  variables.push_back("PATH=" + ExecutablePath().parent_path().string() + ":" +
                      (path == nullptr ? "/usr/bin:/bin" : path));
  return variables;
}

DemoDrive::~DemoDrive() {
  context.Close();
  context.pathsOverride.reset();
}

}  // namespace host
