#include "host/cli/demo_drive.h"

namespace host {
namespace {

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
    : context(shared), directory("vormlane-demo-"), emulator("demo") {
  const ProfilePaths paths = ProfilePaths::Under(directory.Path(), "demo");
  FillProfile(paths, emulator);
  SignIn(paths, emulator);
  context.Close();
  context.pathsOverride = paths;
}

DemoDrive::~DemoDrive() {
  context.Close();
  context.pathsOverride.reset();
}

}  // namespace host
