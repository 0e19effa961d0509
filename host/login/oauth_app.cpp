#include "host/login/oauth_app.h"

#include <fstream>
#include <sstream>

#include "host/core/failure.h"
#include "host/core/json_text.h"
#include "host/core/paths.h"

namespace host {

std::filesystem::path OAuthApp::DefaultFile() {
  // Every profile's directory stands beside it.
  return ProfilePaths::Named("default").config.parent_path() / "client.json";
}

OAuthApp OAuthApp::FromFile(const std::filesystem::path& file) {
  std::ifstream in(file);
  if (!in)
    throw Failure(
        "there is no client id to sign in with: cannot read " + file.string(),
        "make an OAuth client of type \"Desktop app\" in the service's developer console, "
        "download its JSON and save it there, or give --client-id and --client-secret");
  std::stringstream text;
  text << in.rdbuf();
  const auto document = ParseJson(text.str());
  const Json::Value& client =
      document ? ObjectMember(*document, "installed") : Json::Value::nullSingleton();
  OAuthApp app{TextMember(client, "client_id"), TextMember(client, "client_secret")};
  if (app.clientId.empty())
    throw Failure(file.string() + " describes no OAuth client for installed applications",
                  "download the JSON of a client of type \"Desktop app\" again");
  return app;
}

}  // namespace host
